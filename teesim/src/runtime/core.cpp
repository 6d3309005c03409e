/* TEE Internal API: memory, panic, random numbers, time and trace. */
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/crypto.h"
#include "common/log.h"
#include "common/secret.h"
#include "runtime/runtime.h"
#include "tee_internal_api.h"

namespace teesim::runtime {
namespace {

Config g_config;

/* Deterministic generator for tests: HMAC-SHA-256(key, block counter). */
struct Drbg {
  std::mutex mu;
  uint64_t counter = 0;
  uint8_t block[32];
  size_t used = sizeof block;
} g_drbg;

void drbg_fill(uint8_t* out, size_t len) {
  std::lock_guard<std::mutex> lock(g_drbg.mu);
  while (len > 0) {
    if (g_drbg.used == sizeof g_drbg.block) {
      uint8_t ctr[8];
      for (int i = 0; i < 8; ++i) ctr[i] = static_cast<uint8_t>(g_drbg.counter >> (8 * i));
      ++g_drbg.counter;
      if (!crypto::hmac_sha256(g_drbg.block, g_config.random_key.data(), g_config.random_key.size(),
                               ctr, sizeof ctr))
        TEE_Panic(TEE_ERROR_GENERIC);
      g_drbg.used = 0;
    }
    size_t n = std::min(len, sizeof g_drbg.block - g_drbg.used);
    std::memcpy(out, g_drbg.block + g_drbg.used, n);
    g_drbg.used += n;
    out += n;
    len -= n;
  }
}

/* Every TEE_Malloc block starts with this header so that TEE_Realloc can
 * zero what it adds and TEE_Free can wipe what it frees. 16 bytes keep the
 * block as aligned as malloc's. */
struct alignas(16) BlockHeader {
  uint64_t size;
  uint64_t reserved;
};

BlockHeader* header_of(void* p) { return reinterpret_cast<BlockHeader*>(p) - 1; }

}  // namespace

void configure(Config config) {
  close_all_object_handles();
  g_config = std::move(config);
  std::lock_guard<std::mutex> lock(g_drbg.mu);
  g_drbg.counter = 0;
  g_drbg.used = sizeof g_drbg.block;
  wipe(g_drbg.block, sizeof g_drbg.block);
}

const Config& config() { return g_config; }

}  // namespace teesim::runtime

using teesim::runtime::BlockHeader;
using teesim::runtime::header_of;

extern "C" {

void* TEE_Malloc(uint32_t size, uint32_t /*hint*/) {
  /* Zero-filled whatever the hint: handing a TA stale heap bytes helps no one. */
  void* raw = std::calloc(1, sizeof(BlockHeader) + size);
  if (raw == nullptr) return nullptr;
  auto* h = static_cast<BlockHeader*>(raw);
  h->size = size;
  return h + 1;
}

void* TEE_Realloc(void* buffer, uint32_t newSize) {
  if (buffer == nullptr) return TEE_Malloc(newSize, TEE_MALLOC_FILL_ZERO);
  BlockHeader* old = header_of(buffer);
  void* fresh = TEE_Malloc(newSize, TEE_MALLOC_FILL_ZERO);
  if (fresh == nullptr) return nullptr;
  uint64_t keep = old->size < newSize ? old->size : newSize;
  std::memcpy(fresh, buffer, keep);
  TEE_Free(buffer);
  return fresh;
}

void TEE_Free(void* buffer) {
  if (buffer == nullptr) return;
  BlockHeader* h = header_of(buffer);
  teesim::wipe(buffer, h->size);
  std::free(h);
}

void TEE_MemMove(void* dest, const void* src, uint32_t size) {
  if (size == 0) return;
  std::memmove(dest, src, size);
}

int32_t TEE_MemCompare(const void* buffer1, const void* buffer2, uint32_t size) {
  if (size == 0) return 0;
  int r = std::memcmp(buffer1, buffer2, size);
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

void TEE_MemFill(void* buffer, uint32_t x, uint32_t size) {
  if (size == 0) return;
  std::memset(buffer, static_cast<int>(x & 0xFFu), size);
}

void TEE_Panic(TEE_Result panicCode) {
  const std::string& name = teesim::runtime::config().name;
  TS_LOG_ERROR("TA %s panicked with code 0x%08x", name.empty() ? "?" : name.c_str(), panicCode);
  ::_exit(teesim::runtime::kPanicExitCode);
}

void TEE_GenerateRandom(void* randomBuffer, uint32_t randomBufferLen) {
  if (randomBufferLen == 0) return;
  if (randomBuffer == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  auto* out = static_cast<uint8_t*>(randomBuffer);
  if (teesim::runtime::config().deterministic_random) {
    teesim::runtime::drbg_fill(out, randomBufferLen);
    return;
  }
  if (!teesim::crypto::os_random(out, randomBufferLen)) TEE_Panic(TEE_ERROR_GENERIC);
}

static void to_tee_time(clockid_t clock, TEE_Time* time) {
  if (time == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  timespec ts{};
  ::clock_gettime(clock, &ts);
  time->seconds = static_cast<uint32_t>(ts.tv_sec);
  time->millis = static_cast<uint32_t>(ts.tv_nsec / 1000000);
}

void TEE_GetSystemTime(TEE_Time* time) { to_tee_time(CLOCK_MONOTONIC, time); }

void TEE_GetREETime(TEE_Time* time) { to_tee_time(CLOCK_REALTIME, time); }

void TEE_Trace(uint32_t level, const char* format, ...) {
  using teesim::log::Level;
  Level l = level <= TEE_TRACE_ERROR ? Level::Error
                                     : (level == TEE_TRACE_INFO ? Level::Info : Level::Debug);
  if (static_cast<int>(l) > static_cast<int>(teesim::log::level()) || format == nullptr) return;
  char msg[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(msg, sizeof msg, format, ap);
  va_end(ap);
  const std::string& name = teesim::runtime::config().name;
  teesim::log::write(l, "[%s] %s", name.empty() ? "?" : name.c_str(), msg);
}

}  // extern "C"
