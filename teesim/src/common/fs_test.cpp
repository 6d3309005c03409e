/* Atomic writes, private folders and the other file-system helpers. */
#include "common/fs.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "teesim/testing/temp_folder.h"

namespace teesim::fs {
namespace {

using ::teesim::testing::TempFolder;

std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> out;
  DIR* d = ::opendir(dir.c_str());
  while (dirent* e = ::readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") out.push_back(n);
  }
  ::closedir(d);
  return out;
}

TEST(Fs, OffsetsAndInodeNumbersAre64BitOnEveryWidth) {
  /* With 32-bit ones (32-bit ARM without large-file support) readdir()
   * fails with EOVERFLOW on an entry whose inode number or directory offset
   * needs more, which ends a listing early as if the folder were empty. */
  EXPECT_EQ(sizeof(off_t), 8u);
  EXPECT_EQ(sizeof(ino_t), 8u);
}

TEST(Fs, AtomicWriteReplacesWholeFileAndLeavesNoTemporary) {
  TempFolder t;
  const uint8_t a[] = {1, 2, 3}, b[] = {9, 8, 7, 6, 5};
  ASSERT_EQ(write_file_atomic(t.path(), "x", a, sizeof a, 0600, false), 0);
  ASSERT_EQ(write_file_atomic(t.path(), "x", b, sizeof b, 0600, false), 0);
  std::vector<uint8_t> got;
  ASSERT_EQ(read_file(t.path() + "/x", 100, &got), 0);
  EXPECT_EQ(got, std::vector<uint8_t>(b, b + sizeof b));
  EXPECT_EQ(entries(t.path()), std::vector<std::string>{"x"});
  struct stat st{};
  ASSERT_EQ(::stat((t.path() + "/x").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(Fs, ExclusiveWriteKeepsTheExistingFile) {
  TempFolder t;
  const uint8_t a[] = {1}, b[] = {2};
  ASSERT_EQ(write_file_atomic(t.path(), "x", a, 1, 0600, true), 0);
  EXPECT_EQ(write_file_atomic(t.path(), "x", b, 1, 0600, true), -EEXIST);
  std::vector<uint8_t> got;
  ASSERT_EQ(read_file(t.path() + "/x", 10, &got), 0);
  EXPECT_EQ(got, std::vector<uint8_t>{1});
  EXPECT_EQ(entries(t.path()).size(), 1u);
}

TEST(Fs, ReadFileChecksPresenceSizeAndType) {
  TempFolder t;
  std::vector<uint8_t> got;
  EXPECT_EQ(read_file(t.path() + "/none", 10, &got), -ENOENT);
  const uint8_t a[20] = {};
  ASSERT_EQ(write_file_atomic(t.path(), "big", a, sizeof a, 0600, false), 0);
  EXPECT_EQ(read_file(t.path() + "/big", 19, &got), -EFBIG);
  EXPECT_EQ(read_file(t.path() + "/big", 20, &got), 0);
  EXPECT_EQ(got.size(), 20u);
  ASSERT_EQ(::symlink((t.path() + "/big").c_str(), (t.path() + "/link").c_str()), 0);
  EXPECT_EQ(read_file(t.path() + "/link", 100, &got), -ELOOP);
  EXPECT_EQ(read_file(t.path(), 100, &got), -EINVAL);
}

TEST(Fs, MakeDirsAndPrivacyCheck) {
  TempFolder t;
  std::string deep = t.path() + "/a/b/c";
  ASSERT_EQ(make_dirs(deep, 0700), 0);
  std::string why;
  EXPECT_EQ(check_private_dir(deep, &why), 0) << why;
  ASSERT_EQ(::chmod(deep.c_str(), 0770), 0);
  EXPECT_EQ(check_private_dir(deep, &why), -EPERM);
  EXPECT_NE(why.find("writable by other users"), std::string::npos) << why;
  EXPECT_EQ(check_private_dir(t.path() + "/missing", &why), -ENOENT);
  ASSERT_EQ(::symlink(deep.c_str(), (t.path() + "/l").c_str()), 0);
  EXPECT_EQ(check_private_dir(t.path() + "/l", &why), -ENOTDIR);
  const uint8_t x = 0;
  ASSERT_EQ(write_file_atomic(t.path(), "f", &x, 1, 0600, false), 0);
  EXPECT_EQ(make_dirs(t.path() + "/f", 0700), -ENOTDIR);
}

TEST(Fs, LeftoverTemporariesAndFlatFoldersAreRemoved) {
  TempFolder t;
  const uint8_t x = 0;
  ASSERT_EQ(write_file_atomic(t.path(), "keep", &x, 1, 0600, false), 0);
  for (const char* n : {".tmp-aaaaaa", ".tmp-bbbbbb"}) {
    FILE* f = std::fopen((t.path() + "/" + n).c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
  }
  EXPECT_EQ(remove_temp_files(t.path()), 2);
  EXPECT_EQ(entries(t.path()), std::vector<std::string>{"keep"});
  std::string sub = t.path() + "/sub";
  ASSERT_EQ(make_dirs(sub, 0700), 0);
  ASSERT_EQ(write_file_atomic(sub, "1", &x, 1, 0600, false), 0);
  ASSERT_EQ(write_file_atomic(sub, "2", &x, 1, 0600, false), 0);
  EXPECT_EQ(remove_flat_dir(sub), 0);
  EXPECT_EQ(::access(sub.c_str(), F_OK), -1);
  EXPECT_EQ(remove_flat_dir(sub), -ENOENT);
}

}  // namespace
}  // namespace teesim::fs
