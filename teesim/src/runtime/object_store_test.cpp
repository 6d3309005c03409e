/* The object store: objects load back, ids and data never show on disk, any
 * tampering reads as corrupt, so does an older copy put back (the generation
 * record), and an independent reader (object_file_check.py)
 * decodes the file format. */
#include "runtime/object_store.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "common/crypto.h"
#include "common/fs.h"
#include "runtime/generation_record.h"
#include "runtime/test_support.h"
#include "tessera/testing/hex.h"
#include "teesim/testing/temp_folder.h"

namespace teesim::runtime {
namespace {

using ::tessera::testing::Hex;
using testing::pattern_key;
using testing::pattern_uuid;
using testing::read_all;
using ::teesim::testing::TempFolder;
using testing::write_all;

class ObjectStoreTest : public ::testing::Test {
 protected:
  ObjectStoreTest()
      : store_(dir_.path() + "/ta", pattern_uuid(0x10), pattern_key(1), pattern_key(2)) {}

  std::string path_of(const std::string& id) { return store_.dir() + "/" + store_.file_name(id.data(), id.size()); }

  TEE_Result save(const std::string& id, const std::string& data, bool exclusive = false) {
    return store_.save(id.data(), id.size(), reinterpret_cast<const uint8_t*>(data.data()),
                       data.size(), exclusive);
  }

  TEE_Result load(const std::string& id, std::string* data) {
    SecretBytes out;
    TEE_Result r = store_.load(id.data(), id.size(), &out);
    if (r == TEE_SUCCESS) data->assign(reinterpret_cast<const char*>(out.data()), out.size());
    return r;
  }

  TempFolder dir_;
  ObjectStore store_;
};

TEST_F(ObjectStoreTest, SavedObjectsLoadBack) {
  ASSERT_EQ(save("seed", "correct horse battery staple"), TEE_SUCCESS);
  ASSERT_EQ(save("", ""), TEE_SUCCESS);
  std::string data;
  ASSERT_EQ(load("seed", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "correct horse battery staple");
  ASSERT_EQ(load("", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "");
  std::string binary_id("\x00\x01\xff", 3), binary(1000, '\0');
  for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 31);
  ASSERT_EQ(save(binary_id, binary), TEE_SUCCESS);
  ASSERT_EQ(load(binary_id, &data), TEE_SUCCESS);
  EXPECT_EQ(data, binary);
}

TEST_F(ObjectStoreTest, MissingObjectIsNotFound) {
  std::string data;
  EXPECT_EQ(load("nothing", &data), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(store_.exists("nothing", 7), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(store_.remove("nothing", 7), TEE_ERROR_ITEM_NOT_FOUND);
}

TEST_F(ObjectStoreTest, NeitherIdNorDataAppearOnDisk) {
  ASSERT_EQ(save("wallet-seed-object", "SECRET-SEED-WORDS"), TEE_SUCCESS);
  std::string name = store_.file_name("wallet-seed-object", 18);
  EXPECT_EQ(name.size(), 64u + 4u);
  EXPECT_EQ(name.find("wallet"), std::string::npos);
  auto file = read_all(path_of("wallet-seed-object"));
  std::string content(file.begin(), file.end());
  EXPECT_EQ(content.find("wallet"), std::string::npos);
  EXPECT_EQ(content.find("SECRET"), std::string::npos);
  EXPECT_EQ(file.size(), kObjectFileOverhead + 18 + 17);
}

TEST_F(ObjectStoreTest, EachWriteUsesAFreshNonce) {
  ASSERT_EQ(save("a", "same"), TEE_SUCCESS);
  auto first = read_all(path_of("a"));
  ASSERT_EQ(save("a", "same"), TEE_SUCCESS);
  auto second = read_all(path_of("a"));
  ASSERT_EQ(first.size(), second.size());
  EXPECT_NE(first, second);
}

TEST_F(ObjectStoreTest, AnyFlippedByteIsReportedCorrupt) {
  ASSERT_EQ(save("obj", "some data to protect"), TEE_SUCCESS);
  const std::string path = path_of("obj");
  const auto good = read_all(path);
  for (size_t i = 0; i < good.size(); ++i) {
    for (uint8_t mask : {0x01, 0x80}) {
      auto bad = good;
      bad[i] ^= mask;
      write_all(path, bad);
      std::string data;
      EXPECT_EQ(load("obj", &data), TEE_ERROR_CORRUPT_OBJECT) << "byte " << i;
    }
  }
  write_all(path, good);
  std::string data;
  EXPECT_EQ(load("obj", &data), TEE_SUCCESS);
}

TEST_F(ObjectStoreTest, CutOrExtendedFileIsReportedCorrupt) {
  ASSERT_EQ(save("obj", "some data to protect"), TEE_SUCCESS);
  const std::string path = path_of("obj");
  const auto good = read_all(path);
  for (size_t len : {size_t{0}, size_t{7}, size_t{20}, size_t{39}, good.size() - 1}) {
    write_all(path, std::vector<uint8_t>(good.begin(), good.begin() + static_cast<long>(len)));
    std::string data;
    EXPECT_EQ(load("obj", &data), TEE_ERROR_CORRUPT_OBJECT) << "length " << len;
  }
  auto longer = good;
  longer.push_back(0);
  write_all(path, longer);
  std::string data;
  EXPECT_EQ(load("obj", &data), TEE_ERROR_CORRUPT_OBJECT);
}

TEST_F(ObjectStoreTest, FileMovedToAnotherNameIsReportedCorrupt) {
  ASSERT_EQ(save("pin", "1234"), TEE_SUCCESS);
  ASSERT_EQ(save("seed", "abandon abandon"), TEE_SUCCESS);
  write_all(path_of("pin"), read_all(path_of("seed")));
  std::string data;
  EXPECT_EQ(load("pin", &data), TEE_ERROR_CORRUPT_OBJECT);
  EXPECT_EQ(load("seed", &data), TEE_SUCCESS);
}

TEST_F(ObjectStoreTest, OtherTaOrOtherKeyCannotRead) {
  ASSERT_EQ(save("obj", "mine"), TEE_SUCCESS);
  std::string data;
  ObjectStore other_ta(store_.dir(), pattern_uuid(0x11), pattern_key(1), pattern_key(2));
  SecretBytes out;
  EXPECT_EQ(other_ta.load("obj", 3, &out), TEE_ERROR_CORRUPT_OBJECT);
  ObjectStore other_key(store_.dir(), pattern_uuid(0x10), pattern_key(9), pattern_key(2));
  EXPECT_EQ(other_key.load("obj", 3, &out), TEE_ERROR_CORRUPT_OBJECT);
  ObjectStore other_names(store_.dir(), pattern_uuid(0x10), pattern_key(1), pattern_key(3));
  EXPECT_EQ(other_names.load("obj", 3, &out), TEE_ERROR_ITEM_NOT_FOUND);
}

TEST_F(ObjectStoreTest, ExclusiveSaveRefusesAnExistingObject) {
  ASSERT_EQ(save("x", "first", true), TEE_SUCCESS);
  EXPECT_EQ(save("x", "second", true), TEE_ERROR_ACCESS_CONFLICT);
  std::string data;
  ASSERT_EQ(load("x", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "first");
  EXPECT_EQ(save("x", "third", false), TEE_SUCCESS);
  ASSERT_EQ(load("x", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "third");
}

TEST_F(ObjectStoreTest, RemoveAndRename) {
  ASSERT_EQ(save("old", "payload"), TEE_SUCCESS);
  ASSERT_EQ(save("taken", "other"), TEE_SUCCESS);
  const std::string payload = "payload";
  EXPECT_EQ(store_.rename("old", 3, "taken", 5, reinterpret_cast<const uint8_t*>(payload.data()),
                          payload.size()),
            TEE_ERROR_ACCESS_CONFLICT);
  ASSERT_EQ(store_.rename("old", 3, "new", 3, reinterpret_cast<const uint8_t*>(payload.data()),
                          payload.size()),
            TEE_SUCCESS);
  std::string data;
  EXPECT_EQ(load("old", &data), TEE_ERROR_ITEM_NOT_FOUND);
  ASSERT_EQ(load("new", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "payload");
  ASSERT_EQ(store_.remove("new", 3), TEE_SUCCESS);
  EXPECT_EQ(load("new", &data), TEE_ERROR_ITEM_NOT_FOUND);
}

TEST_F(ObjectStoreTest, OversizedDataIsRefused) {
  std::vector<uint8_t> big(kMaxObjectData + 1);
  EXPECT_EQ(store_.save("big", 3, big.data(), big.size(), false), TEE_ERROR_STORAGE_NO_SPACE);
  EXPECT_EQ(store_.exists("big", 3), TEE_ERROR_ITEM_NOT_FOUND);
}

/* ---- rollback: the generation record ---- */

TEST_F(ObjectStoreTest, AnOlderCopyPutBackIsReportedCorrupt) {
  ASSERT_EQ(save("pin-tries", "0"), TEE_SUCCESS);
  const auto fresh = read_all(path_of("pin-tries"));
  ASSERT_EQ(save("pin-tries", "1"), TEE_SUCCESS);
  const auto latest = read_all(path_of("pin-tries"));
  ASSERT_EQ(save("pin-tries", "2"), TEE_SUCCESS);
  std::string data;
  write_all(path_of("pin-tries"), fresh);
  EXPECT_EQ(load("pin-tries", &data), TEE_ERROR_CORRUPT_OBJECT);
  write_all(path_of("pin-tries"), latest);
  EXPECT_EQ(load("pin-tries", &data), TEE_ERROR_CORRUPT_OBJECT) << "one write back is older too";
  ASSERT_EQ(save("pin-tries", "3"), TEE_SUCCESS);
  ASSERT_EQ(load("pin-tries", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "3");
}

TEST_F(ObjectStoreTest, ADeletedObjectsFilePutBackStaysDeleted) {
  ASSERT_EQ(save("seed", "old wallet"), TEE_SUCCESS);
  const auto file = read_all(path_of("seed"));
  ASSERT_EQ(store_.remove("seed", 4), TEE_SUCCESS);
  write_all(path_of("seed"), file);
  std::string data;
  EXPECT_EQ(load("seed", &data), TEE_ERROR_ITEM_NOT_FOUND);
  ASSERT_EQ(save("seed", "new wallet"), TEE_SUCCESS) << "made again after its deletion";
  ASSERT_EQ(load("seed", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "new wallet");
}

TEST_F(ObjectStoreTest, AFileRemovedBehindTheStoresBackIsReportedCorrupt) {
  ASSERT_EQ(save("pin-tries", "2"), TEE_SUCCESS);
  ASSERT_EQ(::unlink(path_of("pin-tries").c_str()), 0);
  std::string data;
  EXPECT_EQ(load("pin-tries", &data), TEE_ERROR_CORRUPT_OBJECT);
}

TEST_F(ObjectStoreTest, ARemovedOrDamagedRecordIsNoticed) {
  ASSERT_EQ(save("obj", "data"), TEE_SUCCESS);
  const std::string record = store_.dir() + "/" + kGenerationRecordFile;
  const auto good = read_all(record);
  std::string data;
  ASSERT_EQ(::unlink(record.c_str()), 0);
  EXPECT_EQ(load("obj", &data), TEE_ERROR_CORRUPT_OBJECT);
  auto bad = good;
  bad[bad.size() / 2] ^= 0x01;
  write_all(record, bad);
  EXPECT_EQ(load("obj", &data), TEE_ERROR_CORRUPT_OBJECT);
  EXPECT_EQ(save("obj", "more"), TEE_ERROR_CORRUPT_OBJECT) << "nothing is written over it";
  write_all(record, good);
  ASSERT_EQ(load("obj", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "data");
}

TEST_F(ObjectStoreTest, AWriteWhoseRecordUpdateWasCutShortStillReads) {
  ASSERT_EQ(save("a", "1"), TEE_SUCCESS);
  const std::string record = store_.dir() + "/" + kGenerationRecordFile;
  const auto before = read_all(record);
  ASSERT_EQ(save("a", "2"), TEE_SUCCESS);
  write_all(record, before); /* as if the process died between the two writes */
  std::string data;
  ASSERT_EQ(load("a", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "2");
  ASSERT_EQ(save("b", "x"), TEE_SUCCESS);
  ASSERT_EQ(load("a", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "2");
}

TEST_F(ObjectStoreTest, ARecordRolledBackWithTheObjectsIsNotNoticed) {
  /* The documented limit: nothing outside the folder remembers. */
  ASSERT_EQ(save("pin-tries", "0"), TEE_SUCCESS);
  const std::string record = store_.dir() + "/" + kGenerationRecordFile;
  const auto old_file = read_all(path_of("pin-tries")), old_record = read_all(record);
  ASSERT_EQ(save("pin-tries", "1"), TEE_SUCCESS);
  write_all(path_of("pin-tries"), old_file);
  write_all(record, old_record);
  std::string data;
  ASSERT_EQ(load("pin-tries", &data), TEE_SUCCESS);
  EXPECT_EQ(data, "0");
}

TEST_F(ObjectStoreTest, FilesOfTheFirstFormatStillRead) {
  /* Format 1: no generation in the file, written before records existed. */
  const std::string id = "legacy", data = "from an older teesim";
  std::vector<uint8_t> plain(4 + id.size() + data.size());
  plain[0] = static_cast<uint8_t>(id.size());
  std::memcpy(plain.data() + 4, id.data(), id.size());
  std::memcpy(plain.data() + 4 + id.size(), data.data(), data.size());
  std::vector<uint8_t> file(20 + plain.size() + 16, 0);
  std::memcpy(file.data(), "TSOB\x01\0\0\0", 8);
  for (int i = 0; i < 12; ++i) file[8 + i] = static_cast<uint8_t>(i);
  uint8_t aad[8 + 16];
  std::memcpy(aad, file.data(), 8);
  std::memcpy(aad + 8, pattern_uuid(0x10).bytes.data(), 16);
  ASSERT_TRUE(crypto::aes256gcm_seal(file.data() + 20, file.data() + 20 + plain.size(),
                                     pattern_key(1).data(), file.data() + 8, aad, sizeof aad,
                                     plain.data(), plain.size()));
  ASSERT_EQ(fs::make_dirs(store_.dir(), 0700), 0);
  write_all(path_of(id), file);
  std::string got;
  ASSERT_EQ(load(id, &got), TEE_SUCCESS);
  EXPECT_EQ(got, data);
  ASSERT_EQ(save("other", "x"), TEE_SUCCESS) << "the TA's first record";
  ASSERT_EQ(load(id, &got), TEE_SUCCESS) << "an old file with no entry is its latest write";
  EXPECT_EQ(got, data);
}

TEST_F(ObjectStoreTest, AnIndependentReaderOpensTheFile) {
  const std::string id = "independent", data = "checked by pycryptodome";
  ASSERT_EQ(save(id, data), TEE_SUCCESS);
  Key256 sk = pattern_key(1), nk = pattern_key(2);
  Uuid u = pattern_uuid(0x10);
  std::string cmd = std::string(TESSERA_PYTHON3) + " " + OBJECT_FILE_CHECK + " '" + path_of(id) +
                    "' " + Hex(sk.data(), 32) + " " + Hex(nk.data(), 32) + " " +
                    Hex(u.bytes.data(), 16) + " " +
                    Hex(reinterpret_cast<const uint8_t*>(id.data()), id.size()) + " " +
                    Hex(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
}

}  // namespace
}  // namespace teesim::runtime
