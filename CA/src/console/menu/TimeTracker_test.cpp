// Tests of the time tracker: brackets, modes, resets and the elapsed-time line.
#include "TimeTracker.h"

#include "ConsoleTestSupport.h"
#include "ScenarioDoubles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using test::TimeTracker;
using namespace std::chrono_literals;

// Read while the program starts, before any test touches the tracker: this is
// its first use, so it shows the state the instance is created with.
const int kModeAtFirstUse = TimeTracker::getInstance().getMode();
const unsigned long kElapsedAtFirstUse = TimeTracker::getInstance().getElapsedTime();
const bool kMeasuredAtFirstUse = TimeTracker::getInstance().isMeasured();

const TimeTracker::Clock::time_point t0{};

class TimeTrackerTest : public ::testing::Test {
 protected:
  void SetUp() override { test::doubles::resetConsoleAndScenarios(); }
  void TearDown() override { test::doubles::resetConsoleAndScenarios(); }
  TimeTracker& tracker = TimeTracker::getInstance();
};

TEST_F(TimeTrackerTest, StartsOffIdleAndEmpty) {
  EXPECT_EQ(kModeAtFirstUse, 0);
  EXPECT_EQ(kElapsedAtFirstUse, 0u);
  EXPECT_FALSE(kMeasuredAtFirstUse);
}

TEST_F(TimeTrackerTest, OneInstance) { EXPECT_EQ(&TimeTracker::getInstance(), &tracker); }

TEST_F(TimeTrackerTest, ModeZeroIgnoresStartAndStop) {
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 50ms);
  EXPECT_EQ(tracker.getElapsedTime(), 0u);
  EXPECT_FALSE(tracker.isMeasured());
  // Switching on afterwards does not revive the ignored start.
  tracker.setMode(1);
  tracker.stopMeasuringAt(t0 + 60ms);
  EXPECT_EQ(tracker.getElapsedTime(), 0u);
  EXPECT_FALSE(tracker.isMeasured());
}

TEST_F(TimeTrackerTest, MeasuresWholeMilliseconds) {
  tracker.setMode(1);
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 1234567891ns);
  EXPECT_EQ(tracker.getElapsedTime(), 1234u);
  EXPECT_TRUE(tracker.isMeasured());
}

TEST_F(TimeTrackerTest, IntervalBelowOneMillisecondAddsNothing) {
  tracker.setMode(1);
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 999999ns);
  EXPECT_EQ(tracker.getElapsedTime(), 0u);
  // Still a measurement: it is printed as 0 ms.
  EXPECT_TRUE(tracker.isMeasured());
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 1000000ns);
  EXPECT_EQ(tracker.getElapsedTime(), 1u);
}

TEST_F(TimeTrackerTest, IntervalsAddUpUntilReset) {
  tracker.setMode(1);
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 5ms);
  tracker.startMeasuringAt(t0 + 100ms);
  tracker.stopMeasuringAt(t0 + 107ms + 999us);
  EXPECT_EQ(tracker.getElapsedTime(), 12u);
  tracker.reset();
  EXPECT_EQ(tracker.getElapsedTime(), 0u);
  EXPECT_FALSE(tracker.isMeasured());
}

TEST_F(TimeTrackerTest, StopWithoutStartChangesNothing) {
  tracker.setMode(1);
  tracker.stopMeasuringAt(t0 + 10ms);
  EXPECT_EQ(tracker.getElapsedTime(), 0u);
  EXPECT_FALSE(tracker.isMeasured());
  // A second stop after a completed interval is ignored as well.
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 3ms);
  tracker.stopMeasuringAt(t0 + 40ms);
  EXPECT_EQ(tracker.getElapsedTime(), 3u);
}

TEST_F(TimeTrackerTest, StartWhileRunningKeepsTheEarlierStart) {
  tracker.setMode(1);
  tracker.startMeasuringAt(t0);
  tracker.startMeasuringAt(t0 + 20ms);
  tracker.stopMeasuringAt(t0 + 30ms);
  EXPECT_EQ(tracker.getElapsedTime(), 30u);
}

TEST_F(TimeTrackerTest, ModeTwoMeasuresButIsNeverPrinted) {
  tracker.setMode(2);
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 42ms);
  EXPECT_EQ(tracker.getElapsedTime(), 42u);
  EXPECT_FALSE(tracker.isMeasured());
  test::testing::StdioCapture io;
  test::printElapsedTime();
  EXPECT_EQ(io.take(), "");
}

TEST_F(TimeTrackerTest, AnyNonZeroModeMeasures) {
  tracker.setMode(-7);
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 8ms);
  EXPECT_EQ(tracker.getElapsedTime(), 8u);
  EXPECT_FALSE(tracker.isMeasured());
}

TEST_F(TimeTrackerTest, ResetKeepsTheMode) {
  EXPECT_TRUE(tracker.setMode(1));
  tracker.startMeasuringAt(t0);
  tracker.reset();
  EXPECT_EQ(tracker.getMode(), 1);
  // The running interval was forgotten: a stop now has nothing to end.
  tracker.stopMeasuringAt(t0 + 9ms);
  EXPECT_EQ(tracker.getElapsedTime(), 0u);
  EXPECT_FALSE(tracker.isMeasured());
}

TEST_F(TimeTrackerTest, PrintsTheTimeBetweenEmptyLines) {
  tracker.setMode(1);
  tracker.startMeasuringAt(t0);
  tracker.stopMeasuringAt(t0 + 1234ms);
  test::testing::StdioCapture io;
  test::printElapsedTime();
  EXPECT_EQ(io.take(), "\n ! Elapsed time: 1234 ms.\n\n");
}

TEST_F(TimeTrackerTest, PrintsNothingWithoutAMeasurement) {
  tracker.setMode(1);
  test::testing::StdioCapture io;
  test::printElapsedTime();
  tracker.startMeasuringAt(t0);  // running, not stopped
  test::printElapsedTime();
  EXPECT_EQ(io.take(), "");
}

TEST_F(TimeTrackerTest, UsesTheSteadyClock) {
  tracker.setMode(1);
  tracker.startMeasuring();
  std::this_thread::sleep_for(25ms);
  tracker.stopMeasuring();
  EXPECT_GE(tracker.getElapsedTime(), 25u);
  EXPECT_TRUE(tracker.isMeasured());
}

}  // namespace
