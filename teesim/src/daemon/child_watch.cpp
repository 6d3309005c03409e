/* Watching a child process without new descriptors; see child_watch.h. */
#include "daemon/child_watch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace teesim::daemon {

ChildWatch::ChildWatch(pid_t pid) : pid_(pid) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  stat_.reset(::open(path, O_RDONLY | O_CLOEXEC));
}

ChildWatch::State ChildWatch::state() const {
  if (pid_ <= 0) return State::Gone;
  /* Ended (a zombie, left for the SIGCHLD handler to reap), or reaped
   * already (then, even if the pid was reused, it is no child of ours). */
  siginfo_t info{};
  int r;
  do {
    r = ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT);
  } while (r < 0 && errno == EINTR);
  if (r < 0 && errno == ECHILD) return State::Gone;
  if (r == 0 && info.si_pid == pid_) return State::Gone;
  if (!stat_) return State::Running;

  /* A dying process closes its descriptors (in reverse order) before it
   * becomes a zombie; its leader carries PF_EXITING from the start of its
   * exit (the flags field of proc(5)). The descriptor was opened while the
   * pid was our child's, so it reads that process or fails with ESRCH. */
  char buf[512];
  ssize_t n;
  do {
    n = ::pread(stat_.get(), buf, sizeof buf - 1, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && errno == ESRCH) return State::Gone;
  if (n <= 0) return State::Running;
  buf[n] = '\0';
  const char* p = std::strrchr(buf, ')'); /* the command name may hold anything */
  if (p == nullptr) return State::Running;
  char st = 0;
  unsigned long flags = 0;
  /* after ")": state ppid pgrp session tty_nr tpgid flags */
  if (std::sscanf(p + 1, " %c %*d %*d %*d %*d %*d %lu", &st, &flags) != 2) return State::Running;
  if (st == 'Z' || st == 'X') return State::Gone;
  constexpr unsigned long kPfExiting = 0x4;
  return (flags & kPfExiting) != 0 ? State::Exiting : State::Running;
}

}  // namespace teesim::daemon
