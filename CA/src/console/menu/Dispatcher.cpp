// The command dispatcher: what each menu command does to the settings, the menu
// and the scenarios.
#include "Dispatcher.h"

#include "ApiScenario.h"
#include "SpecialTransactionScenario.h"
#include "TestData.h"
#include "TimeTracker.h"

namespace test {

namespace {

int verdict(bool passed) { return passed ? kCommandSuccess : kCommandFailure; }

}  // namespace

int runCommand(const std::string& command, int option) {
  TimeTracker& tracker = TimeTracker::getInstance();
  tracker.reset();

  // A negative option becomes a huge unsigned value, which the setters reject.
  const unsigned int index = static_cast<unsigned int>(option);
  if (command == "launch_api_interface") {
    return verdict(launchApiInterface(option));
  }
  if (command == "special_transaction_test") {
    return verdict(specialTransactionTest(option));
  }
  if (command == "set_data_index") {
    testData.setDataIndex(index);
    return kCommandSuccess;
  }
  if (command == "set_account_index") {
    testData.setAccountIndex(index);
    return kCommandSuccess;
  }
  if (command == "set_pin_data") {
    testData.setPinIndex(index);
    return kCommandSuccess;
  }
  if (command == "set_time_measurement") {
    tracker.setMode(option);
    return kCommandSuccess;
  }
  if (command == "exit") {
    return kCommandLeave;
  }
  if (command == "entry") {
    return kCommandEnter;
  }
  return kCommandUnknown;
}

bool setDataIndex(int index) {
  testData.setDataIndex(static_cast<unsigned int>(index));
  return true;
}

bool setAccountIndex(int index) {
  testData.setAccountIndex(static_cast<unsigned int>(index));
  return true;
}

bool setPinIndex(int index) {
  testData.setPinIndex(static_cast<unsigned int>(index));
  return true;
}

}  // namespace test
