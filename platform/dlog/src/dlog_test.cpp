// Tests of the platform log stand-in: syslog priorities and the DLOG_FILE copy.
#include "dlog.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace {

class DlogFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/dlog_test_XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    path_ = tmpl;
    setenv("DLOG_FILE", path_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("DLOG_FILE");
    std::remove(path_.c_str());
  }
  std::string contents() const {
    std::ifstream in(path_);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }
  std::string path_;
};

TEST_F(DlogFile, AppendsOneLinePerCallWithPriorityAndTag) {
  EXPECT_EQ(__dlog_print(LOG_ID_SYSTEM, DLOG_ERROR, "TESSERA", "%s: %s(%d) > %s", "TEEClient",
                         "Open", 42, "boom"),
            static_cast<int>(std::string("TEEClient: Open(42) > boom").size()));
  __dlog_print(LOG_ID_SYSTEM, DLOG_INFO, "TESSERA", "second %u", 7u);
  EXPECT_EQ(contents(), "[6] TESSERA: TEEClient: Open(42) > boom\n[4] TESSERA: second 7\n");
}

TEST_F(DlogFile, TrailingNewlineIsNotDoubled) {
  __dlog_print(LOG_ID_MAIN, DLOG_WARN, "T", "line\n");
  EXPECT_EQ(contents(), "[5] T: line\n");
}

TEST_F(DlogFile, SilentPriorityIsDropped) {
  EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_SILENT, "T", "hidden"), 0);
  EXPECT_EQ(contents(), "");
}

TEST_F(DlogFile, BadArgumentsAreRefusedAndNotLogged) {
  EXPECT_EQ(__dlog_print(LOG_ID_MAX, DLOG_INFO, "T", "x"), DLOG_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(__dlog_print(LOG_ID_MAIN, 9, "T", "x"), DLOG_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(__dlog_print(LOG_ID_MAIN, -1, "T", "x"), DLOG_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(__dlog_print(LOG_ID_MAIN, DLOG_INFO, nullptr, "x"), DLOG_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(contents(), "");
}

TEST(Dlog, NeverWritesToStandardOutput) {
  unsetenv("DLOG_FILE");
  fflush(stdout);
  int saved = dup(STDOUT_FILENO);
  int pipefd[2];
  ASSERT_EQ(pipe(pipefd), 0);
  dup2(pipefd[1], STDOUT_FILENO);
  __dlog_print(LOG_ID_SYSTEM, DLOG_ERROR, "TESSERA", "to syslog only");
  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  close(pipefd[1]);
  char buf[16];
  EXPECT_EQ(read(pipefd[0], buf, sizeof buf), 0);
  close(pipefd[0]);
}

}  // namespace
