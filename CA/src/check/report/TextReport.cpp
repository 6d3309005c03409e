// The lines of standard output.
#include "report/TextReport.h"

#include <cstdio>

#include "cases/KeystoreCalls.h"

namespace check {

std::string WalletLine(const RunSettings& settings, const std::string& version) {
  const std::string wallet = "the wallet (selector " + std::to_string(keystore::kSelectorHi) + "/" +
                             std::to_string(keystore::kSelectorLo) + ")";
  const std::string head = "tessera-check " + version + ": ";
  if (LeavesWallet(settings)) {
    return head + "runs destructive cases (--allow-wipe); " + wallet + " is left holding " +
           (settings.ownSeed != nullptr ? "the seed given with --seed" : "data set 0's seed") +
           ", without a PIN";
  }
  bool would_change = false;
  for (const CaseInfo* info : settings.cases) would_change = would_change || info->destructive;
  if (would_change && !settings.allowWipe) {
    return head + wallet + " is left as it is: the cases that would change it are skipped " +
           "(--allow-wipe runs them)";
  }
  return head + wallet + " is left as it is: no chosen case changes it";
}

std::string CaseLine(const CaseOutcome& outcome, bool colour) {
  const char* word = "FAILED";
  const char* paint = "\033[1;31m";
  if (outcome.verdict == Verdict::kPassed) {
    word = "ok";
    paint = "\033[32m";
  } else if (outcome.verdict == Verdict::kSkipped) {
    word = "skipped";
    paint = "\033[33m";
  }
  std::string line = std::to_string(outcome.id) + " " + outcome.name + " ... ";
  line += colour ? std::string(paint) + word + "\033[0m" : std::string(word);
  if (outcome.verdict != Verdict::kPassed) line += ": " + outcome.reason;
  return line;
}

std::string CallTable(const std::vector<FunctionSummary>& calls) {
  std::string table;
  char line[160];
  std::snprintf(line, sizeof line, "%-24s %7s %9s %9s %9s %9s  (microseconds)\n", "keystore call",
                "calls", "min", "median", "p90", "max");
  table += line;
  for (const FunctionSummary& f : calls) {
    const Summary& s = f.summary;
    std::snprintf(line, sizeof line, "%-24s %7zu %9llu %9llu %9llu %9llu\n", f.function.c_str(),
                  s.count, static_cast<unsigned long long>(s.min),
                  static_cast<unsigned long long>(s.median), static_cast<unsigned long long>(s.p90),
                  static_cast<unsigned long long>(s.max));
    table += line;
  }
  return table;
}

std::string ClosingLine(const Tally& tally) {
  return std::to_string(tally.passed) + " passed, " + std::to_string(tally.failed) + " failed, " +
         std::to_string(tally.skipped) + " skipped";
}

void TextReport::Finished(const CaseOutcome& outcome) { Line(CaseLine(outcome, colour_)); }

void TextReport::Line(const std::string& text) {
  std::fputs(text.c_str(), out_);
  std::fputc('\n', out_);
  std::fflush(out_);
}

}  // namespace check
