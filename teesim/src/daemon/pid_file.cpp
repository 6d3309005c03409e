/* The daemon's pid file and its lock; see pid_file.h. */
#include "daemon/pid_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace teesim::daemon {
namespace {

/* How often a file removed under us is opened afresh before giving up: each
 * round needs its previous owner to stop exactly between our open and our
 * lock, so a second round is already rare. */
constexpr int kOpenRounds = 8;

pid_t read_pid(int fd) {
  char buf[32] = {};
  ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
  if (n <= 0) return 0;
  long v = 0;
  for (ssize_t i = 0; i < n && buf[i] >= '0' && buf[i] <= '9'; ++i) {
    v = v * 10 + (buf[i] - '0');
    if (v > 0x3fffffff) return 0;
  }
  return static_cast<pid_t>(v);
}

/* The descriptor still names the file at `path` (its owner has not removed
 * or replaced it since we opened it). */
bool still_at_path(int fd, const std::string& path) {
  struct stat held{}, named{};
  if (::fstat(fd, &held) != 0 || ::lstat(path.c_str(), &named) != 0) return false;
  return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

/* Up to `limit` bytes of a /proc file; empty when it cannot be read. */
std::string read_proc_text(const char* path, size_t limit) {
  FILE* f = std::fopen(path, "re");
  if (f == nullptr) return {};
  std::string text(limit, '\0');
  text.resize(std::fread(text.data(), 1, limit, f));
  std::fclose(f);
  return text;
}

/* The program a qemu-user command line runs: the first word after the
 * emulator's own that is not an option or an option's value. Only these
 * options of the emulator take no value. Empty when there is none. */
std::string emulated_program(const std::string& cmdline) {
  static const char* const kFlags[] = {"-h", "-help", "-version", "-singlestep", "-one-insn-per-tb",
                                       "-strace"};
  std::vector<std::string> words;
  for (size_t at = 0; at < cmdline.size();) {
    const size_t end = std::min(cmdline.find('\0', at), cmdline.size());
    words.push_back(cmdline.substr(at, end - at));
    at = end + 1;
  }
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& w = words[i];
    if (w.empty() || w[0] != '-') return w;
    if (std::find(std::begin(kFlags), std::end(kFlags), w) == std::end(kFlags)) ++i; /* its value */
  }
  return {};
}

std::string describe(pid_t pid) {
  if (pid <= 0) return "a process that wrote no pid into it";
  if (is_running_teesim(pid)) return "pid " + std::to_string(pid);
  if (::kill(pid, 0) == 0 || errno == EPERM)
    return "a process that is not teesim (the file names pid " + std::to_string(pid) + ")";
  return "a process outside our view (the file names pid " + std::to_string(pid) +
         ", which is not running here)";
}

}  // namespace

bool is_running_teesim(pid_t pid) {
  if (pid <= 0) return false;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/comm", static_cast<int>(pid));
  const std::string comm = read_proc_text(path, 32);
  if (comm == "teesim\n") return true;
  /* A daemon built for another CPU runs under qemu-user, which keeps its
   * own name: then the program is the first word of its command line that
   * is not one of the emulator's options (e.g. "-L <sysroot>"). */
  if (comm.rfind("qemu-", 0) != 0) return false;
  std::snprintf(path, sizeof path, "/proc/%d/cmdline", static_cast<int>(pid));
  const std::string program = emulated_program(read_proc_text(path, 4096));
  const size_t slash = program.rfind('/');
  return program.substr(slash == std::string::npos ? 0 : slash + 1) == "teesim";
}

PidFile::Result PidFile::take(const std::string& path, std::string* error) {
  holder_ = 0;
  holder_text_.clear();
  for (int round = 0; round < kOpenRounds; ++round) {
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd) {
      *error = "cannot open " + path + ": " + std::strerror(errno);
      return Result::Error;
    }
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK) {
        *error = "cannot lock " + path + ": " + std::strerror(errno);
        return Result::Error;
      }
      holder_ = read_pid(fd.get());
      holder_text_ = describe(holder_);
      return Result::Busy;
    }
    if (!still_at_path(fd.get(), path)) continue; /* removed by its stopping owner */
    std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd.get(), 0) != 0 ||
        ::pwrite(fd.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
      *error = "cannot write " + path + ": " + std::strerror(errno);
      return Result::Error;
    }
    fd_ = std::move(fd);
    path_ = path;
    return Result::Taken;
  }
  *error = "cannot lock " + path + ": it keeps being replaced";
  return Result::Error;
}

void PidFile::remove() {
  if (!fd_) return;
  /* Unlinked before the lock goes: a starting daemon that opened this file
   * finds it gone once it holds the lock, and opens the path afresh. */
  if (still_at_path(fd_.get(), path_)) (void)::unlink(path_.c_str());
  fd_.reset();
}

}  // namespace teesim::daemon
