/* Watching a TA instance's process: running, ended, reaped, and never taken
 * for dead because the daemon is out of descriptors. */
#include "daemon/child_watch.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace teesim::daemon {
namespace {

pid_t sleeping_child() {
  pid_t pid = ::fork();
  if (pid == 0) {
    for (;;) ::pause();
  }
  return pid;
}

/* Polls until `watch` reads `want`; the bound only a broken system reaches. */
bool reaches(const ChildWatch& watch, ChildWatch::State want) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (watch.state() != want) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

TEST(ChildWatch, TellsARunningChildFromAnEndedAndAReapedOne) {
  pid_t pid = sleeping_child();
  ASSERT_GT(pid, 0);
  ChildWatch watch(pid);
  EXPECT_EQ(watch.state(), ChildWatch::State::Running);
  ASSERT_EQ(::kill(pid, SIGKILL), 0);
  EXPECT_TRUE(reaches(watch, ChildWatch::State::Gone)) << "a zombie has ended";
  EXPECT_EQ(::waitpid(pid, nullptr, 0), pid) << "the watch left the child to be reaped";
  EXPECT_EQ(watch.state(), ChildWatch::State::Gone) << "reaped";
}

TEST(ChildWatch, AProcessWithoutDescriptorsLeftStillSeesItsChildRunning) {
  pid_t pid = sleeping_child();
  ASSERT_GT(pid, 0);
  ChildWatch watch(pid);

  /* Use up every descriptor this process may have. */
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  std::vector<int> held;
  int probe = ::dup(0);
  ASSERT_GE(probe, 0);
  rlimit low = saved;
  low.rlim_cur = static_cast<rlim_t>(probe) + 8;
  ::close(probe);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  for (int fd; (fd = ::dup(0)) >= 0;) held.push_back(fd);
  const int why = errno;
  ChildWatch::State seen = watch.state();
  ChildWatch late(pid); /* its status file cannot even be opened */
  ChildWatch::State seen_late = late.state();
  for (int fd : held) ::close(fd);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);

  EXPECT_EQ(why, EMFILE);
  EXPECT_EQ(seen, ChildWatch::State::Running);
  EXPECT_EQ(seen_late, ChildWatch::State::Running);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

}  // namespace
}  // namespace teesim::daemon
