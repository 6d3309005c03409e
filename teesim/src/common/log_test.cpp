/* The log's rate limit: a flood of lines a peer can provoke stays bounded,
 * and what was held back is counted in the next line let through. */
#include "common/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "teesim/testing/temp_folder.h"

namespace teesim::log {
namespace {

TEST(RateLimit, LetsABurstThroughPerIntervalAndCountsTheRest) {
  RateLimit limit(3, 1000);
  uint64_t held = 99;
  EXPECT_TRUE(limit.admit(0, &held));
  EXPECT_EQ(held, 0u);
  EXPECT_TRUE(limit.admit(1, &held));
  EXPECT_TRUE(limit.admit(2, &held));
  for (int t = 3; t < 10; ++t) EXPECT_FALSE(limit.admit(t, &held)) << "at " << t << " ms";
  EXPECT_FALSE(limit.admit(999, &held));
  ASSERT_TRUE(limit.admit(1000, &held)) << "a new interval lets lines through again";
  EXPECT_EQ(held, 8u) << "the lines held back are told";
  EXPECT_TRUE(limit.admit(1001, &held));
  EXPECT_EQ(held, 0u) << "and told once";
}

/* Points standard error (where the log writes) at a file while it lives. */
class CapturedStderr {
 public:
  explicit CapturedStderr(const std::string& path) {
    saved_ = ::dup(STDERR_FILENO);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
  }
  ~CapturedStderr() {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }

 private:
  int saved_;
};

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int count_lines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

TEST(RateLimit, AFloodOfLimitedLinesWritesOnlyTheBurst) {
  teesim::testing::TempFolder folder("teesim-log");
  const std::string path = folder.path() + "/log";
  init("teesim-test", Level::Info, false);
  RateLimit limit(2, 3600 * 1000);
  {
    CapturedStderr capture(path);
    for (int i = 0; i < 1000; ++i) write_limited(limit, Level::Warn, "client %d sent garbage", i);
    write_limited(limit, Level::Debug, "not enabled, so neither written nor counted");
  }
  std::string text = read_text(path);
  EXPECT_EQ(count_lines(text), 2) << text;
  EXPECT_NE(text.find("client 0 sent garbage"), std::string::npos);
  EXPECT_NE(text.find("client 1 sent garbage"), std::string::npos);
}

}  // namespace
}  // namespace teesim::log
