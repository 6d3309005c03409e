/* A TA rebuilt while the daemon runs: new sessions get the TA as its file
 * is now, while the instance of the old file finishes its own sessions and
 * then ends, keep-alive or not. */
#include <signal.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "support.h"

#ifndef TEESIM_NEXT_TA_DIR
#error "TEESIM_NEXT_TA_DIR must name the folder of the rebuilt test TA"
#endif

namespace faults {
namespace {

const TEEC_UUID kKeepAliveTa = TEST_TA_KEEP_ALIVE_UUID;

/* The session's TA as it describes itself (gpd.ta.description: the name in
 * its descriptor), or "" when the command fails. */
std::string description(TEEC_Session* s) {
  static const char kName[] = "gpd.ta.description";
  char value[64] = {};
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_VALUE_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE);
  op.params[0].tmpref.buffer = const_cast<char*>(kName);
  op.params[0].tmpref.size = sizeof kName - 1;
  op.params[1].value.a = 0; /* the current TA */
  op.params[2].tmpref.buffer = value;
  op.params[2].tmpref.size = sizeof value - 1;
  uint32_t origin = 0;
  if (TEEC_InvokeCommand(s, TEST_CMD_PROPERTY, &op, &origin) != TEEC_SUCCESS) return "";
  return value;
}

uint32_t instance_pid(TEEC_Session* s) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  uint32_t origin = 0;
  if (TEEC_InvokeCommand(s, TEST_CMD_INFO, &op, &origin) != TEEC_SUCCESS) return 0;
  return op.params[0].value.a;
}

TEST(RebuiltTa, NewSessionsGetTheNewBuildWhileOldOnesFinish) {
  PrivateDaemon d(own_tas());
  ASSERT_TRUE(d.Start()) << d.Error();
  d.UseFromThisProcess();
  TEEC_Context ctx{};
  ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
  uint32_t origin = 0;
  TEEC_Session old_session{};
  ASSERT_EQ(TEEC_OpenSession(&ctx, &old_session, &kKeepAliveTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
            TEEC_SUCCESS);
  ASSERT_EQ(description(&old_session), "test-keep-alive");
  const uint32_t old_pid = instance_pid(&old_session);

  /* Installed as a build or an installer does it: a new file in its place. */
  const std::string installed = d.TaDir() + "/" TEST_TA_KEEP_ALIVE_UUID_TEXT ".ta";
  const std::string next = std::string(TEESIM_NEXT_TA_DIR) + "/" TEST_TA_KEEP_ALIVE_UUID_TEXT ".ta";
  std::filesystem::copy_file(next, installed + ".new");
  std::filesystem::rename(installed + ".new", installed);

  TEEC_Session new_session{};
  ASSERT_EQ(TEEC_OpenSession(&ctx, &new_session, &kKeepAliveTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
            TEEC_SUCCESS);
  EXPECT_EQ(description(&new_session), "test-keep-alive-next") << "a new session runs the new build";
  const uint32_t new_pid = instance_pid(&new_session);
  EXPECT_NE(new_pid, old_pid);
  EXPECT_EQ(description(&old_session), "test-keep-alive") << "the old session goes on with the old build";
  EXPECT_EQ(instance_pid(&old_session), old_pid);

  /* Its last session closed, the old instance ends although its TA asks
   * to be kept alive; the new one serves whoever comes next. */
  TEEC_CloseSession(&old_session);
  EXPECT_TRUE(eventually([&] { return ::kill(static_cast<pid_t>(old_pid), 0) != 0 && errno == ESRCH; }))
      << "the instance of the old build was not ended";
  TEEC_Session third{};
  ASSERT_EQ(TEEC_OpenSession(&ctx, &third, &kKeepAliveTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
            TEEC_SUCCESS);
  EXPECT_EQ(instance_pid(&third), new_pid);
  TEEC_CloseSession(&third);
  TEEC_CloseSession(&new_session);
  TEEC_FinalizeContext(&ctx);
}

}  // namespace
}  // namespace faults
