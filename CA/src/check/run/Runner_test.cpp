// The runner with made-up cases in real worker processes, on the scriptable
// GP Client API: verdicts and their order, skipping, repeats, a call that
// never returns, a worker that dies or falls silent, no TEE, and the wallet
// left behind.
#include "run/Runner.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "FakeTeec.h"
#include "tee_client_api.h"

namespace check {
namespace {

using std::chrono::milliseconds;

class Lines : public Progress {
 public:
  void Finished(const CaseOutcome& o) override {
    lines.push_back(std::to_string(o.id) + " " + VerdictName(o.verdict) + " " + o.reason);
  }
  std::vector<std::string> lines;
};

CaseInfo Case(int id, std::function<void(CaseContext&)> run, bool destructive = false,
              bool needs_seed = false) {
  return CaseInfo{id, "case " + std::to_string(id), destructive, needs_seed, std::move(run)};
}

void Passes(CaseContext& ctx) { ctx.Check("fine", true); }
void FailsTwice(CaseContext& ctx) {
  ctx.Check("first", false, "1", "2");
  ctx.Check("second", false, "", "", "why");
}

class RunnerTest : public ::testing::Test {
 protected:
  void SetUp() override { fake_teec::Reset(); }
  RunReport RunCases(std::vector<CaseInfo> cases, RunSettings settings = {}) {
    cases_ = std::move(cases);
    settings.cases.clear();
    for (const CaseInfo& c : cases_) settings.cases.push_back(&c);
    return check::Run(settings, progress_);
  }
  std::vector<CaseInfo> cases_;
  Lines progress_;
};

TEST_F(RunnerTest, VerdictsComeInCaseOrderWithTheirReasons) {
  const RunReport r = RunCases({Case(1, Passes), Case(2, FailsTwice), Case(3, Passes, true),
                                Case(4, Passes, false, true), Case(5, Passes)});
  ASSERT_TRUE(r.usable) << r.unusable;
  EXPECT_EQ(progress_.lines,
            (std::vector<std::string>{
                "1 passed ", "2 failed first: got 2, expected 1 (and 1 more failed check)",
                "3 skipped destructive (replaces or deletes the wallet's seed or PIN): run with "
                "--allow-wipe",
                "4 skipped needs --seed HEX", "5 passed "}));
  ASSERT_EQ(r.outcomes.size(), 5u);
  ASSERT_EQ(r.outcomes[1].runs.size(), 1u);
  EXPECT_EQ(r.outcomes[1].runs[0].checks.size(), 2u);
  EXPECT_EQ(r.outcomes[1].runs[0].checks[0].expected, "1");
  EXPECT_EQ(r.outcomes[1].area, "other");
  EXPECT_TRUE(r.outcomes[2].runs.empty());
  EXPECT_FALSE(r.walletLeft) << "nothing destructive ran";
  EXPECT_GT(r.wallUs, 0u);
}

TEST_F(RunnerTest, EachCaseRunsAsOftenAsAskedAndAFailedRunIsNamed) {
  RunSettings s;
  s.repeat = 3;
  const RunReport r = RunCases({Case(1,
                                     [](CaseContext& ctx) {
                                       static int runs = 0;  // per worker process
                                       ++runs;
                                       ctx.Check("not the second", runs != 2, "", "", "second");
                                     }),
                                Case(2, Passes)},
                               s);
  ASSERT_TRUE(r.usable) << r.unusable;
  ASSERT_EQ(r.outcomes[0].runs.size(), 3u);
  EXPECT_EQ(r.outcomes[0].runs[1].run, 2u);
  EXPECT_EQ(progress_.lines[0], "1 failed run 2 of 3: not the second: second");
  EXPECT_EQ(r.outcomes[1].runs.size(), 3u);
}

TEST_F(RunnerTest, ACallThatNeverReturnsFailsItsCaseAndTheRunGoesOn) {
  // A second for every healthy call (opening the connection), however
  // loaded the machine; the hung one never returns.
  RunSettings s;
  s.callLimit = milliseconds(1000);
  s.grace = milliseconds(1000);
  const RunReport r = RunCases({Case(1, Passes),
                                Case(2,
                                     [](CaseContext& ctx) {
                                       ctx.Check("before the call", true);
                                       (void)ctx.Call("poc_hangs", [] {
                                         for (;;) ::pause();
                                         return 0;
                                       });
                                     }),
                                Case(3, Passes)},
                               s);
  ASSERT_TRUE(r.usable) << r.unusable;
  EXPECT_EQ(progress_.lines,
            (std::vector<std::string>{
                "1 passed ",
                "2 failed poc_hangs did not return within 1 s: cancellation was requested, and the "
                "case's process was stopped 1 s later",
                "3 passed "}));
  EXPECT_EQ(r.outcomes[1].runs[0].checks.size(), 1u) << "what came before the call is kept";
}

TEST_F(RunnerTest, AWorkerThatDiesFailsItsCaseAndTheRunGoesOn) {
  const RunReport r = RunCases({Case(1, [](CaseContext&) { ::raise(SIGKILL); }), Case(2, Passes)});
  ASSERT_TRUE(r.usable) << r.unusable;
  ASSERT_EQ(progress_.lines.size(), 2u);
  EXPECT_EQ(progress_.lines[0].rfind("1 failed the case's process ended by signal 9", 0), 0u)
      << progress_.lines[0];
  EXPECT_EQ(progress_.lines[1], "2 passed ");
}

TEST_F(RunnerTest, AWorkerThatFallsSilentOutsideACallIsStopped) {
  // Generous limits: a healthy worker, however loaded the machine, must
  // never look silent; the silent one is silent for good.
  RunSettings s;
  s.callLimit = milliseconds(1000);
  s.silenceLimit = milliseconds(4000);
  const RunReport r = RunCases({Case(1,
                                     [](CaseContext&) {
                                       for (;;) ::pause();
                                     }),
                                Case(2, Passes)},
                               s);
  EXPECT_EQ(progress_.lines,
            (std::vector<std::string>{
                "1 failed the case reported nothing for 5 s: its process was stopped", "2 passed "}));
}

TEST_F(RunnerTest, NoTeeMeansNoCaseAndOneLineThatSaysWhy) {
  fake_teec::FailNext(fake_teec::Fn::kInitializeContext, TEEC_ERROR_COMMUNICATION);
  const RunReport r = RunCases({Case(1, Passes), Case(2, Passes, true)});
  EXPECT_FALSE(r.usable);
  EXPECT_EQ(r.unusable.rfind("cannot reach the keystore TA: TEEC_InitializeContext (the default TEE) "
                             "failed with 0xFFFF000E TEEC_ERROR_COMMUNICATION from the client API",
                             0),
            0u)
      << r.unusable;
  EXPECT_TRUE(progress_.lines.empty()) << "no case line before the TEE was reached";
}

TEST_F(RunnerTest, NothingToRunNeedsNoTee) {
  fake_teec::FailNext(fake_teec::Fn::kInitializeContext, TEEC_ERROR_COMMUNICATION);
  const RunReport r = RunCases({Case(1, Passes, true)});
  EXPECT_TRUE(r.usable);
  EXPECT_EQ(progress_.lines.size(), 1u);
}

TEST_F(RunnerTest, ADestructiveRunLeavesTheWalletAndSaysWhenItCannot) {
  RunSettings s;
  s.allowWipe = true;
  RunReport r = RunCases({Case(1, Passes, true)}, s);
  ASSERT_TRUE(r.usable) << r.unusable;
  EXPECT_TRUE(r.walletLeft);
  EXPECT_TRUE(r.walletLeftOk) << r.walletDetail;
  ASSERT_EQ(r.leaveCalls.size(), 1u) << "the restore that left the wallet, and no probe";
  EXPECT_EQ(r.leaveCalls[0].function, "poc_restore_seed");
  const auto& calls = fake_teec::Calls();  // the parent never calls the TEE itself
  EXPECT_TRUE(calls.empty());

  fake_teec::SetHandler([](uint32_t, TEEC_SharedMemory&, uint32_t* origin) {
    *origin = TEEC_ORIGIN_TRUSTED_APP;
    return static_cast<TEEC_Result>(TEEC_ERROR_ITEM_NOT_FOUND);
  });
  progress_.lines.clear();
  r = RunCases({Case(1, Passes, true)}, s);
  ASSERT_TRUE(r.usable) << r.unusable;
  EXPECT_TRUE(r.walletLeft);
  EXPECT_FALSE(r.walletLeftOk);
  EXPECT_EQ(r.walletDetail,
            "restore data set 0: poc_restore_seed: 0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND from the "
            "trusted application");
}

}  // namespace
}  // namespace check
