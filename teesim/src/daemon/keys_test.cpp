/* The installation key: made once, private, refused when others may read it. */
#include "daemon/keys.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "teesim/testing/temp_folder.h"

namespace teesim::daemon {
namespace {

class KeysTest : public ::testing::Test {
 protected:
  std::string key_path() const { return dir_ + "/" + kInstallationKeyFile; }
  ::teesim::testing::TempFolder folder_{"teesim-keys"};
  const std::string dir_ = folder_.path();
};

TEST_F(KeysTest, MadeOnceOwnerOnlyThenReadBack) {
  Key256 a, b;
  bool created = false;
  std::string err;
  EXPECT_TRUE(installation_key_missing(dir_));
  ASSERT_TRUE(load_or_create_installation_key(dir_, &a, &created, &err)) << err;
  EXPECT_TRUE(created);
  EXPECT_FALSE(installation_key_missing(dir_));
  struct stat st{};
  ASSERT_EQ(::stat(key_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_size, 32);
  ASSERT_TRUE(load_or_create_installation_key(dir_, &b, &created, &err)) << err;
  EXPECT_FALSE(created);
  EXPECT_EQ(a.array(), b.array());
}

TEST_F(KeysTest, UnsafeOrForeignKeyFilesAreRefused) {
  Key256 k;
  bool created;
  std::string err;
  ASSERT_TRUE(load_or_create_installation_key(dir_, &k, &created, &err));
  ASSERT_EQ(::chmod(key_path().c_str(), 0640), 0);
  EXPECT_FALSE(load_or_create_installation_key(dir_, &k, &created, &err));
  EXPECT_NE(err.find("other users"), std::string::npos) << err;
  ASSERT_EQ(::chmod(key_path().c_str(), 0600), 0);
  ASSERT_EQ(::truncate(key_path().c_str(), 31), 0);
  EXPECT_FALSE(load_or_create_installation_key(dir_, &k, &created, &err));
  EXPECT_NE(err.find("not a teesim installation key"), std::string::npos) << err;
  ASSERT_EQ(::unlink(key_path().c_str()), 0);
  ASSERT_EQ(::symlink("/etc/hostname", key_path().c_str()), 0);
  EXPECT_FALSE(load_or_create_installation_key(dir_, &k, &created, &err));
}

TEST_F(KeysTest, TaKeysDependOnTheTaAndDiffer) {
  Key256 install;
  for (size_t i = 0; i < 32; ++i) install.data()[i] = static_cast<uint8_t>(i);
  Uuid a, b;
  ASSERT_TRUE(uuid_parse("58d50001-1105-000b-af0c-c12fb6edecca", &a));
  ASSERT_TRUE(uuid_parse("58d50001-1105-000b-af0c-c12fb6edeccb", &b));
  TaKeys ka, ka2, kb;
  ASSERT_TRUE(derive_ta_keys(install, a, &ka));
  ASSERT_TRUE(derive_ta_keys(install, a, &ka2));
  ASSERT_TRUE(derive_ta_keys(install, b, &kb));
  EXPECT_EQ(ka.storage.array(), ka2.storage.array());
  EXPECT_NE(ka.storage.array(), kb.storage.array());
  EXPECT_NE(ka.storage.array(), ka.names.array());
  EXPECT_NE(ka.storage.array(), install.array());
}

TEST_F(KeysTest, DeterministicRandomKeysFollowSeedTaAndInstance) {
  Uuid a;
  ASSERT_TRUE(uuid_parse("58d50001-1105-000b-af0c-c12fb6edecca", &a));
  Key256 k1, k1b, k2, other_seed;
  ASSERT_TRUE(deterministic_random_key("seed", a, 1, &k1));
  ASSERT_TRUE(deterministic_random_key("seed", a, 1, &k1b));
  ASSERT_TRUE(deterministic_random_key("seed", a, 2, &k2));
  ASSERT_TRUE(deterministic_random_key("seeD", a, 1, &other_seed));
  EXPECT_EQ(k1.array(), k1b.array());
  EXPECT_NE(k1.array(), k2.array());
  EXPECT_NE(k1.array(), other_seed.array());
}

}  // namespace
}  // namespace teesim::daemon
