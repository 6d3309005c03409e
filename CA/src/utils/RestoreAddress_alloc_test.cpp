// Every OpenSSL allocation that RestoreAddress makes, failed in turn: each
// time the call must still return an address (the right one or the
// all-zero-key one, never anything else) and give back every block that
// OpenSSL took for it. This reaches the failure exits that valid and invalid
// inputs alone never take.
//
// OpenSSL's allocator is replaced by a counting one before anything else in
// the process touches OpenSSL; that is why this is a program of its own.

#include "RestoreAddress.h"

#include "RecoverVectors.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Single-threaded test: plain counters are enough.
long live_blocks = 0;        // blocks OpenSSL holds now
long allocations = 0;        // allocations since the last reset
long fail_allocation = -1;   // index of the allocation to fail, -1 for none

bool fail_this_one() {
  return allocations++ == fail_allocation;
}

void* counting_malloc(std::size_t size, const char*, int) {
  if (fail_this_one()) {
    return nullptr;
  }
  void* p = std::malloc(size);
  live_blocks += p != nullptr;
  return p;
}

void counting_free(void* p, const char*, int) {
  if (p != nullptr) {
    --live_blocks;
    std::free(p);
  }
}

void* counting_realloc(void* p, std::size_t size, const char* file, int line) {
  if (p == nullptr) {
    return counting_malloc(size, file, line);
  }
  if (size == 0) {
    counting_free(p, file, line);
    return nullptr;
  }
  if (fail_this_one()) {
    return nullptr;
  }
  return std::realloc(p, size);
}

// Before main, so before the first OpenSSL allocation of the process.
const bool allocator_installed =
    CRYPTO_set_mem_functions(counting_malloc, counting_realloc, counting_free) == 1;

using recover_vectors::kZeroKeyAddress;
using recover_vectors::to_hex;
using Case = recover_vectors::Vector;

// The first vector of each kind named: a success, and a stop at each step
// where the recovery can end early.
std::vector<Case> cases() {
  std::vector<std::string> wanted = {"sig",    "r-ge-p", "r-not-x",   "r-zero",
                                     "s-zero", "q-infinity", "v-above-1"};
  std::vector<Case> out;
  for (const Case& c : recover_vectors::load()) {
    for (auto it = wanted.begin(); it != wanted.end(); ++it) {
      if (*it == c.kind) {
        out.push_back(c);
        wanted.erase(it);
        break;
      }
    }
  }
  EXPECT_TRUE(wanted.empty()) << "missing kinds, first: " << wanted.front();
  return out;
}

std::string recover(const Case& c) {
  return test::tools::RestoreAddress(c.digest, c.r, c.s, static_cast<unsigned char>(c.v));
}

TEST(RestoreAddressAllocation, EveryFailedAllocationIsCleanedUp) {
  ASSERT_TRUE(allocator_installed) << "OpenSSL allocated before the counting allocator was set";

  for (const Case& c : cases()) {
    // The first call builds what is kept for the whole run (the group,
    // OpenSSL's tables, this thread's error state).
    ASSERT_EQ(to_hex(recover(c)), c.address) << c.kind;
    const long baseline = live_blocks;

    allocations = 0;
    ASSERT_EQ(to_hex(recover(c)), c.address) << c.kind;
    const long per_call = allocations;
    EXPECT_EQ(live_blocks, baseline) << c.kind << ": a plain call kept memory";
    ASSERT_GT(per_call, 0) << c.kind << ": OpenSSL allocated nothing, the counter is not in use";

    long failed_calls = 0;
    for (long k = 0; k < per_call; ++k) {
      allocations = 0;
      fail_allocation = k;
      const std::string address = recover(c);
      fail_allocation = -1;

      ASSERT_EQ(address.size(), 20u);
      const std::string hex = to_hex(address);
      EXPECT_TRUE(hex == c.address || hex == kZeroKeyAddress)
          << c.kind << ", allocation " << k << " failed: " << hex;
      failed_calls += hex != c.address;
      EXPECT_EQ(live_blocks, baseline) << c.kind << ", allocation " << k << " failed";
    }
    if (c.address != kZeroKeyAddress) {
      EXPECT_GT(failed_calls, 0) << c.kind << ": no failed allocation changed the outcome";
    }
    EXPECT_EQ(ERR_peek_error(), 0u) << c.kind << ": an error was left queued";
  }
}

}  // namespace
