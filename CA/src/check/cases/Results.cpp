// Names of verdicts and the tally of a run.
#include "cases/Results.h"

namespace check {

const char* VerdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::kPassed: return "passed";
    case Verdict::kFailed: return "failed";
    case Verdict::kSkipped: return "skipped";
  }
  return "failed";
}

Tally Count(const std::vector<CaseOutcome>& outcomes) {
  Tally tally;
  for (const CaseOutcome& o : outcomes) {
    switch (o.verdict) {
      case Verdict::kPassed: ++tally.passed; break;
      case Verdict::kFailed: ++tally.failed; break;
      case Verdict::kSkipped: ++tally.skipped; break;
    }
  }
  return tally;
}

}  // namespace check
