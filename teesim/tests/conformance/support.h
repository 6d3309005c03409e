/*
 * Support for the GP Client API conformance suite: failure messages that
 * name results and origins, the shared private daemon most tests talk to
 * (teesim_testing's PrivateDaemon), and small helpers around the client API.
 */
#ifndef TEESIM_CONFORMANCE_SUPPORT_H
#define TEESIM_CONFORMANCE_SUPPORT_H

#include <sys/types.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tee_client_api.h"
#include "teesim/testing/private_daemon.h"
#include "teesim_test_ta.h"

namespace conformance {

using teesim::testing::PrivateDaemon;

/* The origin is read only after the result was computed (the result is
 * usually the call that sets it). */
inline std::string outcome_of(uint32_t result, const uint32_t* origin) {
  return teesim::testing::Outcome(result, *origin);
}

/* Compares a result and its origin by name, so a failure reads
 * "TEEC_ERROR_TARGET_DEAD from TEEC_ORIGIN_TEE" instead of two numbers. */
#define EXPECT_OUTCOME(result, origin, want_result, want_origin) \
  EXPECT_EQ(::conformance::outcome_of((result), &(origin)),      \
            ::teesim::testing::Outcome((want_result), (want_origin)))
#define ASSERT_OUTCOME(result, origin, want_result, want_origin) \
  ASSERT_EQ(::conformance::outcome_of((result), &(origin)),      \
            ::teesim::testing::Outcome((want_result), (want_origin)))
#define EXPECT_RESULT(result, want) \
  EXPECT_EQ(::teesim::testing::ResultName(result), ::teesim::testing::ResultName(want))
#define ASSERT_RESULT(result, want) \
  ASSERT_EQ(::teesim::testing::ResultName(result), ::teesim::testing::ResultName(want))

/* A private daemon whose TA folder is a copy, for tests that change it. */
inline PrivateDaemon::Options with_own_tas() {
  PrivateDaemon::Options o;
  o.copy_tas = true;
  return o;
}

/* The folder of one TA's objects in a daemon's storage. */
inline std::string ta_storage(const PrivateDaemon& d, const char* uuid_text) {
  return d.StorageDir() + "/" + uuid_text;
}

/* Options that point the daemon at the private folders of `d`. */
inline std::vector<std::string> folder_args(const PrivateDaemon& d) {
  return {"--socket", d.Socket(), "--ta-dir", d.TaDir(), "--storage-dir", d.StorageDir()};
}

/* Points this process's libteec at `d` (see PrivateDaemon::UseFromThisProcess);
 * returns the path of libteec's log. */
inline std::string use_daemon(const PrivateDaemon& d) {
  d.UseFromThisProcess();
  return d.ClientLogPath();
}

/* The test TA variants. */
inline const TEEC_UUID kTestTa = TEST_TA_UUID;
inline const TEEC_UUID kSingleSessionTa = TEST_TA_SINGLE_SESSION_UUID;
inline const TEEC_UUID kMultiInstanceTa = TEST_TA_MULTI_INSTANCE_UUID;
inline const TEEC_UUID kKeepAliveTa = TEST_TA_KEEP_ALIVE_UUID;

/* A context and, optionally, one session, closed when the object dies. */
/* Writes into `dir` a stand-in emulator that appends each command line it
 * is given to `record` and runs it (through this build's own emulator, if
 * any). Returns the command that runs it, for --emulator or TEESIM_EMULATOR. */
std::string recording_emulator(const std::string& dir, const std::string& record);

class Client {
 public:
  Client();
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  TEEC_Result init_result() const { return init_; }
  TEEC_Context* ctx() { return &ctx_; }
  /* Opens a session (public login, no operation). */
  TEEC_Result open(const TEEC_UUID& ta, uint32_t* origin = nullptr, TEEC_Operation* op = nullptr);
  TEEC_Session* session() { return &session_; }
  void close();
  /* TEST_CMD_INFO: instance pid, sessions now, creates, sessions ever. */
  bool info(uint32_t out[4]);

 private:
  TEEC_Context ctx_{};
  TEEC_Session session_{};
  TEEC_Result init_ = TEEC_ERROR_GENERIC;
  bool open_ = false;
};

/* The daemon most tests share: started on first use (one per test
 * process, with debug logging so a failure shows the whole story), and
 * started again when a test ended it. */
PrivateDaemon& shared_daemon();

/* Fixture of tests that talk to the shared daemon. */
class WithDaemon : public ::testing::Test {
 protected:
  void SetUp() override;
  PrivateDaemon& daemon() { return shared_daemon(); }
  std::string client_log_;
};

/* The whole text of a file ("" when missing). */
std::string read_text(const std::string& path);
/* Polls `cond` every 10 ms until it holds, for at most `ms`; returns its
 * last value. What the suite waits for (another process's log line, a
 * process ending) comes within milliseconds; the default bound is one only
 * a broken system reaches, so a busy machine never fails a test. */
bool eventually(const std::function<bool()>& cond, int ms = 60000);

}  // namespace conformance

#endif  // TEESIM_CONFORMANCE_SUPPORT_H
