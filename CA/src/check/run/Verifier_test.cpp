// Jobs run in order, one at a time, and Drain waits for them.
#include "run/Verifier.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace check {
namespace {

TEST(Verifier, JobsRunInTheOrderTheyCameAndDrainWaitsForAllOfThem) {
  std::vector<int> order;  // written by the verifier's thread only
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  Verifier verifier;
  for (int i = 0; i < 50; ++i) {
    verifier.Submit([i, &order, &running, &overlapped] {
      if (++running > 1) overlapped = true;
      if (i % 10 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      order.push_back(i);
      --running;
    });
  }
  verifier.Drain();
  ASSERT_EQ(order.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  EXPECT_FALSE(overlapped.load());
  verifier.Drain();  // nothing left: returns at once
}

TEST(Verifier, WhatIsSubmittedBeforeDestructionStillRuns) {
  std::atomic<int> ran{0};
  {
    Verifier verifier;
    for (int i = 0; i < 5; ++i) verifier.Submit([&ran] { ++ran; });
  }
  EXPECT_EQ(ran.load(), 5);
}

}  // namespace
}  // namespace check
