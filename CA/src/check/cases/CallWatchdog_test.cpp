// The per-call deadline: a call past it is reported once, a call that
// returns in time never is.
#include "cases/CallWatchdog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace check {
namespace {

using std::chrono::milliseconds;

// Waits (at most a minute, so that a loaded machine only slows the test)
// until `done` holds.
template <typename F>
bool Eventually(F done) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

class Expired {
 public:
  void operator()(const std::string& function) {
    std::lock_guard<std::mutex> lock(mutex_);
    names_.push_back(function);
  }
  std::vector<std::string> names() {
    std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> names_;
};

TEST(CallWatchdog, ACallThatReturnsInTimeIsLeftAlone) {
  Expired expired;
  {
    CallWatchdog dog(milliseconds(60000), [&expired](const std::string& f) { expired(f); });
    for (int i = 0; i < 100; ++i) {
      dog.Begin("poc_quick");
      dog.End();
    }
  }
  EXPECT_TRUE(expired.names().empty());
}

TEST(CallWatchdog, ACallPastItsDeadlineIsReportedOnceAndTheNextOneAgain) {
  Expired expired;
  CallWatchdog dog(milliseconds(20), [&expired](const std::string& f) { expired(f); });
  dog.Begin("poc_hangs");
  ASSERT_TRUE(Eventually([&] { return expired.names().size() == 1; }));
  EXPECT_EQ(expired.names()[0], "poc_hangs");
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(expired.names().size(), 1u) << "once per call";
  dog.End();

  dog.Begin("poc_hangs_too");
  ASSERT_TRUE(Eventually([&] { return expired.names().size() == 2; }));
  EXPECT_EQ(expired.names()[1], "poc_hangs_too");
  dog.End();
}

}  // namespace
}  // namespace check
