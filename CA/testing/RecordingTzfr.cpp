// A recording stand-in for the CTzfrWsm serializer.
#include "RecordingTzfr.h"

#include <set>

#include "CTzfrWsm.h"

namespace recording_tzfr {
namespace {

struct State {
  std::vector<Put> puts;
  std::set<std::size_t> failing;
};

State& S() {
  static State state;
  return state;
}

bool Record(const char* kind, unsigned value) {
  const std::size_t index = S().puts.size();
  S().puts.push_back({kind, value});
  return S().failing.count(index) == 0;
}

}  // namespace

void Reset() { S() = State{}; }
void FailPut(std::size_t index) { S().failing.insert(index); }
const std::vector<Put>& Puts() { return S().puts; }

}  // namespace recording_tzfr

CTzfrWsm::CTzfrWsm(void* buffer, std::size_t)
    : buf_(static_cast<unsigned char*>(buffer)),
      cap_(0),
      cursor_(0),
      end_(0),
      state_(State::kWriting),
      started_(false) {}

bool CTzfrWsm::PutUint(unsigned value) { return recording_tzfr::Record("uint", value); }

bool CTzfrWsm::PutBlob(const void*, unsigned len) { return recording_tzfr::Record("blob", len); }

bool CTzfrWsm::PrepareReset(int) { return false; }
bool CTzfrWsm::GetUint(unsigned*) { return false; }
const void* CTzfrWsm::GetBlob(unsigned) { return nullptr; }
bool CTzfrWsm::AtEnd() const { return false; }
std::size_t CTzfrWsm::MessageSize() const { return 0; }
