// A deadline per keystore call, watched on a thread of its own.
#include "CallWatchdog.h"

#include <utility>

namespace check {

CallWatchdog::CallWatchdog(Listener& next, std::chrono::milliseconds limit, Cancel cancel)
    : next_(next), limit_(limit), cancel_(std::move(cancel)), thread_([this] { Watch(); }) {}

CallWatchdog::~CallWatchdog() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void CallWatchdog::CallBegin(const std::string& function) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    call_ = ++calls_;
    function_ = function;
    deadline_ = std::chrono::steady_clock::now() + limit_;
  }
  next_.CallBegin(function);
}

void CallWatchdog::CallEnd(const CallRecord& call) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    call_ = 0;
  }
  next_.CallEnd(call);
}

// Calls begin and end without waking this thread (a wake-up per call would
// cost more than most calls): it sleeps at most one limit at a time, so it
// is always awake again before the deadline of a call that began meanwhile,
// and then sleeps until exactly that deadline.
void CallWatchdog::Watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (call_ == 0 || call_ == cancelled_) {
      changed_.wait_for(lock, limit_);
      continue;
    }
    if (std::chrono::steady_clock::now() < deadline_) {
      changed_.wait_until(lock, deadline_);
      continue;
    }
    cancelled_ = call_;
    const std::string function = function_;
    // Cancelling must not hold this lock: the call's own thread takes it
    // when the call returns.
    lock.unlock();
    cancel_();
    next_.CancelRequested(function);
    lock.lock();
  }
}

}  // namespace check
