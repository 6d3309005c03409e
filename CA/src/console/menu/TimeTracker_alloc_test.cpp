// The timing brackets run inside the interval they measure, so they must not
// allocate. This program counts every allocation made through operator new
// (its own binary, so the counting replacement touches no other test).
#include "TimeTracker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<long> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) {
    return p;
  }
  throw std::bad_alloc();
}

void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

TEST(TimeTrackerAllocations, StartAndStopAllocateNothing) {
  test::TimeTracker& tracker = test::TimeTracker::getInstance();
  tracker.setMode(1);
  tracker.reset();
  // The counter is live: an allocation right here is seen.
  const long before = allocations.load();
  // A direct call: unlike a new-expression it may not be optimised away.
  ::operator delete(::operator new(16));
  ASSERT_EQ(allocations.load(), before + 1);

  const long start = allocations.load();
  for (int i = 0; i < 1000; ++i) {
    tracker.startMeasuring();
    tracker.stopMeasuring();
  }
  tracker.reset();
  EXPECT_EQ(allocations.load(), start);
  EXPECT_FALSE(tracker.isMeasured());
}

}  // namespace
