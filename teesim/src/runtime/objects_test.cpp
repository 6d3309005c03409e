/* The persistent-object functions of the Internal API: handles, sharing, data streams. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "runtime/runtime.h"
#include "runtime/test_support.h"
#include "teesim/testing/temp_folder.h"
#include "tee_internal_api.h"

namespace teesim::runtime {
namespace {

using testing::pattern_key;
using testing::pattern_uuid;
using ::teesim::testing::TempFolder;

constexpr uint32_t kRW = TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_ACCESS_WRITE;
constexpr uint32_t kAll = kRW | TEE_DATA_FLAG_ACCESS_WRITE_META;

class ObjectsTest : public ::testing::Test {
 protected:
  void SetUp() override { reconfigure(); }
  void TearDown() override { close_all_object_handles(); }

  void reconfigure() {
    Config c;
    c.uuid = pattern_uuid(0x20);
    c.name = "objects-test";
    c.store = std::make_unique<ObjectStore>(dir_.path() + "/ta", c.uuid, pattern_key(5), pattern_key(6));
    configure(std::move(c));
  }

  TEE_Result create(const std::string& id, const std::string& data, uint32_t flags,
                    TEE_ObjectHandle* h) {
    return TEE_CreatePersistentObject(TEE_STORAGE_PRIVATE, id.data(), static_cast<uint32_t>(id.size()),
                                      flags, TEE_HANDLE_NULL, data.data(),
                                      static_cast<uint32_t>(data.size()), h);
  }
  TEE_Result open(const std::string& id, uint32_t flags, TEE_ObjectHandle* h) {
    return TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id.data(), static_cast<uint32_t>(id.size()),
                                    flags, h);
  }
  std::string read(TEE_ObjectHandle h, uint32_t n) {
    std::string buf(n, '\0');
    uint32_t count = 0;
    EXPECT_EQ(TEE_ReadObjectData(h, buf.data(), n, &count), TEE_SUCCESS);
    buf.resize(count);
    return buf;
  }
  TEE_ObjectInfo info(TEE_ObjectHandle h) {
    TEE_ObjectInfo i{};
    EXPECT_EQ(TEE_GetObjectInfo1(h, &i), TEE_SUCCESS);
    return i;
  }

  TempFolder dir_;
};

TEST_F(ObjectsTest, CreatedObjectReadsBackAndPersists) {
  TEE_ObjectHandle h = TEE_HANDLE_NULL;
  ASSERT_EQ(create("seed", "0123456789", kRW, &h), TEE_SUCCESS);
  ASSERT_NE(h, TEE_HANDLE_NULL);
  EXPECT_EQ(read(h, 4), "0123");
  EXPECT_EQ(read(h, 100), "456789");
  EXPECT_EQ(read(h, 100), "");
  TEE_CloseObject(h);
  EXPECT_EQ(open_object_handles(), 0u);

  reconfigure(); /* a new instance with the same keys */
  ASSERT_EQ(open("seed", TEE_DATA_FLAG_ACCESS_READ, &h), TEE_SUCCESS);
  EXPECT_EQ(read(h, 100), "0123456789");
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, CreateWithNullHandleClosesAtOnce) {
  ASSERT_EQ(create("x", "data", kRW, nullptr), TEE_SUCCESS);
  EXPECT_EQ(open_object_handles(), 0u);
  TEE_ObjectHandle h;
  ASSERT_EQ(open("x", TEE_DATA_FLAG_ACCESS_READ, &h), TEE_SUCCESS);
  EXPECT_EQ(read(h, 10), "data");
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, CreateRespectsOverwriteAndOpenHandles) {
  ASSERT_EQ(create("x", "one", kRW, nullptr), TEE_SUCCESS);
  TEE_ObjectHandle h = reinterpret_cast<TEE_ObjectHandle>(0x1);
  EXPECT_EQ(create("x", "two", kRW, &h), TEE_ERROR_ACCESS_CONFLICT);
  EXPECT_EQ(h, TEE_HANDLE_NULL);
  ASSERT_EQ(create("x", "three", kRW | TEE_DATA_FLAG_OVERWRITE, &h), TEE_SUCCESS);
  EXPECT_EQ(read(h, 10), "three");
  TEE_ObjectHandle h2;
  EXPECT_EQ(create("x", "four", kRW | TEE_DATA_FLAG_OVERWRITE, &h2), TEE_ERROR_ACCESS_CONFLICT);
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, OpenReportsMissingObjectsAndUnknownStorage) {
  TEE_ObjectHandle h;
  EXPECT_EQ(open("missing", TEE_DATA_FLAG_ACCESS_READ, &h), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(h, TEE_HANDLE_NULL);
  ASSERT_EQ(create("x", "1", kRW, nullptr), TEE_SUCCESS);
  EXPECT_EQ(TEE_OpenPersistentObject(0x42, "x", 1, TEE_DATA_FLAG_ACCESS_READ, &h),
            TEE_ERROR_ITEM_NOT_FOUND);
}

TEST_F(ObjectsTest, SharingRulesDecideConcurrentOpens) {
  ASSERT_EQ(create("x", "abc", kRW, nullptr), TEE_SUCCESS);
  const uint32_t shared_read = TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_SHARE_READ;
  TEE_ObjectHandle a, b, c;
  ASSERT_EQ(open("x", shared_read, &a), TEE_SUCCESS);
  ASSERT_EQ(open("x", shared_read, &b), TEE_SUCCESS);
  EXPECT_EQ(open("x", TEE_DATA_FLAG_ACCESS_READ, &c), TEE_ERROR_ACCESS_CONFLICT)
      << "the new handle does not share reading with the open ones";
  EXPECT_EQ(open("x", shared_read | TEE_DATA_FLAG_ACCESS_WRITE, &c), TEE_ERROR_ACCESS_CONFLICT)
      << "the open handles do not share writing";
  EXPECT_EQ(open("x", shared_read | TEE_DATA_FLAG_ACCESS_WRITE_META, &c), TEE_ERROR_ACCESS_CONFLICT);
  TEE_CloseObject(a);
  TEE_CloseObject(b);
  ASSERT_EQ(open("x", TEE_DATA_FLAG_ACCESS_WRITE_META, &a), TEE_SUCCESS);
  EXPECT_EQ(open("x", shared_read | TEE_DATA_FLAG_SHARE_WRITE, &b), TEE_ERROR_ACCESS_CONFLICT);
  TEE_CloseObject(a);
}

TEST_F(ObjectsTest, HandlesOnOneObjectSeeEachOthersWrites) {
  const uint32_t f = kRW | TEE_DATA_FLAG_SHARE_READ | TEE_DATA_FLAG_SHARE_WRITE;
  TEE_ObjectHandle a, b;
  ASSERT_EQ(create("x", "aaaa", f, &a), TEE_SUCCESS);
  ASSERT_EQ(open("x", f, &b), TEE_SUCCESS);
  ASSERT_EQ(TEE_WriteObjectData(a, "ZZ", 2), TEE_SUCCESS);
  EXPECT_EQ(read(b, 10), "ZZaa");
  TEE_CloseObject(a);
  TEE_CloseObject(b);
}

TEST_F(ObjectsTest, WritesAreDurableOnReturnAndFillGapsWithZeros) {
  TEE_ObjectHandle h;
  ASSERT_EQ(create("x", "ab", kRW, &h), TEE_SUCCESS);
  ASSERT_EQ(TEE_SeekObjectData(h, 5, TEE_DATA_SEEK_SET), TEE_SUCCESS);
  ASSERT_EQ(TEE_WriteObjectData(h, "xy", 2), TEE_SUCCESS);
  EXPECT_EQ(info(h).dataSize, 7u);
  EXPECT_EQ(info(h).dataPosition, 7u);
  /* read the disk through a separate store, not this instance's copy */
  ObjectStore disk(dir_.path() + "/ta", pattern_uuid(0x20), pattern_key(5), pattern_key(6));
  SecretBytes data;
  ASSERT_EQ(disk.load("x", 1, &data), TEE_SUCCESS);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.data()), data.size()),
            std::string("ab\0\0\0xy", 7));
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, SeekClampsBelowZeroAndRefusesPastTheLimit) {
  TEE_ObjectHandle h;
  ASSERT_EQ(create("x", "0123456789", kRW, &h), TEE_SUCCESS);
  ASSERT_EQ(TEE_SeekObjectData(h, -3, TEE_DATA_SEEK_END), TEE_SUCCESS);
  EXPECT_EQ(read(h, 10), "789");
  ASSERT_EQ(TEE_SeekObjectData(h, -2, TEE_DATA_SEEK_CUR), TEE_SUCCESS);
  EXPECT_EQ(read(h, 1), "8");
  ASSERT_EQ(TEE_SeekObjectData(h, -100, TEE_DATA_SEEK_CUR), TEE_SUCCESS);
  EXPECT_EQ(info(h).dataPosition, 0u);
  ASSERT_EQ(TEE_SeekObjectData(h, 0x7FFFFFFF, TEE_DATA_SEEK_SET), TEE_SUCCESS);
  ASSERT_EQ(TEE_SeekObjectData(h, 0x7FFFFFFF, TEE_DATA_SEEK_CUR), TEE_SUCCESS);
  EXPECT_EQ(info(h).dataPosition, 0xFFFFFFFEu);
  EXPECT_EQ(TEE_SeekObjectData(h, 2, TEE_DATA_SEEK_CUR), TEE_ERROR_OVERFLOW);
  EXPECT_EQ(info(h).dataPosition, 0xFFFFFFFEu) << "a refused seek leaves the position";
  EXPECT_EQ(TEE_WriteObjectData(h, "abc", 3), TEE_ERROR_OVERFLOW);
  EXPECT_EQ(TEE_WriteObjectData(h, "a", 1), TEE_ERROR_STORAGE_NO_SPACE);
  EXPECT_EQ(info(h).dataSize, 10u);
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, TruncateShrinksAndGrowsWithZeros) {
  TEE_ObjectHandle h;
  ASSERT_EQ(create("x", "abcdef", kRW, &h), TEE_SUCCESS);
  ASSERT_EQ(TEE_TruncateObjectData(h, 2), TEE_SUCCESS);
  EXPECT_EQ(read(h, 10), "ab");
  ASSERT_EQ(TEE_TruncateObjectData(h, 4), TEE_SUCCESS);
  ASSERT_EQ(TEE_SeekObjectData(h, 0, TEE_DATA_SEEK_SET), TEE_SUCCESS);
  EXPECT_EQ(read(h, 10), std::string("ab\0\0", 4));
  EXPECT_EQ(TEE_TruncateObjectData(h, kMaxObjectData + 1), TEE_ERROR_STORAGE_NO_SPACE);
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, RenameMovesTheObjectUnlessTheNameIsTaken) {
  ASSERT_EQ(create("taken", "t", kRW, nullptr), TEE_SUCCESS);
  TEE_ObjectHandle h;
  ASSERT_EQ(create("old", "payload", kAll, &h), TEE_SUCCESS);
  EXPECT_EQ(TEE_RenamePersistentObject(h, "taken", 5), TEE_ERROR_ACCESS_CONFLICT);
  ASSERT_EQ(TEE_RenamePersistentObject(h, "new", 3), TEE_SUCCESS);
  ASSERT_EQ(TEE_RenamePersistentObject(h, "new", 3), TEE_SUCCESS);
  TEE_CloseObject(h);
  TEE_ObjectHandle g;
  EXPECT_EQ(open("old", TEE_DATA_FLAG_ACCESS_READ, &g), TEE_ERROR_ITEM_NOT_FOUND);
  ASSERT_EQ(open("new", TEE_DATA_FLAG_ACCESS_READ, &g), TEE_SUCCESS);
  EXPECT_EQ(read(g, 20), "payload");
  TEE_CloseObject(g);
}

TEST_F(ObjectsTest, CloseAndDeleteRemovesTheObject) {
  TEE_ObjectHandle h;
  ASSERT_EQ(create("x", "gone soon", kAll, &h), TEE_SUCCESS);
  EXPECT_EQ(TEE_CloseAndDeletePersistentObject1(h), TEE_SUCCESS);
  EXPECT_EQ(open_object_handles(), 0u);
  EXPECT_EQ(open("x", TEE_DATA_FLAG_ACCESS_READ, &h), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(TEE_CloseAndDeletePersistentObject1(TEE_HANDLE_NULL), TEE_SUCCESS);
}

TEST_F(ObjectsTest, ObjectInfoDescribesTheHandle) {
  TEE_ObjectHandle h;
  ASSERT_EQ(create("x", "12345", kRW, &h), TEE_SUCCESS);
  read(h, 2);
  TEE_ObjectInfo i = info(h);
  EXPECT_EQ(i.objectType, TEE_TYPE_DATA);
  EXPECT_EQ(i.dataSize, 5u);
  EXPECT_EQ(i.dataPosition, 2u);
  EXPECT_EQ(i.handleFlags, kRW | TEE_HANDLE_FLAG_PERSISTENT | TEE_HANDLE_FLAG_INITIALIZED);
  TEE_CloseObject(h);
}

TEST_F(ObjectsTest, TamperedFileIsReportedCorrupt) {
  ASSERT_EQ(create("x", "protected", kRW, nullptr), TEE_SUCCESS);
  const ObjectStore& s = *config().store;
  std::string path = s.dir() + "/" + s.file_name("x", 1);
  auto bytes = testing::read_all(path);
  bytes[bytes.size() / 2] ^= 0x40;
  testing::write_all(path, bytes);
  TEE_ObjectHandle h;
  EXPECT_EQ(open("x", TEE_DATA_FLAG_ACCESS_READ, &h), TEE_ERROR_CORRUPT_OBJECT);
  EXPECT_EQ(h, TEE_HANDLE_NULL);
}

using ObjectsDeathTest = ObjectsTest;

TEST_F(ObjectsDeathTest, MisuseEndsTheInstance) {
  auto panics = ::testing::ExitedWithCode(kPanicExitCode);
  TEE_ObjectHandle h;
  ASSERT_EQ(create("x", "abc", TEE_DATA_FLAG_ACCESS_READ, &h), TEE_SUCCESS);
  EXPECT_EXIT(TEE_WriteObjectData(h, "z", 1), panics, "panicked");
  EXPECT_EXIT(TEE_TruncateObjectData(h, 0), panics, "panicked");
  EXPECT_EXIT(TEE_RenamePersistentObject(h, "y", 1), panics, "panicked");
  EXPECT_EXIT(TEE_CloseAndDeletePersistentObject1(h), panics, "panicked");
  EXPECT_EXIT(TEE_CloseObject(reinterpret_cast<TEE_ObjectHandle>(0x1234)), panics, "panicked");
  std::string long_id(TEE_OBJECT_ID_MAX_LEN + 1, 'i');
  EXPECT_EXIT(open(long_id, TEE_DATA_FLAG_ACCESS_READ, &h), panics, "panicked");
  TEE_CloseObject(h);
  EXPECT_EXIT(TEE_CloseObject(h), panics, "panicked") << "a closed handle is a bad handle";
}

}  // namespace
}  // namespace teesim::runtime
