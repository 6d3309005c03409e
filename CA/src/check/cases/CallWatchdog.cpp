// A deadline per keystore call, watched on a thread of its own.
#include "cases/CallWatchdog.h"

#include <utility>

namespace check {

CallWatchdog::CallWatchdog(std::chrono::milliseconds limit, OnDeadline on_deadline)
    : limit_(limit), onDeadline_(std::move(on_deadline)), thread_([this] { Watch(); }) {}

CallWatchdog::~CallWatchdog() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  stop_.notify_all();
  thread_.join();
}

void CallWatchdog::Begin(const std::string& function) {
  std::lock_guard<std::mutex> lock(mutex_);
  call_ = ++calls_;
  function_ = function;
  deadline_ = std::chrono::steady_clock::now() + limit_;
}

void CallWatchdog::End() {
  std::lock_guard<std::mutex> lock(mutex_);
  call_ = 0;
}

// Calls begin and end without waking this thread (a wake-up per call would
// cost more than most calls): it sleeps at most one limit at a time, so it
// is always awake again before the deadline of a call that began meanwhile,
// and then sleeps until exactly that deadline.
void CallWatchdog::Watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (call_ == 0 || call_ == expired_) {
      stop_.wait_for(lock, limit_);
      continue;
    }
    if (std::chrono::steady_clock::now() < deadline_) {
      stop_.wait_until(lock, deadline_);
      continue;
    }
    expired_ = call_;
    const std::string function = function_;
    lock.unlock();
    onDeadline_(function);
    lock.lock();
  }
}

}  // namespace check
