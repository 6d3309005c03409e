/*
 * What a case works with: the caller's credential, the operator's seed when
 * one was given, timed keystore calls, and the record of its checks.
 *
 * A case makes any number of checks with Check(); a failed check does not
 * stop it, so one run shows every difference. When nothing meaningful can
 * follow (a keystore call failed, an answer has the wrong size), the case
 * ends at once with Stop(), which throws CaseStopped for the worker to
 * catch. The case's verdict is failed when any check failed.
 *
 * Checks that need only the client's own arithmetic can be deferred
 * (Defer): the worker makes them after the case's code has returned, on
 * its verifier thread, while the next case waits on the keystore.
 */
#ifndef TESSERA_CHECK_CASECONTEXT_H
#define TESSERA_CHECK_CASECONTEXT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "TEEClient.h"
#include "cases/CallWatchdog.h"
#include "cases/Listener.h"
#include "cases/Results.h"
#include "cases/SecretBytes.h"
#include "securestorage.h"

namespace check {

/* Thrown by CaseContext::Stop(); carries nothing (the reason is the failed
 * check recorded before it). */
struct CaseStopped {};

class CaseContext {
 public:
  using Clock = std::chrono::steady_clock;

  /* In: listener, where checks and calls are reported (borrowed, outlives
   *     this); cred, the caller's credential (borrowed); own_seed, the
   *     operator's seed bytes, or null when none was given (borrowed);
   *     call_limit_us, how long one call may take (0: no limit): a call
   *     that returns later adds a failed check; watchdog, told when each
   *     call begins and ends (borrowed; null: none). */
  CaseContext(Listener& listener, const credential& cred, const SecretBytes* own_seed,
              uint64_t call_limit_us = 0, CallWatchdog* watchdog = nullptr);

  [[nodiscard]] const credential& cred() const { return cred_; }
  /* Returns the operator's seed, or null when --seed was not given. */
  [[nodiscard]] const SecretBytes* ownSeed() const { return ownSeed_; }

  /* Runs `call` (a callable returning a poc_* result), timed around the
   * call alone, and reports its start and end. Returns its record: the
   * function's name, duration, result, and the outcome of the connection's
   * last TEE Client API call (meaningful when the result is -3 or -99). */
  template <typename F>
  CallRecord Call(const char* function, F&& call) {
    listener_.CallBegin(function);
    if (watchdog_ != nullptr) watchdog_->Begin(function);
    const Clock::time_point start = Clock::now();
    const int32_t rc = std::forward<F>(call)();
    const Clock::time_point end = Clock::now();
    if (watchdog_ != nullptr) watchdog_->End();
    const client::TEEClient::Outcome tee = client::TEEClient::getInstance().lastOutcome();
    CallRecord record{function, Microseconds(start, end), rc, tee.result, tee.origin};
    listener_.CallEnd(record);
    CheckDuration(record);
    return record;
  }

  /* Records a check and returns `passed`. For a failed check, expected and
   * actual are the two values to show (either may be "" when it means
   * nothing) and detail a sentence; all must be printable text. */
  bool Check(std::string name, bool passed, std::string expected = {}, std::string actual = {},
             std::string detail = {});

  /* Records that `call` succeeded (a check named "<what>"); when it did not,
   * the check fails with the call's result by name and the case stops. */
  void RequireSuccess(const CallRecord& call, const std::string& what);

  /* Ends the case now (throws CaseStopped). Record the reason first. */
  [[noreturn]] void Stop();

  /* A check made later, on this context, by whoever runs the case: it must
   * own everything it needs (copies; secrets in holders that wipe) and
   * must not call the keystore. Deferred checks are recorded after every
   * immediate check of the case, in the order they were deferred. */
  using Deferred = std::function<void(CaseContext&)>;
  void Defer(Deferred check) { deferred_.push_back(std::move(check)); }
  /* Hands the deferred checks over (the context keeps none). */
  [[nodiscard]] std::vector<Deferred> TakeDeferred() { return std::move(deferred_); }

  /* Returns true when a check has failed. */
  [[nodiscard]] bool failed() const { return !firstFailure_.empty(); }
  /* Returns the failure line of the first failed check ("" when none). */
  [[nodiscard]] const std::string& firstFailure() const { return firstFailure_; }
  /* Returns how many checks failed. */
  [[nodiscard]] unsigned failedChecks() const { return failedChecks_; }

  /* Microseconds from a to b (0 when b is before a). */
  static uint64_t Microseconds(Clock::time_point a, Clock::time_point b);

 private:
  void CheckDuration(const CallRecord& call);

  Listener& listener_;
  const credential& cred_;
  const SecretBytes* ownSeed_;
  uint64_t callLimitUs_;
  CallWatchdog* watchdog_;
  std::vector<Deferred> deferred_;
  Clock::time_point start_;
  std::string firstFailure_;
  unsigned failedChecks_ = 0;
};

/* Returns the line that tells what went wrong in a failed check:
 * "<name>: got <actual>, expected <expected>", with " (<detail>)" after it
 * when there is a detail, or "<name>: <detail>" when there are no values. */
[[nodiscard]] std::string FailureText(const CheckRecord& check);

}  // namespace check

#endif  // TESSERA_CHECK_CASECONTEXT_H
