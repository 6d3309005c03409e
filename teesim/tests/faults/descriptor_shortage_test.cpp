/* The daemon out of descriptors: it keeps every healthy TA instance and its
 * sessions, turns new clients away at once instead of spinning, logs the
 * episode once, and serves again when descriptors come back. */
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace faults
