// The daemon as a service manager runs it: the teesim executable in the
// foreground with NOTIFY_SOCKET set must say READY=1 only once its socket
// accepts clients, and --socket-group must open the socket to that group
// (mode 0660) and to nobody else.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "teesim/paths.h"

#ifndef TEESIM_EXECUTABLE
#error "TEESIM_EXECUTABLE must name the teesim executable under test"
#endif

extern char** environ;

namespace {

// Generous: only a broken daemon comes near it, and a loaded machine never.
constexpr int kReadyTimeoutMs = 60000;

bool bind_unix(int fd, const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

bool connect_unix(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  if (fd >= 0) ::close(fd);
  return ok;
}

class DaemonAsService : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/teesim-service-test.XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr) << std::strerror(errno);
    dir_ = tmpl;
    ASSERT_EQ(::mkdir((dir_ + "/ta").c_str(), 0700), 0);
    notify_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(notify_, 0);
    ASSERT_TRUE(bind_unix(notify_, dir_ + "/notify"));
  }

  void TearDown() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (notify_ >= 0) ::close(notify_);
    std::string rm = "rm -rf '" + dir_ + "'";
    EXPECT_EQ(::system(rm.c_str()), 0);
  }

  std::string socket_path() const { return dir_ + "/run/teesim.sock"; }

  // Starts `teesim --foreground` on private folders with NOTIFY_SOCKET set,
  // standard error into a file of the test's folder.
  void start(std::vector<std::string> extra) {
    /* (after the emulator's words when this build is for another CPU) */
    std::vector<std::string> args = teesim::paths::emulator();
    args.insert(args.end(), {TEESIM_EXECUTABLE, "--foreground", "--socket", socket_path(),
                             "--ta-dir", dir_ + "/ta", "--storage-dir", dir_ + "/storage"});
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> env_text = {"NOTIFY_SOCKET=" + dir_ + "/notify"};
    for (char** e = environ; *e != nullptr; ++e)
      if (std::strncmp(*e, "NOTIFY_SOCKET=", 14) != 0) env_text.emplace_back(*e);
    std::vector<char*> envp;
    for (std::string& e : env_text) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::string err = dir_ + "/stderr";
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
  }

  // What arrives on the notify socket until READY=1, the daemon's end, or
  // the time limit.
  std::string wait_for_ready() {
    std::string said;
    for (int waited = 0; waited < kReadyTimeoutMs && said.find("READY=1") == std::string::npos;
         waited += 100) {
      pollfd p{notify_, POLLIN, 0};
      if (::poll(&p, 1, 100) == 1) {
        char buf[512];
        ssize_t n = ::recv(notify_, buf, sizeof buf, 0);
        if (n > 0) said.append(buf, static_cast<size_t>(n)).append("\n");
        continue;
      }
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        break;
      }
    }
    return said;
  }

  // Stops the daemon with SIGTERM; returns its exit status.
  int stop() {
    if (pid_ <= 0) return -1;  // already reaped: never kill(-1, ...)
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // Waits for the daemon to end by itself; returns its exit status.
  int wait_exit() {
    if (pid_ <= 0) return -1;
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  std::string read_stderr() const {
    std::string text;
    FILE* f = std::fopen((dir_ + "/stderr").c_str(), "r");
    if (f == nullptr) return text;
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    return text;
  }

  std::string dir_;
  int notify_ = -1;
  pid_t pid_ = -1;
};

TEST_F(DaemonAsService, SaysReadyOnceItsSocketAcceptsClients) {
  start({});
  std::string said = wait_for_ready();
  ASSERT_NE(said.find("READY=1"), std::string::npos) << said << read_stderr();
  EXPECT_NE(said.find("STATUS=serving " + socket_path()), std::string::npos) << said;
  // Ready means ready: a client connects at once, without retrying.
  EXPECT_TRUE(connect_unix(socket_path())) << std::strerror(errno);
  EXPECT_EQ(stop(), 0) << read_stderr();
}

TEST_F(DaemonAsService, ItsSocketIsPrivateByDefault) {
  start({});
  ASSERT_NE(wait_for_ready().find("READY=1"), std::string::npos) << read_stderr();
  struct stat st{};
  ASSERT_EQ(::stat(socket_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0077, 0u) << "neither the group nor others may connect";
  EXPECT_EQ(st.st_uid, ::geteuid());
  EXPECT_EQ(stop(), 0);
}

TEST_F(DaemonAsService, SocketGroupOpensTheSocketToThatGroupOnly) {
  // Our own group: every user may give a file of theirs to it.
  group* g = ::getgrgid(::getegid());
  ASSERT_NE(g, nullptr);
  start({"--socket-group", g->gr_name});
  ASSERT_NE(wait_for_ready().find("READY=1"), std::string::npos) << read_stderr();
  struct stat st{};
  ASSERT_EQ(::stat(socket_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  EXPECT_EQ(st.st_gid, ::getegid());
  EXPECT_TRUE(connect_unix(socket_path()));
  EXPECT_EQ(stop(), 0);
}

TEST_F(DaemonAsService, AnUnknownSocketGroupIsABadOption) {
  start({"--socket-group", "no-such-group-for-teesim"});
  EXPECT_EQ(wait_exit(), 2);
  EXPECT_NE(read_stderr().find("no group named no-such-group-for-teesim"), std::string::npos)
      << read_stderr();
}

}  // namespace
