// Minimum, median, 90th percentile and maximum of call durations.
#include "report/Statistics.h"

#include <algorithm>
#include <map>

namespace check {

Summary Summarize(std::vector<uint64_t> samples) {
  Summary s;
  if (samples.empty()) return s;
  std::sort(samples.begin(), samples.end());
  const std::size_t n = samples.size();
  s.count = n;
  s.min = samples.front();
  s.max = samples.back();
  s.median = n % 2 == 1 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
  const std::size_t rank = (9 * n + 9) / 10;  // ceil(0.9 n), at least 1
  s.p90 = samples[rank - 1];
  return s;
}

std::vector<FunctionSummary> SummarizeCalls(const std::vector<CaseOutcome>& outcomes,
                                            const std::vector<CallRecord>& more) {
  std::map<std::string, std::vector<uint64_t>> by_function;
  for (const CallRecord& call : more) by_function[call.function].push_back(call.duration_us);
  for (const CaseOutcome& o : outcomes) {
    for (const CaseRun& run : o.runs) {
      for (const CallRecord& call : run.calls) by_function[call.function].push_back(call.duration_us);
    }
  }
  std::vector<FunctionSummary> out;
  for (auto& entry : by_function) out.push_back({entry.first, Summarize(std::move(entry.second))});
  return out;
}

uint64_t TotalCallMicroseconds(const std::vector<CaseOutcome>& outcomes,
                               const std::vector<CallRecord>& more) {
  uint64_t total = 0;
  for (const CallRecord& call : more) total += call.duration_us;
  for (const CaseOutcome& o : outcomes) {
    for (const CaseRun& run : o.runs) {
      for (const CallRecord& call : run.calls) total += call.duration_us;
    }
  }
  return total;
}

}  // namespace check
