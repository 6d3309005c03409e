/*
 * Support for the GP Client API conformance suite: a real teesim daemon in
 * private folders, result and origin names for failure messages, and small
 * helpers around the client API.
 */
#ifndef TEESIM_CONFORMANCE_SUPPORT_H
#define TEESIM_CONFORMANCE_SUPPORT_H

#include <sys/types.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tee_client_api.h"
#include "teesim_test_ta.h"

namespace conformance {

/* "TEEC_ERROR_TARGET_DEAD" and the like; hex for codes without a name. */
std::string result_name(uint32_t result);
/* "TEEC_ORIGIN_TEE" and the like. */
std::string origin_name(uint32_t origin);
/* "<result> from <origin>", what EXPECT_OUTCOME compares. */
std::string outcome(uint32_t result, uint32_t origin);

/* The origin is read only after the result was computed (the result is
 * usually the call that sets it). */
inline std::string outcome_of(uint32_t result, const uint32_t* origin) {
  return outcome(result, *origin);
}

/* Compares a result and its origin by name, so a failure reads
 * "TEEC_ERROR_TARGET_DEAD from TEEC_ORIGIN_TEE" instead of two numbers. */
#define EXPECT_OUTCOME(result, origin, want_result, want_origin) \
  EXPECT_EQ(::conformance::outcome_of((result), &(origin)),      \
            ::conformance::outcome((want_result), (want_origin)))
#define ASSERT_OUTCOME(result, origin, want_result, want_origin) \
  ASSERT_EQ(::conformance::outcome_of((result), &(origin)),      \
            ::conformance::outcome((want_result), (want_origin)))
#define EXPECT_RESULT(result, want) \
  EXPECT_EQ(::conformance::result_name(result), ::conformance::result_name(want))
#define ASSERT_RESULT(result, want) \
  ASSERT_EQ(::conformance::result_name(result), ::conformance::result_name(want))

/* A teesim daemon of our own: private socket, TA folder (copies of the test
 * TAs) and storage folder under a temporary folder, run in the foreground as
 * our child. */
class TestDaemon {
 public:
  /* Makes the folders; does not start the daemon. */
  TestDaemon();
  ~TestDaemon();
  TestDaemon(const TestDaemon&) = delete;
  TestDaemon& operator=(const TestDaemon&) = delete;

  /* Starts the daemon with `extra` options and waits until its socket
   * answers. Returns false (with the daemon's output in the log) if it
   * exits first or does not answer within 10 s. */
  [[nodiscard]] bool start(const std::vector<std::string>& extra = {});
  /* SIGTERM and wait. Returns the exit status, or -1 when not running. */
  int stop();
  /* SIGKILL and wait. */
  void kill9();
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  /* Runs the teesim command with its own arguments (not ours), capturing
   * its standard error. Returns the exit status. */
  int run_command(const std::vector<std::string>& args, std::string* err) const;

  const std::string& dir() const { return dir_; }
  const std::string& socket() const { return socket_; }
  const std::string& ta_dir() const { return ta_dir_; }
  const std::string& storage_dir() const { return storage_dir_; }
  std::string log_text() const;
  /* The folder of one TA's objects in our storage. */
  std::string ta_storage(const char* uuid_text) const { return storage_dir_ + "/" + uuid_text; }
  /* Arguments that point the daemon at our folders. */
  std::vector<std::string> folder_args() const;

 private:
  pid_t owner_;
  std::string dir_, socket_, ta_dir_, storage_dir_, log_;
  pid_t pid_ = -1;
};

/* Points libteec at `d` (TEESIM_SOCKET) and forbids it to start daemons of
 * its own (TEESIM_DAEMON empty); libteec's log goes to the returned path. */
std::string use_daemon(const TestDaemon& d);

/* Path of the built teesim executable and TA folder. */
std::string daemon_executable();
std::string built_ta_dir();
/* What runs the daemon: the executable, after the emulator's words
 * (TEESIM_EMULATOR) when the build is for another CPU. */
std::vector<std::string> daemon_command();

/* The test TA variants. */
inline const TEEC_UUID kTestTa = TEST_TA_UUID;
inline const TEEC_UUID kSingleSessionTa = TEST_TA_SINGLE_SESSION_UUID;
inline const TEEC_UUID kMultiInstanceTa = TEST_TA_MULTI_INSTANCE_UUID;
inline const TEEC_UUID kKeepAliveTa = TEST_TA_KEEP_ALIVE_UUID;

/* A context and, optionally, one session, closed when the object dies. */
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
 * process), with libteec pointed at it. */
TestDaemon& shared_daemon();

/* Fixture of tests that talk to the shared daemon. */
class WithDaemon : public ::testing::Test {
 protected:
  void SetUp() override;
  TestDaemon& daemon() { return shared_daemon(); }
  std::string client_log_;
};

/* Writes into `dir` a stand-in emulator that appends each command line it
 * is given to `record` and runs it (through this build's own emulator, if
 * any). Returns the command that runs it, for --emulator or TEESIM_EMULATOR. */
std::string recording_emulator(const std::string& dir, const std::string& record);

/* The whole text of a file ("" when missing). */
std::string read_text(const std::string& path);
/* Polls `cond` every 10 ms for up to `ms`; returns its last value. */
bool eventually(const std::function<bool()>& cond, int ms = 5000);

}  // namespace conformance

#endif  // TEESIM_CONFORMANCE_SUPPORT_H
