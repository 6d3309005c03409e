// Tests of the secure-storage stand-in's credential.
#include "securestorage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string Hex(const unsigned char* p, size_t n) {
  std::string s;
  char b[3];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(b, sizeof b, "%02x", p[i]);
    s += b;
  }
  return s;
}

// Expected tokens computed independently with Python's hashlib:
//   sha256(b"tessera.securestorage.credential" + struct.pack("<7I", *words, 1, 0))
TEST(SecureStorage, TokenIsTheDocumentedHashOfTheWords) {
  credential c;
  ASSERT_EQ(ss_init_credential(&c, 1, 2, 3, 4, 5, 1, 0), SS_SUCCESS);
  EXPECT_EQ(Hex(c.token, SS_TOKEN_SIZE),
            "61888349b1529e97b1d5598b3c1d35012a68d9025440179aef6d2a56a995576f");
  EXPECT_EQ(c.version, 1u);
  EXPECT_EQ(c.flags, 0u);

  ASSERT_EQ(ss_init_credential(&c, 0xDEADBEEF, 0, 0, 0, 0x80000000, 1, 0), SS_SUCCESS);
  EXPECT_EQ(Hex(c.token, SS_TOKEN_SIZE),
            "3ae153ef8e78657ea67cb1af3882fef070e1ff04b5daed4195119eb2ac65574b");
}

TEST(SecureStorage, IsDeterministicAndSensitiveToEveryWord) {
  credential a, b;
  ASSERT_EQ(ss_init_credential(&a, 10, 20, 30, 40, 50, 1, 0), 0);
  ASSERT_EQ(ss_init_credential(&b, 10, 20, 30, 40, 50, 1, 0), 0);
  EXPECT_EQ(std::memcmp(a.token, b.token, SS_TOKEN_SIZE), 0);
  for (int i = 0; i < 5; ++i) {
    uint32_t w[5] = {10, 20, 30, 40, 50};
    w[i] ^= 1;
    ASSERT_EQ(ss_init_credential(&b, w[0], w[1], w[2], w[3], w[4], 1, 0), 0);
    EXPECT_NE(std::memcmp(a.token, b.token, SS_TOKEN_SIZE), 0) << "word " << i;
  }
}

TEST(SecureStorage, TokenIsTheFirst32BytesOfTheRecord) {
  credential c;
  ASSERT_EQ(ss_init_credential(&c, 1, 2, 3, 4, 5, 1, 0), 0);
  EXPECT_EQ(static_cast<const void*>(&c), static_cast<const void*>(c.token));
  EXPECT_GE(sizeof(credential), 32u);
}

TEST(SecureStorage, BadArgumentsFailWithNonZeroAndLeaveNoToken) {
  EXPECT_EQ(ss_init_credential(nullptr, 1, 2, 3, 4, 5, 1, 0), SS_ERROR_INVALID_PARAMETER);

  credential c;
  std::memset(&c, 0xAB, sizeof c);
  EXPECT_EQ(ss_init_credential(&c, 1, 2, 3, 4, 5, 2, 0), SS_ERROR_NOT_SUPPORTED);
  const credential zero{};
  EXPECT_EQ(std::memcmp(&c, &zero, sizeof c), 0);

  std::memset(&c, 0xAB, sizeof c);
  EXPECT_EQ(ss_init_credential(&c, 1, 2, 3, 4, 5, 0, 0), SS_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(std::memcmp(&c, &zero, sizeof c), 0);

  std::memset(&c, 0xAB, sizeof c);
  EXPECT_EQ(ss_init_credential(&c, 1, 2, 3, 4, 5, 1, 1), SS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(std::memcmp(&c, &zero, sizeof c), 0);

  std::memset(&c, 0xAB, sizeof c);
  EXPECT_EQ(ss_init_credential(&c, 0, 0, 0, 0, 0, 1, 0), SS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(std::memcmp(&c, &zero, sizeof c), 0);
}

}  // namespace
