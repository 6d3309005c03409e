/*
 * The worker's guard against a keystore call that never returns: told when
 * each call begins and ends, it runs `onDeadline` once for a call that is
 * still running `limit` after it began (the worker then asks the TEE to
 * cancel the call and tells the runner). Whether the call then ends is up
 * to the TEE; the runner stops the worker when it does not.
 *
 * The deadline is watched on a thread of its own, started by the
 * constructor and joined by the destructor; calls never wake it.
 * Begin and End come from one thread; onDeadline runs on the watchdog's.
 */
#ifndef TESSERA_CHECK_CALLWATCHDOG_H
#define TESSERA_CHECK_CALLWATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace check {

class CallWatchdog {
 public:
  using OnDeadline = std::function<void(const std::string& function)>;

  /* In: limit, how long one call may run; on_deadline, what to do for a
   *     call past it, given the call's name (runs without any lock of the
   *     watchdog held, so it may wait for the calling thread's other work). */
  CallWatchdog(std::chrono::milliseconds limit, OnDeadline on_deadline);
  ~CallWatchdog();
  CallWatchdog(const CallWatchdog&) = delete;
  CallWatchdog& operator=(const CallWatchdog&) = delete;

  /* A call named `function` begins now. */
  void Begin(const std::string& function);
  /* The call has returned. */
  void End();

 private:
  void Watch();

  const std::chrono::milliseconds limit_;
  const OnDeadline onDeadline_;
  std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;
  unsigned long calls_ = 0;      // calls begun so far
  unsigned long call_ = 0;       // number of the call in flight (0: none)
  unsigned long expired_ = 0;    // the last call onDeadline ran for
  std::string function_;
  std::chrono::steady_clock::time_point deadline_;
  std::thread thread_;
};

}  // namespace check

#endif  // TESSERA_CHECK_CALLWATCHDOG_H
