// Tests of the dispatcher on scripted scenarios: every command, its result and
// its timing lines.
#include "Dispatcher.h"

#include "ConsoleTestSupport.h"
#include "ScenarioDoubles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

namespace {

using test::runCommand;
using test::testData;
using test::TimeTracker;
using test::doubles::Behaviour;
using test::doubles::calls;
using namespace std::chrono_literals;

class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override { test::doubles::resetConsoleAndScenarios(); }
  void TearDown() override { test::doubles::resetConsoleAndScenarios(); }

  // Leaves the tracker holding a printable 17 ms measurement.
  static void measureSomething() {
    TimeTracker& tracker = TimeTracker::getInstance();
    tracker.setMode(1);
    tracker.startMeasuringAt(TimeTracker::Clock::time_point{});
    tracker.stopMeasuringAt(TimeTracker::Clock::time_point{} + 17ms);
    ASSERT_TRUE(tracker.isMeasured());
  }
};

TEST_F(DispatcherTest, ApiScenarioVerdictBecomesTheResult) {
  test::doubles::setApiBehaviour(Behaviour{true, -1ns, false});
  EXPECT_EQ(runCommand("launch_api_interface", 104), test::kCommandSuccess);
  test::doubles::setApiBehaviour(Behaviour{false, -1ns, false});
  EXPECT_EQ(runCommand("launch_api_interface", 105), test::kCommandFailure);
  ASSERT_EQ(calls().size(), 2u);
  EXPECT_EQ(calls()[0].scenario, "launchApiInterface");
  EXPECT_EQ(calls()[0].option, 104);
  EXPECT_EQ(calls()[1].option, 105);
}

TEST_F(DispatcherTest, SpecialScenarioVerdictBecomesTheResult) {
  EXPECT_EQ(runCommand("special_transaction_test", -3), test::kCommandSuccess);
  test::doubles::setSpecialBehaviour(Behaviour{false, -1ns, false});
  EXPECT_EQ(runCommand("special_transaction_test", 0), test::kCommandFailure);
  ASSERT_EQ(calls().size(), 2u);
  EXPECT_EQ(calls()[0].scenario, "specialTransactionTest");
  EXPECT_EQ(calls()[0].option, -3);
}

TEST_F(DispatcherTest, ResultCodesAreTheAgreedNumbers) {
  EXPECT_EQ(test::kCommandSuccess, 0);
  EXPECT_EQ(test::kCommandFailure, -1);
  EXPECT_EQ(test::kCommandLeave, 1);
  EXPECT_EQ(test::kCommandEnter, 2);
  EXPECT_EQ(test::kCommandUnknown, -2);
}

TEST_F(DispatcherTest, PinIndexFourIsIgnoredThreeIsTaken) {
  testData.setPinIndex(1);
  EXPECT_EQ(runCommand("set_pin_data", 4), 0);
  EXPECT_EQ(testData.getPinIndex(), 1u);
  EXPECT_EQ(runCommand("set_pin_data", 3), 0);
  EXPECT_EQ(testData.getPinIndex(), 3u);
}

TEST_F(DispatcherTest, DataIndexMinusOneChangesNothing) {
  testData.setDataIndex(2);
  // -1 is also what a missing "option" arrives as.
  EXPECT_EQ(runCommand("set_data_index", -1), 0);
  EXPECT_EQ(testData.getDataIndex(), 2u);
  EXPECT_EQ(runCommand("set_data_index", 5), 0);
  EXPECT_EQ(testData.getDataIndex(), 2u);
  EXPECT_EQ(runCommand("set_data_index", 4), 0);
  EXPECT_EQ(testData.getDataIndex(), 4u);
  EXPECT_EQ(runCommand("set_data_index", 0), 0);
  EXPECT_EQ(testData.getDataIndex(), 0u);
}

TEST_F(DispatcherTest, AccountIndexBounds) {
  EXPECT_EQ(runCommand("set_account_index", 4), 0);
  EXPECT_EQ(testData.getAccountIndex(), 4u);
  EXPECT_EQ(runCommand("set_account_index", 5), 0);
  EXPECT_EQ(runCommand("set_account_index", -2147483647 - 1), 0);
  EXPECT_EQ(testData.getAccountIndex(), 4u);
}

TEST_F(DispatcherTest, SettersTouchOnlyTheirOwnIndex) {
  EXPECT_EQ(runCommand("set_account_index", 3), 0);
  EXPECT_EQ(testData.getAccountIndex(), 3u);
  EXPECT_EQ(testData.getDataIndex(), 0u);
  EXPECT_EQ(testData.getPinIndex(), 0u);
  EXPECT_TRUE(calls().empty());
}

TEST_F(DispatcherTest, TimeMeasurementModeTwoMeasuresWithoutPrinting) {
  EXPECT_EQ(runCommand("set_time_measurement", 2), 0);
  TimeTracker& tracker = TimeTracker::getInstance();
  EXPECT_EQ(tracker.getMode(), 2);
  tracker.startMeasuringAt(TimeTracker::Clock::time_point{});
  tracker.stopMeasuringAt(TimeTracker::Clock::time_point{} + 5ms);
  EXPECT_EQ(tracker.getElapsedTime(), 5u);
  EXPECT_FALSE(tracker.isMeasured());
}

TEST_F(DispatcherTest, TimeMeasurementStoresAnyValue) {
  EXPECT_EQ(runCommand("set_time_measurement", 1), 0);
  EXPECT_EQ(TimeTracker::getInstance().getMode(), 1);
  EXPECT_EQ(runCommand("set_time_measurement", -1), 0);
  EXPECT_EQ(TimeTracker::getInstance().getMode(), -1);
  EXPECT_EQ(runCommand("set_time_measurement", 0), 0);
  EXPECT_EQ(TimeTracker::getInstance().getMode(), 0);
}

TEST_F(DispatcherTest, ExitAndEntry) {
  EXPECT_EQ(runCommand("exit", 0), test::kCommandLeave);
  EXPECT_EQ(runCommand("entry", -1), test::kCommandEnter);
}

TEST_F(DispatcherTest, NamesCompareExactlyAndCaseSensitively) {
  EXPECT_EQ(runCommand("Exit", 0), test::kCommandUnknown);
  EXPECT_EQ(runCommand("", 0), test::kCommandUnknown);
  EXPECT_EQ(runCommand("exit ", 0), test::kCommandUnknown);
  EXPECT_EQ(runCommand("ENTRY", 0), test::kCommandUnknown);
  EXPECT_EQ(runCommand("launch_api_interface\n", 100), test::kCommandUnknown);
  EXPECT_EQ(runCommand("set_data_index_", 1), test::kCommandUnknown);
  EXPECT_EQ(testData.getDataIndex(), 0u);
  EXPECT_TRUE(calls().empty());
}

TEST_F(DispatcherTest, TrackerIsResetEvenForExitEntryAndUnknown) {
  for (const char* command : {"exit", "entry", "Exit", "", "set_data_index"}) {
    measureSomething();
    (void)runCommand(command, 1);
    const TimeTracker& tracker = TimeTracker::getInstance();
    EXPECT_EQ(tracker.getElapsedTime(), 0u) << command;
    EXPECT_FALSE(tracker.isMeasured()) << command;
    EXPECT_EQ(tracker.getMode(), 1) << command;  // the mode is kept
  }
}

TEST_F(DispatcherTest, TrackerIsResetBeforeTheScenarioRuns) {
  measureSomething();
  (void)runCommand("launch_api_interface", 100);
  ASSERT_EQ(calls().size(), 1u);
  EXPECT_EQ(calls()[0].elapsedAtCall, 0u);
  EXPECT_FALSE(calls()[0].measuredAtCall);
}

TEST_F(DispatcherTest, ScenarioExceptionsAreNotCaught) {
  test::doubles::setApiBehaviour(Behaviour{true, -1ns, true});
  EXPECT_THROW((void)runCommand("launch_api_interface", 100), std::runtime_error);
  test::doubles::setSpecialBehaviour(Behaviour{true, -1ns, true});
  EXPECT_THROW((void)runCommand("special_transaction_test", 0), std::runtime_error);
}

TEST_F(DispatcherTest, FreeSettersAlwaysReportTrue) {
  EXPECT_TRUE(test::setDataIndex(4));
  EXPECT_EQ(testData.getDataIndex(), 4u);
  EXPECT_TRUE(test::setDataIndex(5));
  EXPECT_TRUE(test::setDataIndex(-1));
  EXPECT_EQ(testData.getDataIndex(), 4u);

  EXPECT_TRUE(test::setAccountIndex(2));
  EXPECT_EQ(testData.getAccountIndex(), 2u);
  EXPECT_TRUE(test::setAccountIndex(5));
  EXPECT_EQ(testData.getAccountIndex(), 2u);

  EXPECT_TRUE(test::setPinIndex(3));
  EXPECT_EQ(testData.getPinIndex(), 3u);
  EXPECT_TRUE(test::setPinIndex(4));
  EXPECT_TRUE(test::setPinIndex(-3));
  EXPECT_EQ(testData.getPinIndex(), 3u);
}

}  // namespace
