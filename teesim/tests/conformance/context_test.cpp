/* Contexts: arguments, TEE names, no daemon, and the daemon started on demand. */
#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "support.h"
#include "teesim/paths.h"

namespace conformance {
namespace {

using Context = WithDaemon;

TEST_F(Context, NullArgumentsAreRefused) {
  EXPECT_RESULT(TEEC_InitializeContext(nullptr, nullptr), TEEC_ERROR_BAD_PARAMETERS);
  TEEC_FinalizeContext(nullptr);
  TEEC_SharedMemory shm{};
  shm.size = 16;
  shm.flags = TEEC_MEM_INPUT;
  EXPECT_RESULT(TEEC_AllocateSharedMemory(nullptr, &shm), TEEC_ERROR_BAD_PARAMETERS);
  EXPECT_RESULT(TEEC_RegisterSharedMemory(nullptr, &shm), TEEC_ERROR_BAD_PARAMETERS);
  TEEC_Session s{};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_OpenSession(nullptr, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
}

TEST_F(Context, ContextsThatWereNeverMadeAreHarmless) {
  TEEC_Context never{};
  TEEC_FinalizeContext(&never);
  int junk = 0;
  TEEC_Context forged{};
  forged.imp = &junk;
  TEEC_FinalizeContext(&forged);
  TEEC_Session s{};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_OpenSession(&forged, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  TEEC_Context finalized{};
  ASSERT_RESULT(TEEC_InitializeContext(nullptr, &finalized), TEEC_SUCCESS);
  TEEC_Context copy = finalized;
  TEEC_FinalizeContext(&finalized);
  EXPECT_EQ(finalized.imp, nullptr);
  EXPECT_OUTCOME(TEEC_OpenSession(&copy, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  TEEC_FinalizeContext(&copy);
}

TEST_F(Context, TeesAreNamedByNullOrBySocketPath) {
  TEEC_Context c{};
  EXPECT_RESULT(TEEC_InitializeContext("some-other-tee", &c), TEEC_ERROR_ITEM_NOT_FOUND);
  EXPECT_NE(read_text(client_log_).find("no TEE named \"some-other-tee\""), std::string::npos)
      << read_text(client_log_);
  ASSERT_RESULT(TEEC_InitializeContext(daemon().Socket().c_str(), &c), TEEC_SUCCESS);
  TEEC_Session s{};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_OpenSession(&c, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  TEEC_CloseSession(&s);
  TEEC_FinalizeContext(&c);
}

TEST_F(Context, FinalizingWithSessionsOpenClosesThem) {
  TEEC_Context c{};
  ASSERT_RESULT(TEEC_InitializeContext(nullptr, &c), TEEC_SUCCESS);
  TEEC_Session s{};
  uint32_t origin = 0;
  ASSERT_RESULT(TEEC_OpenSession(&c, &s, &kSingleSessionTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                TEEC_SUCCESS);
  TEEC_FinalizeContext(&c);
  EXPECT_NE(read_text(client_log_).find("still open"), std::string::npos);
  /* The session was really closed: the one-session TA takes a new one. */
  Client other;
  EXPECT_RESULT(other.open(kSingleSessionTa), TEEC_SUCCESS);
  TEEC_CloseSession(&s); /* stale handle: ignored */
}

/* ---- no daemon -------------------------------------------------------------- */

TEST(NoDaemon, InitializeFailsAtOnceAndSaysWhy) {
  PrivateDaemon d; /* folders only, never started */
  std::string log = use_daemon(d);
  TEEC_Context c{};
  EXPECT_RESULT(TEEC_InitializeContext(nullptr, &c), TEEC_ERROR_COMMUNICATION);
  std::string text = read_text(log);
  EXPECT_NE(text.find(d.Socket()), std::string::npos) << text;
  EXPECT_NE(text.find("No such file or directory"), std::string::npos) << text;
  EXPECT_NE(text.find("TEESIM_DAEMON is empty"), std::string::npos) << text;
  EXPECT_NE(text.find("[6] TEEC:"), std::string::npos) << "logged at error priority: " << text;
}

TEST(NoDaemon, ADaemonThatCannotRunIsNamed) {
  PrivateDaemon d;
  std::string log = use_daemon(d);
  ::setenv("TEESIM_DAEMON", "/nonexistent/teesim", 1);
  TEEC_Context c{};
  EXPECT_RESULT(TEEC_InitializeContext(nullptr, &c), TEEC_ERROR_COMMUNICATION);
  std::string text = read_text(log);
  EXPECT_NE(text.find("cannot run /nonexistent/teesim"), std::string::npos) << text;
}

TEST(NoDaemon, ADaemonThatRefusesToStartPassesOnItsReason) {
  PrivateDaemon d;
  std::string log = use_daemon(d);
  ::setenv("TEESIM_DAEMON", teesim::testing::BuiltDaemon().c_str(), 1);
  ::setenv("TEESIM_TA_DIR", "/nonexistent-ta-folder", 1);
  ::setenv("TEESIM_STORAGE_DIR", d.StorageDir().c_str(), 1);
  TEEC_Context c{};
  EXPECT_RESULT(TEEC_InitializeContext(nullptr, &c), TEEC_ERROR_COMMUNICATION);
  std::string text = read_text(log);
  EXPECT_NE(text.find("TA folder /nonexistent-ta-folder: No such file or directory"), std::string::npos)
      << text;
  ::unsetenv("TEESIM_TA_DIR");
  ::unsetenv("TEESIM_STORAGE_DIR");
}

TEST(NoDaemon, SomethingElseOnTheSocketIsNotTakenForADaemon) {
  PrivateDaemon d;
  std::string log = use_daemon(d);
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", d.Socket().c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(fd, 4), 0);
  /* It accepts (the kernel queues the connection) but never answers. */
  TEEC_Context c{};
  EXPECT_RESULT(TEEC_InitializeContext(nullptr, &c), TEEC_ERROR_COMMUNICATION);
  std::string text = read_text(log);
  EXPECT_NE(text.find("does not answer as a TEE daemon"), std::string::npos) << text;
  ::close(fd);
}

/* ---- started on demand ------------------------------------------------------ */

pid_t pid_in_lock(const std::string& socket) {
  std::ifstream in(socket + ".lock");
  long pid = 0;
  in >> pid;
  return static_cast<pid_t>(pid);
}

bool alive(pid_t pid) {
  std::string stat = read_text("/proc/" + std::to_string(pid) + "/stat");
  if (stat.empty()) return false;
  size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

/* Daemons whose command line names this socket. */
int daemons_serving(const std::string& socket) {
  std::string command; /* the daemon, after the emulator's words in a build for another CPU */
  for (const std::string& word : teesim::paths::emulator()) command += word + " ";
  command += teesim::testing::BuiltDaemon();
  int n = 0;
  DIR* d = ::opendir("/proc");
  while (dirent* e = ::readdir(d)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    std::string cmd = read_text(std::string("/proc/") + e->d_name + "/cmdline");
    for (char& ch : cmd) ch = ch == '\0' ? ' ' : ch;
    if (cmd.rfind(command + " ", 0) == 0 && cmd.find(socket) != std::string::npos &&
        alive(static_cast<pid_t>(std::atoi(e->d_name))))
      ++n;
  }
  ::closedir(d);
  return n;
}

class AutoStart : public ::testing::Test {
 protected:
  void SetUp() override {
    log_ = use_daemon(d_);
    ::setenv("TEESIM_DAEMON", teesim::testing::BuiltDaemon().c_str(), 1);
    ::setenv("TEESIM_TA_DIR", d_.TaDir().c_str(), 1);
    ::setenv("TEESIM_STORAGE_DIR", d_.StorageDir().c_str(), 1);
  }
  void TearDown() override {
    pid_t pid = pid_in_lock(d_.Socket());
    if (pid > 0 && alive(pid)) {
      ::kill(pid, SIGTERM);
      EXPECT_TRUE(eventually([&] { return !alive(pid); })) << "the started daemon did not stop";
    }
    ::unsetenv("TEESIM_TA_DIR");
    ::unsetenv("TEESIM_STORAGE_DIR");
  }
  PrivateDaemon d_; /* its folders; the daemon itself is started by libteec */
  std::string log_;
};

TEST_F(AutoStart, TheFirstClientStartsTheDaemonWhichOutlivesIt) {
  {
    Client c;
    ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  }
  std::string text = read_text(log_);
  EXPECT_NE(text.find("started the TEE daemon"), std::string::npos) << text;
  pid_t pid = pid_in_lock(d_.Socket());
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(alive(pid)) << "the daemon went away with its first client";
  Client again;
  ASSERT_RESULT(again.init_result(), TEEC_SUCCESS);
  EXPECT_EQ(pid_in_lock(d_.Socket()), pid) << "a second daemon was started";
  EXPECT_NE(read_text(d_.LogPath()).find("serving " + d_.Socket()), std::string::npos)
      << "the started daemon logs beside its socket";
}

TEST_F(AutoStart, TheDaemonAndItsTaHostsRunThroughTheEmulator) {
  const std::string record = d_.Folder() + "/emulated";
  const char* outer = ::getenv("TEESIM_EMULATOR");
  const std::string saved = outer != nullptr ? outer : "";
  ::setenv("TEESIM_EMULATOR", recording_emulator(d_.Folder(), record).c_str(), 1);
  {
    Client c;
    EXPECT_RESULT(c.init_result(), TEEC_SUCCESS);
    EXPECT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  }
  if (outer != nullptr)
    ::setenv("TEESIM_EMULATOR", saved.c_str(), 1);
  else
    ::unsetenv("TEESIM_EMULATOR");
  const std::string text = read_text(record);
  EXPECT_NE(text.find(teesim::testing::BuiltDaemon() + " --background --socket " + d_.Socket()),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("/teesim-tahost 7e57a000-5e55-4d0e-9a11-000000000001 "), std::string::npos)
      << "the daemon passes the emulator on to its TA hosts: " << text;
}

TEST_F(AutoStart, ConcurrentFirstClientsStartOneDaemon) {
  constexpr int kClients = 4;
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  std::vector<pid_t> kids;
  for (int i = 0; i < kClients; ++i) {
    pid_t pid = ::fork();
    if (pid == 0) {
      ::close(gate[1]);
      char go;
      if (::read(gate[0], &go, 1) != 0) ::_exit(3);
      TEEC_Context c{};
      if (TEEC_InitializeContext(nullptr, &c) != TEEC_SUCCESS) ::_exit(1);
      TEEC_Session s{};
      uint32_t origin;
      if (TEEC_OpenSession(&c, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin) != TEEC_SUCCESS)
        ::_exit(2);
      TEEC_CloseSession(&s);
      TEEC_FinalizeContext(&c);
      ::_exit(0);
    }
    kids.push_back(pid);
  }
  ::close(gate[0]);
  ::close(gate[1]); /* all go at once */
  for (pid_t k : kids) {
    int status = 0;
    ::waitpid(k, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "client exit status " << status;
  }
  EXPECT_EQ(daemons_serving(d_.Socket()), 1);
}

TEST_F(AutoStart, AStaleSocketFileIsReplaced) {
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", d_.Socket().c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(fd); /* the file stays, nobody listens: what a crashed daemon leaves */
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  EXPECT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
}

}  // namespace
}  // namespace conformance
