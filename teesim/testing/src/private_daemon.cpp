/* A teesim daemon of a test's own; see private_daemon.h. */
#include "teesim/testing/private_daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "teesim/paths.h"

#ifndef TEESIM_TESTING_BUILT_DAEMON
#error "TEESIM_TESTING_BUILT_DAEMON must name the build's teesim executable"
#endif
#ifndef TEESIM_TESTING_BUILT_TA_DIR
#error "TEESIM_TESTING_BUILT_TA_DIR must name the build's TA folder"
#endif

namespace teesim::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/* Only a daemon that is broken takes this long to serve, even under the
 * sanitizers on a busy machine. */
constexpr auto kStartDeadline = std::chrono::seconds(60);
/* A clean stop gives the TA instances a few seconds to end; only a hung
 * daemon needs more than this. */
constexpr auto kStopGrace = std::chrono::seconds(60);
constexpr auto kPollPause = std::chrono::milliseconds(5);

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

/* 128 + signal for a signal, as a shell reports it. */
int StatusCode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

std::string Describe(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

int WaitFor(pid_t pid, int flags, int* status) {
  int r;
  do {
    r = ::waitpid(pid, status, flags);
  } while (r < 0 && errno == EINTR);
  return r;
}

bool Accepts(const std::string& path) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) return false;
  addr.sun_family = AF_UNIX;
  path.copy(addr.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

/* Forks and runs argv[0] with `out` as its standard output and error and
 * /dev/null as its input, no other descriptor of ours, default signal
 * handling, and (with die_with_parent) SIGTERM when the calling thread
 * ends. Returns the child's pid, or -1 with errno. */
pid_t Spawn(const std::vector<std::string>& args, int out, bool die_with_parent) {
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  /* The child: only async-signal-safe calls from here on. */
  if (die_with_parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127); /* the parent is already gone */
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD}) ::signal(sig, SIG_DFL);
  const int in = ::open("/dev/null", O_RDONLY);
  if (in >= 0) ::dup2(in, 0);
  ::dup2(out, 1);
  ::dup2(out, 2);
  ::close_range(3, ~0u, 0);
  ::execvp(argv[0], argv.data()); /* (an emulator may be named without its folder) */
  static const char kFailed[] = "cannot execute the program\n";
  (void)!::write(2, kFailed, sizeof kFailed - 1);
  ::_exit(127);
}

}  // namespace

std::string BuiltDaemon() { return TEESIM_TESTING_BUILT_DAEMON; }
std::string BuiltTaDir() { return TEESIM_TESTING_BUILT_TA_DIR; }

PrivateDaemon::PrivateDaemon(Options options)
    : options_(std::move(options)), owner_(::getpid()), folder_("teesim-daemon", options_.parent) {
  socket_ = folder_.path() + "/teesim.sock";
  storage_ = folder_.path() + "/storage";
  log_ = folder_.path() + "/teesim.log";
  client_log_ = folder_.path() + "/client.log";
  if (!options_.copy_tas) {
    ta_dir_ = options_.ta_dir;
    return;
  }
  ta_dir_ = folder_.path() + "/ta";
  fs::create_directory(ta_dir_);
  for (const fs::directory_entry& e : fs::directory_iterator(options_.ta_dir)) {
    if (e.is_regular_file()) fs::copy_file(e.path(), fs::path(ta_dir_) / e.path().filename());
  }
}

PrivateDaemon::~PrivateDaemon() {
  if (::getpid() != owner_) return;
  if (Running()) Stop();
}

bool PrivateDaemon::Start(const std::vector<std::string>& extra_args) {
  if (Running()) {
    error_ = "the daemon already runs (pid " + std::to_string(pid_) + ")";
    return false;
  }
  error_.clear();
  if (socket_.size() >= sizeof(sockaddr_un{}.sun_path)) {
    error_ = "the socket path " + socket_ + " is too long for a Unix socket";
    return false;
  }
  if (::access(options_.daemon.c_str(), X_OK) != 0) {
    error_ = "cannot run " + options_.daemon + ": " + std::strerror(errno);
    return false;
  }
  /* A daemon built for another CPU runs through the emulator (TEESIM_EMULATOR). */
  std::vector<std::string> args;
  if (options_.through_emulator) args = paths::emulator();
  args.insert(args.end(), {options_.daemon, "--foreground", "--socket", socket_, "--ta-dir",
                           ta_dir_, "--storage-dir", storage_, "--log-file", log_});
  args.insert(args.end(), extra_args.begin(), extra_args.end());
  const int out = ::open(log_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (out < 0) {
    error_ = "cannot open the log " + log_ + ": " + std::strerror(errno);
    return false;
  }
  const pid_t pid = Spawn(args, out, /*die_with_parent=*/true);
  const int spawn_errno = errno;
  ::close(out);
  if (pid < 0) {
    error_ = "cannot start " + options_.daemon + ": " + std::strerror(spawn_errno);
    return false;
  }
  pid_ = pid;

  auto with_log = [this](const std::string& reason) {
    std::string text = LogText();
    return text.empty() ? reason : reason + "\n--- " + log_ + " ---\n" + text;
  };
  const auto deadline = Clock::now() + kStartDeadline;
  for (;;) {
    if (Accepts(socket_)) return true;
    int status = 0;
    if (WaitFor(pid_, WNOHANG, &status) == pid_) {
      pid_ = -1;
      error_ = with_log(options_.daemon + " ended during start-up (" + Describe(status) + ")");
      return false;
    }
    if (Clock::now() > deadline) {
      Kill();
      error_ = with_log(options_.daemon + " did not accept connections on " + socket_ + " within " +
                        std::to_string(kStartDeadline.count()) + " s");
      return false;
    }
    std::this_thread::sleep_for(kPollPause);
  }
}

int PrivateDaemon::Stop() {
  if (!Running()) return -1;
  ::kill(pid_, SIGTERM);
  const auto deadline = Clock::now() + kStopGrace;
  int status = 0;
  while (WaitFor(pid_, WNOHANG, &status) == 0) {
    if (Clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      WaitFor(pid_, 0, &status);
      break;
    }
    std::this_thread::sleep_for(kPollPause);
  }
  pid_ = -1;
  return StatusCode(status);
}

int PrivateDaemon::Kill() {
  if (!Running()) return -1;
  ::kill(pid_, SIGKILL);
  int status = 0;
  WaitFor(pid_, 0, &status);
  pid_ = -1;
  return StatusCode(status);
}

bool PrivateDaemon::Running() const {
  if (pid_ <= 0) return false;
  int status = 0;
  const int r = WaitFor(pid_, WNOHANG, &status);
  if (r == pid_ || (r < 0 && errno == ECHILD)) {
    pid_ = -1;
    return false;
  }
  return true;
}

pid_t PrivateDaemon::Pid() const { return Running() ? pid_ : -1; }

std::string PrivateDaemon::LogText() const { return ReadText(log_); }

void PrivateDaemon::UseFromThisProcess() const {
  ::setenv("TEESIM_SOCKET", socket_.c_str(), 1);
  ::setenv("TEESIM_DAEMON", "", 1);
  ::setenv("DLOG_FILE", client_log_.c_str(), 1);
}

int PrivateDaemon::RunCommand(const std::vector<std::string>& args, std::string* stderr_text) const {
  if (stderr_text != nullptr) stderr_text->clear();
  const std::string out_path = folder_.path() + "/command.out";
  const int out = ::open(out_path.c_str(), O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0600);
  if (out < 0) return -1;
  std::vector<std::string> full;
  if (options_.through_emulator) full = paths::emulator();
  full.push_back(options_.daemon);
  full.insert(full.end(), args.begin(), args.end());
  /* Not tied to this thread: a --background daemon outlives the command. */
  const pid_t pid = Spawn(full, out, /*die_with_parent=*/false);
  ::close(out);
  if (pid < 0) return -1;
  int status = 0;
  WaitFor(pid, 0, &status);
  if (stderr_text != nullptr) *stderr_text = ReadText(out_path);
  ::unlink(out_path.c_str());
  return StatusCode(status);
}

}  // namespace teesim::testing
