// Reports of later case runs wait for the earlier runs' ends.
#include "run/ReportGate.h"

#include <gtest/gtest.h>

#include "cases/RecordingListener.h"

namespace check {
namespace {

TEST(ReportGate, LaterRunsWaitForTheEarlierRunsEnd) {
  RecordingListener out;
  ReportGate gate(out);
  std::unique_ptr<Listener> first = gate.Channel(0);
  std::unique_ptr<Listener> second = gate.Channel(1);
  std::unique_ptr<Listener> third = gate.Channel(2);
  first->CaseBegin(1, 1);
  second->CaseBegin(2, 1);  // waits
  third->CaseBegin(3, 1);   // waits
  second->CallBegin("poc_a");
  EXPECT_EQ(out.Lines(), (std::vector<std::string>{"case|1|1"}));

  CheckRecord late;
  late.name = "deferred";
  late.passed = true;
  first->Check(late);  // run 0's deferred check still goes out at once
  first->CaseEnd(Verdict::kPassed, "", 5);
  gate.Ended(0);
  EXPECT_EQ(out.Lines(), (std::vector<std::string>{"case|1|1", "check|1|0|deferred|||",
                                                   "verdict|passed|5|", "case|2|1", "call|poc_a"}));
  second->CaseEnd(Verdict::kFailed, "why", 6);  // its turn: straight through
  gate.Ended(1);
  EXPECT_EQ(out.Lines().back(), "case|3|1");
  third->WalletLeft(true, "");
  EXPECT_EQ(out.Lines().back(), "left|1|");
  EXPECT_EQ(out.Lines().size(), 8u);
}

}  // namespace
}  // namespace check
