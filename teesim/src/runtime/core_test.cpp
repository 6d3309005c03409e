/* The Internal API's memory, random, time, trace and panic functions. */
#include <gtest/gtest.h>

#include <time.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/log.h"
#include "runtime/runtime.h"
#include "runtime/test_support.h"
#include "tee_internal_api.h"

namespace teesim::runtime {
namespace {

void configure_random(bool deterministic, uint8_t key_seed) {
  Config c;
  c.name = "core";
  c.deterministic_random = deterministic;
  c.random_key = testing::pattern_key(key_seed);
  configure(std::move(c));
}

std::vector<uint8_t> random_bytes(size_t n) {
  std::vector<uint8_t> v(n, 0);
  TEE_GenerateRandom(v.data(), static_cast<uint32_t>(n));
  return v;
}

TEST(TeeMemory, MallocZeroFillsAndReallocKeepsAndZeroExtends) {
  auto* p = static_cast<uint8_t*>(TEE_Malloc(64, TEE_MALLOC_NO_FILL));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(p[i], 0);
  std::memset(p, 0xAB, 64);
  p = static_cast<uint8_t*>(TEE_Realloc(p, 128));
  ASSERT_NE(p, nullptr);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(p[i], 0xAB);
  for (int i = 64; i < 128; ++i) EXPECT_EQ(p[i], 0);
  p = static_cast<uint8_t*>(TEE_Realloc(p, 8));
  for (int i = 0; i < 8; ++i) EXPECT_EQ(p[i], 0xAB);
  TEE_Free(p);
  TEE_Free(nullptr);
  void* a = TEE_Malloc(0, TEE_MALLOC_FILL_ZERO);
  void* b = TEE_Malloc(0, TEE_MALLOC_FILL_ZERO);
  EXPECT_NE(a, nullptr);
  EXPECT_NE(a, b);
  TEE_Free(a);
  TEE_Free(b);
  void* r = TEE_Realloc(nullptr, 16);
  EXPECT_NE(r, nullptr);
  TEE_Free(r);
}

TEST(TeeMemory, MoveFillAndCompare) {
  char buf[8] = "abcdefg";
  TEE_MemMove(buf + 1, buf, 4);
  EXPECT_STREQ(buf, "aabcdfg");
  TEE_MemFill(buf, 0x17A, 3);
  EXPECT_EQ(buf[0], 0x7A);
  EXPECT_EQ(buf[2], 0x7A);
  EXPECT_EQ(TEE_MemCompare("abc", "abd", 3), -1);
  EXPECT_EQ(TEE_MemCompare("abd", "abc", 3), 1);
  EXPECT_EQ(TEE_MemCompare("abc", "abc", 3), 0);
  EXPECT_EQ(TEE_MemCompare(nullptr, nullptr, 0), 0);
  const uint8_t hi = 0xFF, lo = 0x01;
  EXPECT_EQ(TEE_MemCompare(&hi, &lo, 1), 1) << "bytes compare as unsigned";
}

TEST(TeeRandom, DeterministicModeRepeatsPerSeedAndDiffersAcrossSeeds) {
  configure_random(true, 1);
  auto a1 = random_bytes(50);
  auto a2 = random_bytes(17);
  configure_random(true, 1);
  std::vector<uint8_t> again = random_bytes(67);
  std::vector<uint8_t> joined = a1;
  joined.insert(joined.end(), a2.begin(), a2.end());
  EXPECT_EQ(again, joined) << "the stream must not depend on how it is cut";
  configure_random(true, 2);
  EXPECT_NE(random_bytes(50), a1);
}

TEST(TeeRandom, OsModeNeverRepeats) {
  configure_random(false, 1);
  auto a = random_bytes(32);
  auto b = random_bytes(32);
  EXPECT_NE(a, b);
  EXPECT_NE(a, std::vector<uint8_t>(32, 0));
  TEE_GenerateRandom(nullptr, 0);
}

/* The wall clock's seconds as the TEE reads them (time(2) may lag by a tick). */
time_t wall_seconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec;
}

TEST(TeeTime, SystemTimeIsMonotonicAndReeTimeIsWallClock) {
  TEE_Time a{}, b{}, r{};
  TEE_GetSystemTime(&a);
  TEE_GetSystemTime(&b);
  EXPECT_TRUE(b.seconds > a.seconds || (b.seconds == a.seconds && b.millis >= a.millis));
  EXPECT_LT(a.millis, 1000u);
  /* Bracketed by two readings of the wall clock, so a slow machine cannot
   * stretch the gap past a tolerance. */
  const time_t before = wall_seconds();
  TEE_GetREETime(&r);
  const time_t after = wall_seconds();
  EXPECT_GE(static_cast<time_t>(r.seconds), before);
  EXPECT_LE(static_cast<time_t>(r.seconds), after);
}

TEST(TeeTrace, LinesCarryTheTaNameAndHonourTheLevel) {
  configure_random(false, 0);
  log::init("test", log::Level::Info, false);
  ::testing::internal::CaptureStderr();
  TEE_Trace(TEE_TRACE_INFO, "value %d", 42);
  TEE_Trace(TEE_TRACE_DEBUG, "hidden %d", 1);
  std::string out = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(out.find("[core] value 42"), std::string::npos) << out;
  EXPECT_EQ(out.find("hidden"), std::string::npos) << out;
}

TEST(TeePanic, EndsTheProcessWithThePanicStatusAndLogsTheCode) {
  configure_random(false, 0);
  EXPECT_EXIT(TEE_Panic(0xBADC0DE), ::testing::ExitedWithCode(kPanicExitCode),
              "panicked with code 0x0badc0de");
}

}  // namespace
}  // namespace teesim::runtime
