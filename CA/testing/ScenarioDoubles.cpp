// Scripted doubles of the two keystore scenarios, for menu tests.
#include "ScenarioDoubles.h"

#include "ApiScenario.h"
#include "SpecialTransactionScenario.h"
#include "TimeTracker.h"

#include <stdexcept>

namespace test {
namespace doubles {

namespace {

Behaviour apiBehaviour;
Behaviour specialBehaviour;
std::vector<Call> recorded;

bool play(const char* scenario, const Behaviour& behaviour, int option) {
  TimeTracker& tracker = TimeTracker::getInstance();
  recorded.push_back(Call{scenario, option, tracker.getElapsedTime(), tracker.isMeasured()});
  if (behaviour.measured.count() >= 0) {
    const TimeTracker::Clock::time_point start{};
    tracker.startMeasuringAt(start);
    tracker.stopMeasuringAt(start + behaviour.measured);
  }
  if (behaviour.throws) {
    throw std::runtime_error("scripted scenario failure");
  }
  return behaviour.result;
}

}  // namespace

void setApiBehaviour(const Behaviour& behaviour) { apiBehaviour = behaviour; }
void setSpecialBehaviour(const Behaviour& behaviour) { specialBehaviour = behaviour; }
const std::vector<Call>& calls() { return recorded; }

void resetScenarios() {
  apiBehaviour = Behaviour{};
  specialBehaviour = Behaviour{};
  recorded.clear();
}

}  // namespace doubles

bool launchApiInterface(int selection) {
  return doubles::play("launchApiInterface", doubles::apiBehaviour, selection);
}

bool specialTransactionTest(int option) {
  return doubles::play("specialTransactionTest", doubles::specialBehaviour, option);
}

}  // namespace test
