/*
 * Summaries of call durations, as a benchmark report gives them: per
 * keystore function the number of calls, the minimum, median, 90th
 * percentile and maximum, in microseconds.
 */
#ifndef TESSERA_CHECK_STATISTICS_H
#define TESSERA_CHECK_STATISTICS_H

#include <cstdint>
#include <string>
#include <vector>

#include "cases/Results.h"

namespace check {

struct Summary {
  std::size_t count = 0;
  uint64_t min = 0;
  uint64_t median = 0;  // the middle sample; for an even count the mean of the two middle ones (rounded down)
  uint64_t p90 = 0;     // nearest rank: the smallest sample not below 90 % of all samples
  uint64_t max = 0;
};

/* Returns the summary of `samples` (any order); all zero for none. */
[[nodiscard]] Summary Summarize(std::vector<uint64_t> samples);

struct FunctionSummary {
  std::string function;
  Summary summary;
};

/* Returns one summary per poc_* function called in any run of any case or
 * in `more` (calls made outside the cases), ordered by function name. */
[[nodiscard]] std::vector<FunctionSummary> SummarizeCalls(const std::vector<CaseOutcome>& outcomes,
                                                          const std::vector<CallRecord>& more = {});

/* Returns the sum of the durations of every call in every run and in `more`. */
[[nodiscard]] uint64_t TotalCallMicroseconds(const std::vector<CaseOutcome>& outcomes,
                                             const std::vector<CallRecord>& more = {});

}  // namespace check

#endif  // TESSERA_CHECK_STATISTICS_H
