/*
 * Whether a child process of the daemon (a TA instance) is still running,
 * asked in a way that cannot be mistaken: it never needs a new descriptor,
 * so a daemon out of descriptors does not take a healthy child for a dead
 * one.
 */
#ifndef TEESIM_DAEMON_CHILD_WATCH_H
#define TEESIM_DAEMON_CHILD_WATCH_H

#include <sys/types.h>

#include "teesim/unique_fd.h"

namespace teesim::daemon {

class ChildWatch {
 public:
  enum class State {
    Running, /* alive, and not on its way out (or nothing says it is)  */
    Exiting, /* its exit has begun: it may already have closed channels */
    Gone,    /* it has ended (a zombie) or has been reaped             */
  };

  ChildWatch() = default;
  /* Starts watching `pid`, a child of this process not yet reaped. Opens
   * /proc/<pid>/stat once, to tell later when the exit has begun; when that
   * fails (out of descriptors) the watch still tells Running from Gone. */
  explicit ChildWatch(pid_t pid);

  /* Returns the child's state now. A failure to read its status (for want
   * of a resource) reads as Running, never as an end: the end of a child
   * is also seen when its channels close, so it is never missed for long. */
  State state() const;

  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  UniqueFd stat_; /* /proc/<pid>/stat, opened while the child was ours */
};

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_CHILD_WATCH_H
