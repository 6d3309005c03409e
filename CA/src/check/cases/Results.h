/*
 * What a run of tessera-check finds, as plain values: per case its verdict,
 * the checks it made and the keystore calls it timed. The worker process
 * makes them, the runner collects them, the reports print them.
 */
#ifndef TESSERA_CHECK_RESULTS_H
#define TESSERA_CHECK_RESULTS_H

#include <cstdint>
#include <string>
#include <vector>

namespace check {

enum class Verdict { kPassed, kFailed, kSkipped };

/* Returns "passed", "failed" or "skipped" (static text). */
const char* VerdictName(Verdict verdict);

/* One comparison of what the keystore did with what it should do. The
 * values are printable text; for a passed check they stay empty, so that
 * no key or phrase travels further than needed. */
struct CheckRecord {
  std::string name;      // what was compared, e.g. "address at m/44'/60'/0'/0/3"
  bool passed = false;
  std::string expected;  // failed checks: the value wanted ("" when there is none to show)
  std::string actual;    // failed checks: the value found
  std::string detail;    // failed checks: a sentence, e.g. the TEE's result by name
  uint64_t at_us = 0;    // when it was made, in microseconds from the start of its case run
};

/* One call of a poc_* function, timed around the call alone. */
struct CallRecord {
  std::string function;     // "poc_getAddress"
  uint64_t duration_us = 0;
  int32_t rc = 0;           // what the function returned
  uint32_t tee_result = 0;  // the TEE's result and origin of the last TEE Client API
  uint32_t tee_origin = 0;  //   call the connection made (0, 0 when it made none yet)
};

/* One run of one case. */
struct CaseRun {
  unsigned run = 1;  // 1 .. --repeat
  Verdict verdict = Verdict::kFailed;
  std::string reason;  // failed: the first failure; skipped: why; passed: ""
  uint64_t duration_us = 0;
  std::vector<CheckRecord> checks;
  std::vector<CallRecord> calls;
};

/* A case with all its runs and the verdict over them: failed when a run
 * failed, skipped when it was not run, else passed. */
struct CaseOutcome {
  int id = 0;
  std::string name;
  std::string area;
  Verdict verdict = Verdict::kFailed;
  std::string reason;  // the first failed run's reason ("run 2 of 5: ..." when repeated)
  std::vector<CaseRun> runs;
};

/* Counts over a list of outcomes. */
struct Tally {
  unsigned passed = 0;
  unsigned failed = 0;
  unsigned skipped = 0;
};
[[nodiscard]] Tally Count(const std::vector<CaseOutcome>& outcomes);

}  // namespace check

#endif  // TESSERA_CHECK_RESULTS_H
