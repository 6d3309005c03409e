// Fuzz target: however a message is split into keccak_update calls, and
// wherever it lies in memory, the digest is the one of a single call on an
// aligned copy. The first input byte steers the split and the alignment; the
// rest is the message.

#include "keccak.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void digest_whole(const unsigned char* data, std::size_t size, unsigned char (&out)[32]) {
  keccak_ctx ctx;
  keccak_init(&ctx);
  while (size > 0) {
    const std::size_t piece = std::min<std::size_t>(size, UINT16_MAX);
    keccak_update(&ctx, data, static_cast<uint16_t>(piece));
    data += piece;
    size -= piece;
  }
  keccak_final(&ctx, out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  if (size == 0) {
    return 0;
  }
  const unsigned steer = input[0];
  const std::size_t length = size - 1;

  // An aligned copy and a copy at offset 1..7.
  std::vector<uint64_t> aligned_storage(length / 8 + 2);
  auto* aligned = reinterpret_cast<unsigned char*>(aligned_storage.data());
  std::memcpy(aligned, input + 1, length);
  std::vector<uint64_t> shifted_storage(length / 8 + 3);
  unsigned char* shifted = reinterpret_cast<unsigned char*>(shifted_storage.data()) + 1 + steer % 7;
  std::memcpy(shifted, input + 1, length);

  unsigned char expected[32];
  digest_whole(aligned, length, expected);

  // Piece lengths from a small generator seeded by the steering byte, so
  // that pieces cross block boundaries in ever different places.
  keccak_ctx ctx;
  keccak_init(&ctx);
  uint32_t state = 0x9E3779B9u ^ steer;
  std::size_t at = 0;
  while (at < length) {
    state = state * 1664525u + 1013904223u;
    const std::size_t piece = std::min<std::size_t>((state >> 16) % 300, length - at);
    keccak_update(&ctx, shifted + at, static_cast<uint16_t>(piece));
    at += piece;
  }
  unsigned char got[32];
  keccak_final(&ctx, got);

  if (std::memcmp(got, expected, sizeof got) != 0) {
    std::abort();
  }
  return 0;
}
