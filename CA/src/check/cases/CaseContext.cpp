// The record of one case run: its checks, its calls, its first failure.
#include "cases/CaseContext.h"

#include "cases/Describe.h"

namespace check {

CaseContext::CaseContext(Listener& listener, const credential& cred, const SecretBytes* own_seed,
                         uint64_t call_limit_us, CallWatchdog* watchdog)
    : listener_(listener),
      cred_(cred),
      ownSeed_(own_seed),
      callLimitUs_(call_limit_us),
      watchdog_(watchdog),
      start_(Clock::now()) {}

void CaseContext::CheckDuration(const CallRecord& call) {
  if (callLimitUs_ == 0 || call.duration_us <= callLimitUs_) return;
  Check(call.function + " returned within the timeout", false,
        "at most " + std::to_string(callLimitUs_ / 1000) + " ms",
        std::to_string(call.duration_us / 1000) + " ms");
}

bool CaseContext::Check(std::string name, bool passed, std::string expected, std::string actual,
                        std::string detail) {
  CheckRecord record;
  record.name = std::move(name);
  record.passed = passed;
  record.at_us = Microseconds(start_, Clock::now());
  if (!passed) {
    record.expected = std::move(expected);
    record.actual = std::move(actual);
    record.detail = std::move(detail);
    if (firstFailure_.empty()) firstFailure_ = FailureText(record);
    ++failedChecks_;
  }
  listener_.Check(record);
  return passed;
}

void CaseContext::RequireSuccess(const CallRecord& call, const std::string& what) {
  if (call.rc == 0) {
    Check(what, true);
    return;
  }
  Check(what, false, "", "", call.function + ": " + DescribeCall(call));
  Stop();
}

void CaseContext::Stop() { throw CaseStopped{}; }

uint64_t CaseContext::Microseconds(Clock::time_point a, Clock::time_point b) {
  if (b <= a) return 0;
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(b - a).count());
}

std::string FailureText(const CheckRecord& check) {
  if (check.expected.empty() && check.actual.empty()) {
    return check.detail.empty() ? check.name : check.name + ": " + check.detail;
  }
  std::string text = check.name + ": got " + (check.actual.empty() ? "nothing" : check.actual) +
                     ", expected " + (check.expected.empty() ? "nothing" : check.expected);
  if (!check.detail.empty()) text += " (" + check.detail + ")";
  return text;
}

}  // namespace check
