// Tests of the HD path and its text form.
#include "HDPath.h"

#include <gtest/gtest.h>

namespace {

hd_path_param path(uint32_t purpose, uint32_t coin, uint32_t account, uint32_t change, uint32_t index) {
  return hd_path_param{static_cast<int32_t>(purpose), static_cast<int32_t>(coin),
                       static_cast<int32_t>(account), static_cast<int32_t>(change),
                       static_cast<int32_t>(index)};
}

TEST(HdPathToString, Bip44PathOfTheTestData) {
  EXPECT_EQ(hd_path_to_string(path(0x8000002C, 0x8000003C, 0x80000000, 0, 3)), "m/44'/60'/0'/0/3");
  EXPECT_EQ(hd_path_to_string(path(0x8000002C, 0x8000003C, 0x80000000, 0, 0)), "m/44'/60'/0'/0/0");
}

TEST(HdPathToString, OtherPurposesGiveOnlyM) {
  EXPECT_EQ(hd_path_to_string(path(0x80000031, 0x8000003C, 0x80000000, 0, 0)), "m");
  EXPECT_EQ(hd_path_to_string(path(44, 0x8000003C, 0x80000000, 0, 0)), "m");
  EXPECT_EQ(hd_path_to_string(path(0, 0, 0, 0, 0)), "m");
}

TEST(HdPathToString, HardenedLastLevelAndLargestPlainLevel) {
  EXPECT_EQ(hd_path_to_string(path(0x8000002C, 0x8000003C, 0x80000000, 0, 0x80000005)),
            "m/44'/60'/0'/0/5'");
  EXPECT_EQ(hd_path_to_string(path(0x8000002C, 0x8000003C, 0x80000000, 0, 2147483647)),
            "m/44'/60'/0'/0/2147483647");
  EXPECT_EQ(hd_path_to_string(path(0x8000002C, 0xFFFFFFFF, 0x80000000, 1, 0)),
            "m/44'/2147483647'/0'/1/0");
}

TEST(GetHdPathIndex, EachLevelAndBeyond) {
  const hd_path_param p = path(0x8000002C, 0x8000003C, 0x80000001, 7, 0x80000009);
  EXPECT_EQ(static_cast<uint32_t>(getHDPathIndex(p, 0)), 0x8000002Cu);
  EXPECT_EQ(static_cast<uint32_t>(getHDPathIndex(p, 1)), 0x8000003Cu);
  EXPECT_EQ(static_cast<uint32_t>(getHDPathIndex(p, 2)), 0x80000001u);
  EXPECT_EQ(getHDPathIndex(p, 3), 7);
  EXPECT_EQ(static_cast<uint32_t>(getHDPathIndex(p, 4)), 0x80000009u);
  // Every level past the last reads the address index; no error.
  EXPECT_EQ(static_cast<uint32_t>(getHDPathIndex(p, 7)), 0x80000009u);
  EXPECT_EQ(static_cast<uint32_t>(getHDPathIndex(p, 0xFFFFFFFFu)), 0x80000009u);
}

TEST(HdPathParam, HardenedWordsReadNegative) {
  const hd_path_param p = path(0x8000002C, 0, 0, 0, 0);
  EXPECT_LT(p.purpose, 0);
}

}  // namespace
