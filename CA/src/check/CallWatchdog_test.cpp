// The per-call deadline: reports pass through, a call past its deadline is
// cancelled once, a call that returns in time never is.
#include "CallWatchdog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "RecordingListener.h"

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

TEST(CallWatchdog, PassesEveryReportOnAndLeavesACallThatReturnsAlone) {
  RecordingListener next;
  std::atomic<int> cancels{0};
  {
    CallWatchdog dog(next, milliseconds(60000), [&cancels] { ++cancels; });
    dog.Ready();
    dog.CaseBegin(7001, 1);
    dog.CallBegin("poc_x");
    dog.CallEnd({"poc_x", 3, 0, 0, 0});
    CheckRecord check;
    check.name = "c";
    check.passed = true;
    dog.Check(check);
    dog.CaseEnd(Verdict::kPassed, "", 4);
    dog.WalletLeft(true, "");
    dog.Unusable("u");
  }
  EXPECT_EQ(cancels.load(), 0);
  EXPECT_EQ(next.Lines(), (std::vector<std::string>{"ready", "case|7001|1", "call|poc_x",
                                                    "end|poc_x|3|0|0|0", "check|1|0|c|||",
                                                    "verdict|passed|4|", "left|1|", "unusable|u"}));
}

TEST(CallWatchdog, CancelsACallPastItsDeadlineOnceAndTheNextOneAgain) {
  RecordingListener next;
  std::atomic<int> cancels{0};
  CallWatchdog dog(next, milliseconds(20), [&cancels] { ++cancels; });
  dog.CallBegin("poc_hangs");
  ASSERT_TRUE(Eventually([&] { return cancels.load() == 1; }));
  ASSERT_TRUE(Eventually([&] { return next.Lines().size() == 2; }));
  EXPECT_EQ(next.Lines()[1], "cancel|poc_hangs");
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(cancels.load(), 1) << "one request per call";
  dog.CallEnd({"poc_hangs", 100000, -99, 0xFFFF0002u, 3});

  dog.CallBegin("poc_hangs_too");
  ASSERT_TRUE(Eventually([&] { return cancels.load() == 2; }));
  dog.CallEnd({"poc_hangs_too", 100000, 0, 0, 0});
}

}  // namespace
}  // namespace check
