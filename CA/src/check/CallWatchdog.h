/*
 * The worker's guard against a keystore call that never returns: it passes
 * every report on to the next listener and, when a call is still running
 * at its deadline, asks the TEE to cancel it (TEEClient's
 * RequestCancellation) and reports that once. Whether the call then ends
 * is up to the TEE; the runner stops the worker when it does not.
 *
 * The deadline is watched on a thread of its own, started by the
 * constructor and joined by the destructor; calls never wake it.
 */
#ifndef TESSERA_CHECK_CALLWATCHDOG_H
#define TESSERA_CHECK_CALLWATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "Listener.h"

namespace check {

class CallWatchdog : public Listener {
 public:
  using Cancel = std::function<void()>;

  /* In: next, the listener every report goes on to (borrowed; must accept
   *     reports from the watchdog's thread too); limit, how long one call
   *     may run; cancel, what asks the TEE to cancel the call in flight. */
  CallWatchdog(Listener& next, std::chrono::milliseconds limit, Cancel cancel);
  ~CallWatchdog() override;
  CallWatchdog(const CallWatchdog&) = delete;
  CallWatchdog& operator=(const CallWatchdog&) = delete;

  void Ready() override { next_.Ready(); }
  void Unusable(const std::string& reason) override { next_.Unusable(reason); }
  void CaseBegin(int id, unsigned run) override { next_.CaseBegin(id, run); }
  void CallBegin(const std::string& function) override;
  void CallEnd(const CallRecord& call) override;
  void CancelRequested(const std::string& function) override { next_.CancelRequested(function); }
  void Check(const CheckRecord& check) override { next_.Check(check); }
  void CaseEnd(Verdict verdict, const std::string& reason, uint64_t duration_us) override {
    next_.CaseEnd(verdict, reason, duration_us);
  }
  void WalletLeft(bool ok, const std::string& detail) override { next_.WalletLeft(ok, detail); }

 private:
  void Watch();

  Listener& next_;
  const std::chrono::milliseconds limit_;
  const Cancel cancel_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  unsigned long calls_ = 0;      // calls begun so far
  unsigned long call_ = 0;       // number of the call in flight (0: none)
  unsigned long cancelled_ = 0;  // the last call a cancellation was asked for
  std::string function_;
  std::chrono::steady_clock::time_point deadline_;
  std::thread thread_;
};

}  // namespace check

#endif  // TESSERA_CHECK_CALLWATCHDOG_H
