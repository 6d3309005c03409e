/* TempFolder: made where asked, removed with its tree, only by its maker. */
#include "teesim/testing/temp_folder.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <system_error>

namespace teesim::testing {
namespace {

namespace fs = std::filesystem;

TEST(TempFolder, IsMadeInTheParentWithThePrefixAndRemovedWithItsTree) {
  TempFolder parent("parent");
  std::string path;
  {
    TempFolder t("my-prefix", parent.path());
    path = t.path();
    EXPECT_EQ(fs::path(path).parent_path(), fs::path(parent.path()));
    EXPECT_EQ(fs::path(path).filename().string().rfind("my-prefix-", 0), 0u) << path;
    ASSERT_TRUE(fs::is_directory(path));
    EXPECT_EQ(fs::status(path).permissions() & fs::perms::all, fs::perms::owner_all);
    fs::create_directories(path + "/a/b");
    std::ofstream(path + "/a/b/file") << "content";
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST(TempFolder, DefaultsToTmpdirAndHasAnAbsolutePath) {
  TempFolder parent("tmpdir");
  ::setenv("TMPDIR", parent.path().c_str(), 1);
  TempFolder t;
  ::unsetenv("TMPDIR");
  EXPECT_EQ(fs::path(t.path()).parent_path(), fs::path(parent.path()));
  EXPECT_TRUE(fs::path(t.path()).is_absolute());
  EXPECT_EQ(fs::path(t.path()).filename().string().rfind("teesim-test-", 0), 0u);
}

TEST(TempFolder, AParentThatDoesNotExistThrowsWithThePath) {
  try {
    TempFolder t("x", "/nonexistent-parent-folder");
    ADD_FAILURE() << "made " << t.path();
  } catch (const std::system_error& e) {
    EXPECT_NE(std::string(e.what()).find("/nonexistent-parent-folder/x-XXXXXX"), std::string::npos)
        << e.what();
  }
}

TEST(TempFolder, AForkedChildLeavesTheFolderOfItsParentAlone) {
  auto* t = new TempFolder("forked");
  const std::string path = t->path();
  pid_t child = ::fork();
  if (child == 0) {
    delete t; /* as a child that unwinds normally would */
    ::_exit(0);
  }
  ASSERT_GT(child, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(fs::is_directory(path));
  delete t;
  EXPECT_FALSE(fs::exists(path));
}

}  // namespace
}  // namespace teesim::testing
