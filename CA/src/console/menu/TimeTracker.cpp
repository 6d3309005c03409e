// The time tracker: steady-clock brackets around keystore calls, in whole
// milliseconds.
#include "TimeTracker.h"

#include <iostream>

namespace test {

namespace {

enum State : int32_t { kIdle = 0, kRunning = 1, kStopped = 2 };

// One start time for the whole program; only the running interval needs it.
TimeTracker::Clock::time_point startTime;

}  // namespace

TimeTracker& TimeTracker::getInstance() {
  static TimeTracker instance;
  return instance;
}

void TimeTracker::reset() {
  state = kIdle;
  elapsedMs = 0;
}

bool TimeTracker::setMode(int newMode) {
  mode = newMode;
  return true;
}

bool TimeTracker::isMeasured() const { return mode == 1 && state == kStopped; }

void TimeTracker::startMeasuring() { startMeasuringAt(Clock::now()); }

void TimeTracker::stopMeasuring() { stopMeasuringAt(Clock::now()); }

void TimeTracker::startMeasuringAt(Clock::time_point now) {
  if (mode == 0 || state == kRunning) {
    return;
  }
  state = kRunning;
  startTime = now;
}

void TimeTracker::stopMeasuringAt(Clock::time_point now) {
  if (mode == 0 || state != kRunning) {
    return;
  }
  state = kStopped;
  const int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now - startTime).count();
  // Integer division truncates toward zero: 999999 ns add nothing.
  elapsedMs += static_cast<unsigned long>(ns / 1000000);
}

void printElapsedTime() {
  const TimeTracker& tracker = TimeTracker::getInstance();
  if (!tracker.isMeasured()) {
    return;
  }
  std::cout << std::endl
            << " ! Elapsed time: " << tracker.getElapsedTime() << " ms." << std::endl
            << std::endl;
}

}  // namespace test
