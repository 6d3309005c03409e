/* The daemon out of descriptors: it keeps every healthy TA instance and its
 * sessions, turns new clients away at once instead of spinning, logs the
 * episode once, and serves again when descriptors come back. */
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support.h"

namespace faults {
namespace {

/* Descriptors the daemon may open beyond its count with no client: room
 * for the test's own clients and the TA instance, and a few more. */
constexpr unsigned long kHeadroom = 16;
/* Connections that run the daemon out: well past the headroom. */
constexpr int kHog = 100;

uint32_t instance_pid(TEEC_Session* s, TEEC_Result* result) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  uint32_t origin = 0;
  *result = TEEC_InvokeCommand(s, TEST_CMD_INFO, &op, &origin);
  return op.params[0].value.a;
}

TEST(DescriptorShortage, SessionsOpenThroughAShortageKeepWorking) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start({"--log-level", "debug"})) << d.Error();
  d.UseFromThisProcess();
  const int base = daemon_descriptors(d);
  ASSERT_GT(base, 0) << d.LogText();

  constexpr int kSessions = 4;
  TEEC_Context ctx{}, later{};
  ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
  ASSERT_EQ(TEEC_InitializeContext(nullptr, &later), TEEC_SUCCESS);
  TEEC_Session sessions[kSessions] = {};
  uint32_t pid = 0;
  for (TEEC_Session& s : sessions) {
    uint32_t origin = 0;
    ASSERT_EQ(TEEC_OpenSession(&ctx, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
              TEEC_SUCCESS);
    TEEC_Result r;
    pid = instance_pid(&s, &r);
    ASSERT_EQ(r, TEEC_SUCCESS);
  }

  {
    DescriptorLimit limit(d.Pid(), static_cast<unsigned long>(base) + kHeadroom);
    ASSERT_TRUE(limit.ok());
    SilentConnections hog(d.Socket(), kHog);
    ASSERT_TRUE(eventually([&] { return d.LogText().find("Too many open files") != std::string::npos; }))
        << "the daemon never ran out of descriptors\n" << d.LogText();
    /* An open that needs descriptors now: refused, but nothing else. */
    TEEC_Session s{};
    uint32_t origin = 0;
    TEEC_Result r = TEEC_OpenSession(&later, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
    EXPECT_NE(r, TEEC_SUCCESS) << "there was no descriptor for the session channel";
    if (r == TEEC_SUCCESS) TEEC_CloseSession(&s);
  }

  /* Descriptors are back: every session still reaches the same instance. */
  for (TEEC_Session& s : sessions) {
    TEEC_Result r;
    EXPECT_EQ(instance_pid(&s, &r), pid);
    EXPECT_EQ(teesim::testing::ResultName(r), teesim::testing::ResultName(TEEC_SUCCESS));
  }
  TEEC_Session again{};
  uint32_t origin = 0;
  ASSERT_EQ(TEEC_OpenSession(&later, &again, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
            TEEC_SUCCESS);
  TEEC_Result r;
  EXPECT_EQ(instance_pid(&again, &r), pid) << "the instance was never restarted";
  TEEC_CloseSession(&again);
  for (TEEC_Session& s : sessions) TEEC_CloseSession(&s);
  TEEC_FinalizeContext(&later);
  TEEC_FinalizeContext(&ctx);
}

/* Warnings and errors in a stretch of the daemon's log: what a flood of
 * failures would multiply. */
int complaints(const std::string& log_text) {
  int n = 0;
  for (const char* level : {" warn: ", " error: "}) {
    for (size_t at = log_text.find(level); at != std::string::npos; at = log_text.find(level, at + 1)) ++n;
  }
  return n;
}

/* Client attempts made while the daemon has no descriptor left. */
constexpr int kAttempts = 20;
/* CPU the daemon may spend on them: 1 s, at the 100 ticks per second
 * that Linux reports; turning a client away costs microseconds, a loop
 * that spins costs all the CPU it is given. */
constexpr long long kMaxTicks = 100;

TEST(DescriptorShortage, NewClientsAreTurnedAwayAtOnceWithoutSpinningOrFlooding) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start({"--log-level", "debug"})) << d.Error();
  d.UseFromThisProcess();
  const int base = daemon_descriptors(d);
  ASSERT_GT(base, 0) << d.LogText();

  DescriptorLimit limit(d.Pid(), static_cast<unsigned long>(base) + kHeadroom);
  ASSERT_TRUE(limit.ok());
  SilentConnections hog(d.Socket(), kHog);
  ASSERT_TRUE(eventually([&] { return d.LogText().find("Too many open files") != std::string::npos; }))
      << "the daemon never ran out of descriptors\n" << d.LogText();

  const size_t log_before = d.LogText().size();
  const long long ticks_before = cpu_ticks(d.Pid());
  ASSERT_GE(ticks_before, 0);
  std::vector<TEEC_Result> results;
  int hung = run_bounded(
      1,
      [&](int) {
        for (int i = 0; i < kAttempts; ++i) {
          TEEC_Context ctx{};
          TEEC_Result r = TEEC_InitializeContext(nullptr, &ctx);
          results.push_back(r);
          if (r == TEEC_SUCCESS) TEEC_FinalizeContext(&ctx);
        }
      },
      [&] { d.Kill(); });
  ASSERT_EQ(hung, 0) << "a client blocked on a daemon out of descriptors";
  const long long ticks = cpu_ticks(d.Pid()) - ticks_before;
  const std::string episode = d.LogText().substr(log_before);
  RecordProperty("daemon_cpu_ticks", static_cast<int>(ticks));
  RecordProperty("warnings_in_episode", complaints(episode));

  ASSERT_EQ(results.size(), static_cast<size_t>(kAttempts));
  for (TEEC_Result r : results)
    EXPECT_EQ(teesim::testing::ResultName(r), teesim::testing::ResultName(TEEC_ERROR_BUSY));
  EXPECT_LT(ticks, kMaxTicks) << "the daemon spent " << ticks << " ticks on " << kAttempts
                              << " clients it could not take";
  EXPECT_LE(complaints(episode), 1) << "one line for the whole episode\n" << episode.substr(0, 2000);
  EXPECT_NE(read_text(d.ClientLogPath()).find("out of descriptors"), std::string::npos)
      << "the client's log says why";

  /* Descriptors come back: the daemon serves again, and says so once. */
  hog.release();
  limit.restore();
  TEEC_Context ctx{};
  EXPECT_TRUE(eventually([&] { return TEEC_InitializeContext(nullptr, &ctx) == TEEC_SUCCESS; }));
  TEEC_Session s{};
  uint32_t origin = 0;
  EXPECT_EQ(TEEC_OpenSession(&ctx, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin), TEEC_SUCCESS);
  TEEC_CloseSession(&s);
  TEEC_FinalizeContext(&ctx);
  EXPECT_NE(d.LogText().find("descriptors available again"), std::string::npos);
}

TEST(ClientCap, AUserPastTheCapIsRefusedWithBusyUntilAConnectionCloses) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start({"--max-clients-per-user", "3"})) << d.Error();
  d.UseFromThisProcess();
  TEEC_Context held[3] = {};
  for (TEEC_Context& c : held) ASSERT_EQ(TEEC_InitializeContext(nullptr, &c), TEEC_SUCCESS);
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    TEEC_Context extra{};
    TEEC_Result r = TEEC_InitializeContext(nullptr, &extra);
    ASSERT_EQ(teesim::testing::ResultName(r), teesim::testing::ResultName(TEEC_ERROR_BUSY))
        << "attempt " << i << "\n" << read_text(d.ClientLogPath());
  }
  EXPECT_NE(read_text(d.ClientLogPath()).find("the most it allows"), std::string::npos)
      << read_text(d.ClientLogPath());
  /* 50 refusals; the lines are rate-limited (10 per 10 s window). */
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LE(complaints(d.LogText()), 10 * (static_cast<int>(seconds) / 10 + 2)) << d.LogText().substr(0, 2000);

  TEEC_FinalizeContext(&held[0]);
  /* The daemon learns of the close in its next turn. */
  EXPECT_TRUE(eventually([&] { return TEEC_InitializeContext(nullptr, &held[0]) == TEEC_SUCCESS; }));
  TEEC_Session s{};
  uint32_t origin = 0;
  EXPECT_EQ(TEEC_OpenSession(&held[0], &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
            TEEC_SUCCESS);
  TEEC_CloseSession(&s);
  for (TEEC_Context& c : held) TEEC_FinalizeContext(&c);
}

}  // namespace
}  // namespace faults
