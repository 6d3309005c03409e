/* The storage folder at start-up: its lock, the TAs with objects, setting them aside. */
#include "daemon/storage_folder.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "teesim/testing/temp_folder.h"

namespace teesim::daemon {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTaA = "58d50001-1105-000b-af0c-c12fb6edecca";
constexpr const char* kTaB = "7e57a000-5e55-4d0e-9a11-000000000001";
constexpr const char* kTaC = "7e57a000-5e55-4d0e-9a11-000000000002";

TEST(StorageFolder, OneLockHolderAtATime) {
  ::teesim::testing::TempFolder folder("teesim-storage");
  UniqueFd a, b;
  ASSERT_EQ(lock_storage_folder(folder.path(), &a), 0);
  EXPECT_EQ(lock_storage_folder(folder.path(), &b), -EWOULDBLOCK);
  a.reset();
  EXPECT_EQ(lock_storage_folder(folder.path(), &b), 0);
  EXPECT_EQ(lock_storage_folder(folder.path() + "/missing", &a), -ENOENT);
}

TEST(StorageFolder, AWritableFolderIsFoundWritableAndLeftAsItWas) {
  ::teesim::testing::TempFolder folder("teesim-storage");
  EXPECT_EQ(probe_writable(folder.path()), 0);
  EXPECT_TRUE(fs::is_empty(folder.path()));
  EXPECT_EQ(probe_writable(folder.path() + "/missing"), -ENOENT);
}

TEST(StorageFolder, OnlyTaFoldersWithObjectsCount) {
  ::teesim::testing::TempFolder folder("teesim-storage");
  const std::string dir = folder.path();
  fs::create_directory(dir + "/" + kTaA);
  std::ofstream(dir + "/" + kTaA + "/0123.obj") << "x";
  fs::create_directory(dir + "/" + kTaB); /* empty */
  fs::create_directory(dir + "/" + kTaC); /* only an unfinished write */
  std::ofstream(dir + "/" + kTaC + "/.tmp-123") << "x";
  fs::create_directory(dir + "/not-a-uuid");
  std::ofstream(dir + "/not-a-uuid/0123.obj") << "x";
  std::ofstream(dir + "/installation.key") << "k";
  EXPECT_EQ(tas_with_objects(dir), std::vector<std::string>{kTaA});
}

TEST(StorageFolder, SetAsideMovesTheFoldersWhole) {
  ::teesim::testing::TempFolder folder("teesim-storage");
  const std::string dir = folder.path();
  for (const char* ta : {kTaA, kTaB}) {
    fs::create_directory(dir + "/" + ta);
    std::ofstream(dir + "/" + ta + "/0123.obj") << ta;
  }
  ASSERT_EQ(set_aside(dir, {kTaA, kTaB}, "lost-key-1"), 0);
  EXPECT_TRUE(tas_with_objects(dir).empty());
  for (const char* ta : {kTaA, kTaB}) EXPECT_TRUE(fs::exists(dir + "/lost-key-1/" + ta + "/0123.obj")) << ta;
  struct stat st{};
  ASSERT_EQ(::stat((dir + "/lost-key-1").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(set_aside(dir, {kTaA}, "lost-key-1"), -EEXIST) << "never into a folder that exists";
}

}  // namespace
}  // namespace teesim::daemon
