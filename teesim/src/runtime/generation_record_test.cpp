/* The generation record: what it says about an object file, its
 * generations, its file's round trip and tamper detection. */
#include "runtime/generation_record.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/test_support.h"
#include "teesim/testing/temp_folder.h"

namespace teesim::runtime {
namespace {

using testing::pattern_key;
using testing::pattern_uuid;
using testing::read_all;
using testing::write_all;

ObjectName name_of(uint8_t seed) {
  ObjectName n{};
  n.fill(seed);
  return n;
}

TEST(GenerationRecord, JudgesAFileByItsEntry) {
  GenerationRecord r;
  const ObjectName live = name_of(1), gone = name_of(2), unknown = name_of(3);
  ASSERT_TRUE(r.note(live, 100, true));
  ASSERT_TRUE(r.note(gone, 200, false));
  EXPECT_EQ(judge(&r, live, true, 100), ObjectState::Current);
  EXPECT_EQ(judge(&r, live, true, 150), ObjectState::Current) << "newer: the record lagged";
  EXPECT_EQ(judge(&r, live, true, 99), ObjectState::RolledBack);
  EXPECT_EQ(judge(&r, live, true, 0), ObjectState::RolledBack) << "a first-format file is older";
  EXPECT_EQ(judge(&r, live, false, 0), ObjectState::Missing);
  EXPECT_EQ(judge(&r, gone, true, 200), ObjectState::Deleted);
  EXPECT_EQ(judge(&r, gone, true, 201), ObjectState::Current) << "made again after its deletion";
  EXPECT_EQ(judge(&r, gone, false, 0), ObjectState::Absent);
  EXPECT_EQ(judge(&r, unknown, true, 5), ObjectState::Current);
  EXPECT_EQ(judge(&r, unknown, false, 0), ObjectState::Absent);
  /* No record yet: only files of the first format can be current. */
  EXPECT_EQ(judge(nullptr, unknown, true, 0), ObjectState::Current);
  EXPECT_EQ(judge(nullptr, unknown, true, 5), ObjectState::RolledBack);
  EXPECT_EQ(judge(nullptr, unknown, false, 0), ObjectState::Absent);
}

TEST(GenerationRecord, GenerationsOnlyGrow) {
  GenerationRecord r;
  const uint64_t a = r.next();
  ASSERT_TRUE(r.note(name_of(1), a, true));
  EXPECT_GT(r.next(), a);
  r.last = ~uint64_t{0} - 1; /* a clock far behind the record */
  EXPECT_EQ(r.next(), ~uint64_t{0});
}

TEST(GenerationRecord, AFullRecordDropsTheOldestDeletionsFirst) {
  GenerationRecord r;
  for (size_t i = 0; i < kMaxGenerationEntries; ++i) {
    ObjectName n{};
    n[0] = static_cast<uint8_t>(i);
    n[1] = static_cast<uint8_t>(i >> 8);
    ASSERT_TRUE(r.note(n, 10 + i, i >= 2)); /* the first two are deletions */
  }
  EXPECT_TRUE(r.note(name_of(0xEE), 1000000, true));
  EXPECT_EQ(r.entries.size(), kMaxGenerationEntries);
  ObjectName first{};
  EXPECT_EQ(r.entries.count(first), 0u) << "the oldest deletion went";
  EXPECT_TRUE(r.note(name_of(0xEF), 1000001, true));
  EXPECT_FALSE(r.note(name_of(0xF0), 1000002, true)) << "full of live objects";
}

TEST(GenerationRecord, RoundTripsAndRefusesTampering) {
  ::teesim::testing::TempFolder dir;
  GenerationRecord r, back;
  ASSERT_TRUE(r.note(name_of(1), 100, true));
  ASSERT_TRUE(r.note(name_of(2), 200, false));
  int err = 0;
  EXPECT_EQ(read_generation_record(dir.path(), pattern_uuid(1), pattern_key(1), &back),
            TEE_ERROR_ITEM_NOT_FOUND);
  ASSERT_EQ(write_generation_record(dir.path(), pattern_uuid(1), pattern_key(1), r, &err), TEE_SUCCESS);
  ASSERT_EQ(read_generation_record(dir.path(), pattern_uuid(1), pattern_key(1), &back), TEE_SUCCESS);
  EXPECT_EQ(back.last, 200u);
  ASSERT_EQ(back.entries.size(), 2u);
  EXPECT_EQ(back.entries[name_of(1)].generation, 100u);
  EXPECT_TRUE(back.entries[name_of(1)].live);
  EXPECT_FALSE(back.entries[name_of(2)].live);
  EXPECT_EQ(read_generation_record(dir.path(), pattern_uuid(2), pattern_key(1), &back),
            TEE_ERROR_CORRUPT_OBJECT) << "another TA's";
  EXPECT_EQ(read_generation_record(dir.path(), pattern_uuid(1), pattern_key(2), &back),
            TEE_ERROR_CORRUPT_OBJECT) << "another key";
  const std::string path = dir.path() + "/" + kGenerationRecordFile;
  const auto good = read_all(path);
  for (size_t i = 0; i < good.size(); i += 7) {
    auto bad = good;
    bad[i] ^= 0x40;
    write_all(path, bad);
    EXPECT_EQ(read_generation_record(dir.path(), pattern_uuid(1), pattern_key(1), &back),
              TEE_ERROR_CORRUPT_OBJECT) << "byte " << i;
  }
  write_all(path, std::vector<uint8_t>(good.begin(), good.end() - 1));
  EXPECT_EQ(read_generation_record(dir.path(), pattern_uuid(1), pattern_key(1), &back),
            TEE_ERROR_CORRUPT_OBJECT);
}

}  // namespace
}  // namespace teesim::runtime
