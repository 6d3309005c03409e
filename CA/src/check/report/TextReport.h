/*
 * What tessera-check prints on standard output: the first line saying what
 * the run leaves in the wallet, one line per case as it finishes, the
 * per-call timing table of --repeat, and the closing line
 * "N passed, N failed, N skipped". Colour only when asked (the program
 * asks when its output is a terminal).
 */
#ifndef TESSERA_CHECK_TEXTREPORT_H
#define TESSERA_CHECK_TEXTREPORT_H

#include <cstdio>
#include <string>
#include <vector>

#include "cases/Results.h"
#include "report/Statistics.h"
#include "run/Runner.h"

namespace check {

/* Returns the first line (without newline): the program and version, and
 * which wallet state the run leaves behind. */
[[nodiscard]] std::string WalletLine(const RunSettings& settings, const std::string& version);

/* Returns a case's line (without newline):
 *   "<id> <name> ... ok" / "... FAILED: <reason>" / "... skipped: <reason>",
 * the verdict word coloured when `colour`. */
[[nodiscard]] std::string CaseLine(const CaseOutcome& outcome, bool colour);

/* Returns the timing table: a heading and one line per function with the
 * number of calls and min, median, p90 and max in microseconds. */
[[nodiscard]] std::string CallTable(const std::vector<FunctionSummary>& calls);

/* Returns "N passed, N failed, N skipped" (without newline). */
[[nodiscard]] std::string ClosingLine(const Tally& tally);

/* Prints case lines as they come, flushing each (borrowed stream). */
class TextReport : public Progress {
 public:
  TextReport(std::FILE* out, bool colour) : out_(out), colour_(colour) {}
  void Finished(const CaseOutcome& outcome) override;
  /* Prints one line (a newline is added) and flushes. */
  void Line(const std::string& text);

 private:
  std::FILE* out_;
  bool colour_;
};

}  // namespace check

#endif  // TESSERA_CHECK_TEXTREPORT_H
