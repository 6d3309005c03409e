// End to end across daemon restarts and deaths. Every keystore call runs in
// a child process of its own, so that each phase starts with a fresh
// connection (the connection is never reopened inside one process).
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "DeploymentCredential.h"
#include "PocInterface.h"
#include "teesim/testing/private_daemon.h"
#include "tessera/testing/vector_file.h"
#include "securestorage.h"

namespace {

using tessera::testing::ReadTextFileOrEmpty;
using teesim::testing::PrivateDaemon;

const std::string kZeroPhrase =
    "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about";
const unsigned char kPin[6] = {'1', '3', '5', '7', '9', '2'};
// Seconds a child may run before SIGALRM ends it: a guard against hangs
// only, with room for the sanitizer builds on a busy machine.
constexpr unsigned kHangGuard = 300;

credential Console() {
  credential c;
  const uint32_t* w = tessera::kCredentialWords;
  if (ss_init_credential(&c, w[0], w[1], w[2], w[3], w[4], 1, 0) != 0) std::abort();
  return c;
}

// Runs `body` in a child process (killed after kHangGuard s: no phase may hang) and
// returns its exit status, or -1 when it did not exit normally.
int InChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    alarm(kHangGuard);
    _exit(body());
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(KeystoreRestart, SeedAndPinSurviveADaemonRestart) {
  PrivateDaemon daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.Error();
  daemon.UseFromThisProcess();
  EXPECT_EQ(InChild([] {
              const credential c = Console();
              const unsigned char seed[16] = {};
              if (poc_restore_seed(c, 1, 84, seed, 16) != 0) return 1;
              if (poc_save_pin(c, 1, 84, kPin, 6) != 0) return 2;
              return 0;
            }),
            0);
  daemon.Stop();
  ASSERT_TRUE(daemon.Start()) << daemon.Error();
  EXPECT_EQ(InChild([] {
              const credential c = Console();
              char* phrase = nullptr;
              unsigned len = 0;
              if (poc_getMnemonic(c, 1, 84, &phrase, &len) != 0) return 1;
              const bool same = std::string(phrase, len) == kZeroPhrase;
              std::free(phrase);
              if (!same) return 2;
              unsigned verdict = 0;
              if (poc_check_pin(c, 1, 84, kPin, 6, &verdict) != 0) return 3;
              return verdict == 1 ? 0 : 4;
            }),
            0);
}

TEST(KeystoreRestart, KilledDaemonFailsTheNextCallQuicklyAndSaysWhy) {
  PrivateDaemon daemon;
  ASSERT_TRUE(daemon.Start()) << daemon.Error();
  daemon.UseFromThisProcess();
  const std::string log = daemon.ClientLogPath();
  int ready[2], go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    alarm(kHangGuard);
    const credential c = Console();
    unsigned verdict = 0;
    const int first = poc_check_mnemonic(kZeroPhrase.data(), static_cast<unsigned>(kZeroPhrase.size()), &verdict);
    char byte = first == 0 && verdict == 1 ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1) _exit(9);
    if (read(go[0], &byte, 1) != 1) _exit(9);  // the daemon is dead now
    char* phrase = nullptr;
    unsigned len = 0;
    const int second = poc_getMnemonic(c, 1, 84, &phrase, &len);
    const int third = poc_check_mnemonic(kZeroPhrase.data(), static_cast<unsigned>(kZeroPhrase.size()), &verdict);
    _exit(second == -99 && third == -99 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y') << "the first call worked";
  daemon.Kill();
  ASSERT_EQ(write(go[1], "g", 1), 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the client hung or crashed";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "calls after the daemon died give -99";
  const std::string text = ReadTextFileOrEmpty(log);
  EXPECT_NE(text.find("TEEC_InvokeCommand() failed for cmd 6"), std::string::npos) << text;
  EXPECT_NE(text.find("retOrigin = 2"), std::string::npos) << text;
  unsetenv("DLOG_FILE");
}

}  // namespace
