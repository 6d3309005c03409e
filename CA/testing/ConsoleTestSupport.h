// The console's test support: reset of the program's state and standard I/O on
// strings.
#ifndef TESSERA_CONSOLE_CONSOLETESTSUPPORT_H
#define TESSERA_CONSOLE_CONSOLETESTSUPPORT_H

// Shared by the console's unit tests and benchmarks: put the program's
// process-wide state (test data indices, the time tracker) back to its start
// values, and run code with standard input and output on strings.

#include "TestData.h"
#include "TimeTracker.h"

#include <iostream>
#include <sstream>
#include <string>

namespace test {
namespace testing {

// The state a fresh program starts in: data set, account and PIN 0, timing
// off and nothing measured. Test doubles keep their own reset.
inline void resetConsoleState() {
  testData = TestData();
  TimeTracker& tracker = TimeTracker::getInstance();
  tracker.reset();
  tracker.setMode(0);
}

// Redirects std::cin and std::cout for its lifetime.
class StdioCapture {
 public:
  explicit StdioCapture(const std::string& input = std::string())
      : in_(input), oldIn_(std::cin.rdbuf(in_.rdbuf())), oldOut_(std::cout.rdbuf(out_.rdbuf())) {}
  ~StdioCapture() {
    std::cin.rdbuf(oldIn_);
    std::cout.rdbuf(oldOut_);
    std::cin.clear();
  }
  StdioCapture(const StdioCapture&) = delete;
  StdioCapture& operator=(const StdioCapture&) = delete;

  // Everything written since the last take().
  std::string take() {
    std::string text = out_.str();
    out_.str(std::string());
    return text;
  }

 private:
  std::istringstream in_;
  std::ostringstream out_;
  std::streambuf* oldIn_;
  std::streambuf* oldOut_;
};

}  // namespace testing
}  // namespace test

#endif  // TESSERA_CONSOLE_CONSOLETESTSUPPORT_H
