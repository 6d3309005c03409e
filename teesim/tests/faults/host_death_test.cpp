/* Opens while the TA's process dies at each step of its start-up and of the
 * open: every open gets exactly one answer, none hangs, and the daemon lets
 * go of every descriptor those opens used. */
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "support.h"

namespace faults {
namespace {

/* Clients opening at once: enough that opens queue while an instance
 * starts, so each step meets one open on its way and others waiting. */
constexpr int kClients = 8;
constexpr int kOpensPerClient = 64; /* 2048 opens over the four steps */

struct Tally {
  std::mutex mu;
  std::map<std::string, int> outcomes; /* "<result> from <origin>" -> count */
  void add(const std::string& outcome) {
    std::lock_guard<std::mutex> lock(mu);
    ++outcomes[outcome];
  }
};

/* Each client opens sessions with the fault TA, one after the other, and
 * closes those that opened. */
void open_many(Tally* tally, int opens) {
  TEEC_Context ctx{};
  if (TEEC_InitializeContext(nullptr, &ctx) != TEEC_SUCCESS) {
    tally->add("TEEC_InitializeContext failed");
    return;
  }
  for (int i = 0; i < opens; ++i) {
    TEEC_Session s{};
    uint32_t origin = 0;
    TEEC_Result r = TEEC_OpenSession(&ctx, &s, &kFaultTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
    tally->add(teesim::testing::Outcome(r, origin));
    if (r == TEEC_SUCCESS) TEEC_CloseSession(&s);
  }
  TEEC_FinalizeContext(&ctx);
}

class HostDeath : public ::testing::TestWithParam<const char*> {};

TEST_P(HostDeath, EveryOpenIsAnsweredAndNoDescriptorIsLeft) {
  const std::string step = GetParam();
  PrivateDaemon d(own_tas());
  ASSERT_TRUE(d.Start({"--log-level", "debug"})) << d.Error();
  d.UseFromThisProcess();
  const int baseline = daemon_descriptors(d);
  ASSERT_GT(baseline, 0) << "the daemon reports its descriptors at debug level\n" << d.LogText();
  ASSERT_TRUE(write_props(d, TEST_FAULT_TA_UUID_TEXT, std::string(TEST_FAULT_TA_PROP) + " = " + step + "\n"));

  Tally tally;
  /* Killing the daemon frees calls still waiting, so the test can end. */
  int hung = run_bounded(kClients, [&](int) { open_many(&tally, kOpensPerClient); }, [&] { d.Kill(); });
  ASSERT_EQ(hung, 0) << hung << " of " << kClients << " clients never got an answer to an open";

  /* Every open got one answer, and each answer says what happened. */
  const std::string dead = teesim::testing::Outcome(TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE);
  const std::string opened = teesim::testing::Outcome(TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  /* At the open step the TA's entry point has already returned success when
   * the process ends, so an open may succeed there (its session is then
   * dead); at start-up no open can. */
  const bool may_open = step.rfind("open-", 0) == 0;
  int answers = 0;
  for (const auto& [outcome, count] : tally.outcomes) {
    answers += count;
    EXPECT_TRUE(outcome == dead || (may_open && outcome == opened)) << count << " x " << outcome;
  }
  EXPECT_EQ(answers, kClients * kOpensPerClient);
  EXPECT_GT(tally.outcomes[dead], 0) << "the TA died at " << step;
  EXPECT_TRUE(d.Running());

  /* The daemon holds what it held before (a dying instance may keep its
   * channel for a moment, so the count is read until it settles). */
  int now = -1;
  EXPECT_TRUE(eventually([&] { return (now = daemon_descriptors(d)) == baseline; }))
      << "the daemon holds " << now << " descriptors, " << baseline << " before the opens";
}

INSTANTIATE_TEST_SUITE_P(AtEachStep, HostDeath,
                         ::testing::Values("create-kill", "create-hangup", "open-kill", "open-hangup"),
                         [](const ::testing::TestParamInfo<const char*>& param) {
                           std::string name;
                           for (const char* p = param.param; *p != '\0'; ++p)
                             if (*p != '-') name += *p;
                           return name;
                         });

}  // namespace
}  // namespace faults
