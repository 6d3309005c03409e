// Scripted doubles of the two keystore scenarios, linked into menu tests
// instead of the real ones.
#ifndef TESSERA_CONSOLE_SCENARIODOUBLES_H
#define TESSERA_CONSOLE_SCENARIODOUBLES_H

// Test doubles of the two keystore scenarios, linked into the console's unit
// tests in place of ApiScenario.cpp and SpecialTransactionScenario.cpp (a static
// library member is only pulled in for symbols nothing else defines). They
// record each call and behave as the test scripts them, so the menu and the
// dispatcher can be driven through success, failure, timing and exceptions.

#include <chrono>
#include <string>
#include <vector>

#include "ConsoleTestSupport.h"

namespace test {
namespace doubles {

struct Behaviour {
  bool result = true;                        // what the scenario returns
  std::chrono::nanoseconds measured{-1};     // when >= 0: one timed interval of this length
  bool throws = false;                       // throw std::runtime_error instead of returning
};

struct Call {
  std::string scenario;          // "launchApiInterface" or "specialTransactionTest"
  int option = 0;                // the argument it got
  unsigned long elapsedAtCall = 0;  // the tracker's elapsed time when it was called
  bool measuredAtCall = false;      // the tracker's isMeasured() when it was called
};

void setApiBehaviour(const Behaviour& behaviour);
void setSpecialBehaviour(const Behaviour& behaviour);
const std::vector<Call>& calls();
// Forget recorded calls and go back to the default behaviour (return true).
void resetScenarios();

// A fresh program with fresh scenario doubles: what every menu test starts
// from and leaves behind.
inline void resetConsoleAndScenarios() {
  testing::resetConsoleState();
  resetScenarios();
}

}  // namespace doubles
}  // namespace test

#endif  // TESSERA_CONSOLE_SCENARIODOUBLES_H
