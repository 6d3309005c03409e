/* libteec's way to the daemon: find its socket, start it when none serves, greet it. */
#include "daemon_link.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "client_log.h"
#include "teesim/channel.h"
#include "teesim/paths.h"
#include "teesim/wire.h"

extern char** environ;

namespace teec {
namespace {

using teesim::UniqueFd;

/* Exit status of the teesim command when another daemon won the race. */
constexpr int kDaemonAlreadyRunning = 3;
constexpr int kStartTimeoutMs = 15000;
constexpr int kGreetingTimeoutMs = 5000;

int64_t now_ms() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

/* Returns 0 with a connected socket, or -errno. */
int connect_socket(const std::string& path, UniqueFd* out) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return -ENAMETOOLONG;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!fd) return -errno;
  int r;
  do {
    r = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  } while (r != 0 && errno == EINTR);
  if (r != 0) return -errno;
  *out = std::move(fd);
  return 0;
}

#ifndef TEESIM_SERVICE_USER
#error "TEESIM_SERVICE_USER must name the system user of the teesim service"
#endif
static_assert(sizeof TEESIM_SERVICE_USER > 1, "TEESIM_SERVICE_USER must not be empty");

/* The socket of the teesim service, which users other than root try first
 * when TEESIM_SOCKET is unset (root's default is that socket already). */
constexpr const char* kServiceSocket = "/run/teesim/teesim.sock";

/* The uid of the service's system user, or nothing when there is none. */
bool service_uid(uid_t* out) {
  long n = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(n > 0 ? static_cast<size_t>(n) : 16384);
  passwd pw{};
  passwd* found = nullptr;
  if (::getpwnam_r(TEESIM_SERVICE_USER, &pw, buf.data(), buf.size(), &found) != 0 ||
      found == nullptr)
    return false;
  *out = found->pw_uid;
  return true;
}

/* A socket of another user could be an impostor collecting our secrets:
 * only this user's, root's and the service user's are trusted (a system
 * account that no other user can act as). */
bool socket_owner_ok(const std::string& path, std::string* why) {
  struct stat st{};
  if (::lstat(path.c_str(), &st) != 0) return true; /* connect will say why */
  uid_t service = 0;
  bool of_service = service_uid(&service) && st.st_uid == service;
  if (st.st_uid != ::geteuid() && st.st_uid != 0 && !of_service) {
    *why = "the socket " + path + " belongs to uid " + std::to_string(st.st_uid) +
           ", not to this user, root or the " TEESIM_SERVICE_USER " service; refusing to use it";
    return false;
  }
  return true;
}

std::string trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

/* Runs `teesim --background ...` and waits until it reports. Returns true
 * when a daemon now serves the socket (ours or a rival's). */
bool start_daemon(const std::string& socket_path, std::string* why) {
  const std::string daemon = teesim::paths::daemon_path();
  if (daemon.empty()) {
    *why = "none may be started (TEESIM_DAEMON is empty)";
    return false;
  }
  const std::string ta_dir = teesim::paths::ta_dir();
  const std::string storage = teesim::paths::storage_dir();
  const std::string log_file = teesim::paths::parent_dir(socket_path) + "/teesim.log";
  std::vector<std::string> args = {daemon,        "--background", "--socket",  socket_path,
                                   "--ta-dir",    ta_dir,         "--storage-dir", storage,
                                   "--log-file",  log_file};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  int err_pipe[2];
  if (::pipe2(err_pipe, O_CLOEXEC) != 0) {
    *why = std::string("cannot make a pipe: ") + std::strerror(errno);
    return false;
  }
  UniqueFd err_read(err_pipe[0]), err_write(err_pipe[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, err_write.get(), 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  /* Ignored signals survive exec: give the daemon the default handling of
   * those it relies on, whatever the application did with them. */
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int s : {SIGPIPE, SIGCHLD, SIGHUP, SIGINT, SIGTERM, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM})
    sigaddset(&defaults, s);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  int e = ::posix_spawn(&pid, daemon.c_str(), &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  err_write.reset();
  if (e != 0) {
    *why = "cannot run " + daemon + ": " + std::strerror(e);
    return false;
  }

  /* The pipe closes when the daemon is serving (it then moves its standard
   * error to its log) or has given up; its first process exits then too. */
  std::string said;
  int64_t deadline = now_ms() + kStartTimeoutMs;
  for (;;) {
    int left = static_cast<int>(deadline - now_ms());
    if (left <= 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
      *why = daemon + " did not report within " + std::to_string(kStartTimeoutMs / 1000) + " s";
      return false;
    }
    pollfd p{err_read.get(), POLLIN, 0};
    int r = ::poll(&p, 1, left);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) continue;
    char buf[512];
    ssize_t n = ::read(err_read.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (said.size() < 4096) said.append(buf, static_cast<size_t>(n));
  }
  int status = 0;
  pid_t w;
  do {
    w = ::waitpid(pid, &status, 0);
  } while (w < 0 && errno == EINTR);
  if (w < 0) return true; /* SIGCHLD ignored by the application: no status; try to connect */
  if (WIFEXITED(status) &&
      (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == kDaemonAlreadyRunning)) {
    if (WEXITSTATUS(status) == 0)
      log::write(log::Level::Info, "started the TEE daemon %s for %s; its log is %s", daemon.c_str(),
                 socket_path.c_str(), log_file.c_str());
    return true;
  }
  said = trim(said);
  if (said.empty()) said = "no message";
  if (WIFEXITED(status)) {
    *why = daemon + " failed (exit status " + std::to_string(WEXITSTATUS(status)) + "): " + said;
  } else {
    *why = daemon + " died during start-up: " + said;
  }
  return false;
}

/* HELLO / HELLO_REPLY, bounded in time: something that accepts but never
 * answers is not a TEE daemon, and must not hang the caller. */
bool greet(int fd, std::string* why) {
  std::vector<uint8_t> frame;
  teesim::wire::Hello hello;
  hello.client_pid = static_cast<uint32_t>(::getpid());
  if (teesim::wire::encode(frame, 1, hello) != teesim::wire::Status::Ok) return false;
  int r = teesim::send_frame(fd, frame.data(), frame.size());
  if (r != 0) {
    *why = std::string("greeting failed: ") + std::strerror(-r);
    return false;
  }
  pollfd p{fd, POLLIN, 0};
  int64_t deadline = now_ms() + kGreetingTimeoutMs;
  for (;;) {
    int left = static_cast<int>(deadline - now_ms());
    if (left <= 0) {
      *why = "no answer to the greeting within " + std::to_string(kGreetingTimeoutMs / 1000) + " s";
      return false;
    }
    int pr = ::poll(&p, 1, left);
    if (pr > 0) break;
    if (pr < 0 && errno != EINTR) {
      *why = std::string("poll failed: ") + std::strerror(errno);
      return false;
    }
  }
  std::vector<uint8_t> buf(teesim::wire::kMaxFrameSize);
  teesim::FdList fds;
  ssize_t n = teesim::recv_frame(fd, buf.data(), buf.size(), &fds);
  if (n <= 0) {
    *why = n == 0 ? "the daemon closed the connection" : std::string("receive failed: ") + std::strerror(static_cast<int>(-n));
    return false;
  }
  teesim::wire::Frame f;
  teesim::wire::HelloReply reply;
  teesim::wire::Status st = teesim::wire::parse_frame(buf.data(), static_cast<size_t>(n), &f);
  if (st == teesim::wire::Status::Ok) st = teesim::wire::decode(f, fds.count, &reply);
  if (st != teesim::wire::Status::Ok) {
    *why = std::string("bad greeting (") + teesim::wire::status_name(st) + ")";
    return false;
  }
  return true;
}

}  // namespace

bool connect_service(UniqueFd* out, std::string* socket_path) {
  const char* chosen = ::secure_getenv("TEESIM_SOCKET");
  if ((chosen != nullptr && chosen[0] != '\0') || ::geteuid() == 0) return false;
  struct stat st{};
  uid_t service = 0;
  if (::lstat(kServiceSocket, &st) != 0 || !S_ISSOCK(st.st_mode) || !service_uid(&service) ||
      st.st_uid != service)
    return false;
  std::string why;
  if (connect_daemon(kServiceSocket, /*may_start=*/false, out, &why) != TEEC_SUCCESS) {
    /* Typically: not a member of the service's group. The user's own
     * daemon serves instead. */
    log::write(log::Level::Info, "not using the teesim service: %s", why.c_str());
    return false;
  }
  *socket_path = kServiceSocket;
  return true;
}

TEEC_Result connect_daemon(const std::string& socket_path, bool may_start, UniqueFd* out,
                           std::string* why) {
  if (!socket_owner_ok(socket_path, why)) return TEEC_ERROR_COMMUNICATION;
  UniqueFd fd;
  int r = connect_socket(socket_path, &fd);
  if (r == -ENOENT || r == -ECONNREFUSED) {
    std::string first = std::strerror(-r);
    if (!may_start) {
      *why = "no TEE daemon at " + socket_path + " (" + first + ")";
      return TEEC_ERROR_COMMUNICATION;
    }
    std::string start_why;
    if (!start_daemon(socket_path, &start_why)) {
      *why = "no TEE daemon at " + socket_path + " (" + first + "), and " + start_why;
      return TEEC_ERROR_COMMUNICATION;
    }
    /* A rival that won the race may still be binding: give it a moment. */
    int64_t deadline = now_ms() + kStartTimeoutMs;
    do {
      r = connect_socket(socket_path, &fd);
      if (r == 0 || (r != -ENOENT && r != -ECONNREFUSED)) break;
      ::usleep(10000);
    } while (now_ms() < deadline);
  }
  if (r != 0) {
    *why = "cannot connect to the TEE daemon at " + socket_path + ": " + std::strerror(-r);
    return TEEC_ERROR_COMMUNICATION;
  }
  if (!socket_owner_ok(socket_path, why)) return TEEC_ERROR_COMMUNICATION;
  std::string greet_why;
  if (!greet(fd.get(), &greet_why)) {
    *why = socket_path + " does not answer as a TEE daemon: " + greet_why;
    return TEEC_ERROR_COMMUNICATION;
  }
  *out = std::move(fd);
  return TEEC_SUCCESS;
}

}  // namespace teec
