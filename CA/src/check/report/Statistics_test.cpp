// Minimum, median, 90th percentile and maximum, and their grouping by call.
#include "report/Statistics.h"

#include <gtest/gtest.h>

namespace check {
namespace {

TEST(Statistics, SummaryOfNothingIsZero) {
  const Summary s = Summarize({});
  EXPECT_EQ(s.count, 0u);
  EXPECT_EQ(s.min, 0u);
  EXPECT_EQ(s.max, 0u);
}

TEST(Statistics, OneSampleIsEveryFigure) {
  const Summary s = Summarize({42});
  EXPECT_EQ(s.count, 1u);
  EXPECT_EQ(s.min, 42u);
  EXPECT_EQ(s.median, 42u);
  EXPECT_EQ(s.p90, 42u);
  EXPECT_EQ(s.max, 42u);
}

TEST(Statistics, OddAndEvenCountsInAnyOrder) {
  const Summary odd = Summarize({5, 1, 4, 2, 3});
  EXPECT_EQ(odd.min, 1u);
  EXPECT_EQ(odd.median, 3u);
  EXPECT_EQ(odd.p90, 5u);  // rank ceil(4.5) = 5
  EXPECT_EQ(odd.max, 5u);
  const Summary even = Summarize({10, 40, 20, 30});
  EXPECT_EQ(even.median, 25u);
  EXPECT_EQ(even.p90, 40u);  // rank ceil(3.6) = 4
}

TEST(Statistics, NinetiethPercentileIsTheNearestRank) {
  std::vector<uint64_t> samples;
  for (uint64_t i = 1; i <= 10; ++i) samples.push_back(i * 100);
  EXPECT_EQ(Summarize(samples).p90, 900u);
  samples.push_back(1100);  // 11 samples: rank ceil(9.9) = 10
  EXPECT_EQ(Summarize(samples).p90, 1000u);
  std::vector<uint64_t> hundred;
  for (uint64_t i = 1; i <= 100; ++i) hundred.push_back(i);
  EXPECT_EQ(Summarize(hundred).p90, 90u);
  EXPECT_EQ(Summarize(hundred).median, 50u);  // (50 + 51) / 2 rounded down
}

TEST(Statistics, CallsAreGroupedByFunctionOverEveryRun) {
  CaseOutcome a;
  CaseRun r1;
  r1.calls = {{"poc_b", 10, 0, 0, 0}, {"poc_a", 5, 0, 0, 0}};
  CaseRun r2;
  r2.calls = {{"poc_b", 30, 0, 0, 0}};
  a.runs = {r1, r2};
  CaseOutcome b;
  CaseRun r3;
  r3.calls = {{"poc_b", 20, -99, 0xFFFF0008u, 4}};
  b.runs = {r3};
  const std::vector<FunctionSummary> s = SummarizeCalls({a, b});
  ASSERT_EQ(s.size(), 2u);
  EXPECT_EQ(s[0].function, "poc_a");
  EXPECT_EQ(s[0].summary.count, 1u);
  EXPECT_EQ(s[1].function, "poc_b");
  EXPECT_EQ(s[1].summary.count, 3u);
  EXPECT_EQ(s[1].summary.median, 20u);
  EXPECT_EQ(s[1].summary.max, 30u);
  EXPECT_EQ(TotalCallMicroseconds({a, b}), 65u);
  const std::vector<CallRecord> more = {{"poc_a", 7, 0, 0, 0}};
  EXPECT_EQ(TotalCallMicroseconds({a, b}, more), 72u);
  EXPECT_EQ(SummarizeCalls({a, b}, more)[0].summary.count, 2u);
}

}  // namespace
}  // namespace check
