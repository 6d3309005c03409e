/*
 * The daemon's pid file, <socket>.lock: one daemon per socket. The file is
 * held under an exclusive flock(2) for the daemon's life and holds its pid
 * (decimal, one line) so that scripts can signal it; a clean stop removes
 * it. The lock, not the file, decides: it ends with the process that holds
 * it, so a file left behind by a crash never keeps a daemon from starting.
 */
#ifndef TEESIM_DAEMON_PID_FILE_H
#define TEESIM_DAEMON_PID_FILE_H

#include <sys/types.h>

#include <string>

#include "teesim/unique_fd.h"

namespace teesim::daemon {

class PidFile {
 public:
  enum class Result {
    Taken, /* ours now, with our pid in it */
    Busy,  /* another process holds it; see holder() and describe_holder() */
    Error, /* cannot open, lock or write it; the reason is in *error */
  };

  PidFile() = default;
  /* Releases the lock without removing the file (see remove()). */
  ~PidFile() = default;
  PidFile(PidFile&&) = default;
  PidFile& operator=(PidFile&&) = default;

  /* Takes the lock on `path` (created mode 0600 when missing) and writes
   * getpid() into the file. A file that its previous owner removed or
   * replaced between our open and our lock is opened afresh, so two
   * daemons never both hold a lock on `path`.
   * Out: error, the reason when Error is returned. */
  [[nodiscard]] Result take(const std::string& path, std::string* error);

  /* After Busy: the pid the file names (0 when it names none), and a few
   * words about it for messages: "pid 123" when that pid is a running
   * teesim, else what else holds the lock. */
  pid_t holder() const { return holder_; }
  const std::string& describe_holder() const { return holder_text_; }

  /* Removes the file while still holding its lock, then releases the lock.
   * For a clean stop; does nothing when the lock is not held. */
  void remove();

  bool held() const { return static_cast<bool>(fd_); }

 private:
  UniqueFd fd_;
  std::string path_;
  pid_t holder_ = 0;
  std::string holder_text_;
};

/* True when `pid` is a running process whose command name is "teesim", or
 * a qemu-user emulator running a program named "teesim". */
[[nodiscard]] bool is_running_teesim(pid_t pid);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_PID_FILE_H
