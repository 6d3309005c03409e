// A malloc seam for unit tests (-Wl,--wrap=malloc).
#include "MallocHook.h"

#include <atomic>

extern "C" void* __real_malloc(std::size_t size);

namespace malloc_hook {
namespace {

// Plain atomics and a fixed array: nothing here may allocate.
std::atomic<bool> armed{false};
std::atomic<std::size_t> fail_size{0};
std::atomic<bool> recording{false};
constexpr std::size_t kMaxRecorded = 64;
std::size_t recorded[kMaxRecorded];
std::atomic<std::size_t> recorded_count{0};

}  // namespace

void FailNextOfSize(std::size_t size) {
  fail_size = size;
  armed = true;
}

void Disarm() { armed = false; }

void StartRecording() {
  recorded_count = 0;
  recording = true;
}

std::vector<std::size_t> StopRecording() {
  recording = false;
  const std::size_t n = recorded_count < kMaxRecorded ? recorded_count.load() : kMaxRecorded;
  return std::vector<std::size_t>(recorded, recorded + n);
}

}  // namespace malloc_hook

extern "C" void* __wrap_malloc(std::size_t size) {
  using namespace malloc_hook;
  if (recording) {
    const std::size_t i = recorded_count++;
    if (i < kMaxRecorded) recorded[i] = size;
  }
  bool expected = true;
  if (size == fail_size && armed.compare_exchange_strong(expected, false)) return nullptr;
  return __real_malloc(size);
}
