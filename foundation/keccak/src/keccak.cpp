// Keccak-256 over Keccak-f[1600]; see keccak.h for the interface.
//
// How the permutation is made fast, in portable C++ without assembly:
//  - Every lane index, rotation and round constant is read from `constants`
//    in constant expressions, inside compile-time loops. The compiler sees a
//    round as straight-line code on 64-bit values with the table folded into
//    immediates; no table lookup happens at run time.
//  - A round is computed one output row at a time (theta, rho and pi feed
//    the five lanes of a row, chi mixes them), reading each lane once and
//    writing it once into a second state; two rounds swap the two states.
//  - Theta's column parities for the next round are gathered while chi's
//    results are written, so the state is not read twice per round.
//  - Six lanes are kept inverted during the permutation ("lane
//    complementing"), which turns most of chi's and-not operations into
//    plain and/or and leaves 8 inversions per round instead of 25.
//  - The rounds run as a loop of round pairs: a small body that stays in
//    the instruction cache, with the round constant expanded from its byte.
// The result is the standard permutation; the tests check it against
// published digests and an independent implementation.

#include "keccak.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

extern "C" constexpr unsigned char constants[72] = {
    // Round constants 0..23, compressed: bit j stands for bit 2^j - 1.
    1, 26, 94, 112, 31, 33, 121, 85, 14, 12, 53, 38,
    63, 79, 93, 83, 82, 72, 22, 102, 121, 88, 33, 116,
    // The 24-lane cycle of pi: each lane takes the value of the next one.
    1, 6, 9, 22, 14, 20, 2, 12, 13, 19, 23, 15,
    4, 24, 21, 8, 16, 5, 3, 18, 17, 11, 7, 10,
    // Rho rotation offsets of lanes 1..24.
    1, 62, 28, 27, 36, 44, 6, 55, 20, 3, 10, 43,
    25, 39, 41, 45, 15, 21, 8, 18, 2, 61, 56, 14,
};

// Compilers otherwise decide case by case whether to inline the small
// per-lane functions below, and one wrong guess halves the speed.
#define KECCAK_INLINE __attribute__((always_inline))

namespace {

constexpr std::size_t kRate = 136;  // bytes absorbed per block
constexpr std::size_t kRateLanes = kRate / 8;
constexpr std::size_t kDigestSize = 32;
constexpr std::size_t kRounds = 24;
constexpr std::size_t kRoundPart = 0;
constexpr std::size_t kPiPart = 24;
constexpr std::size_t kRhoPart = 48;

static_assert(sizeof(keccak_ctx::buffer) >= kRate, "the block buffer holds a whole block");
static_assert(kRounds % 2 == 0, "rounds run in pairs");

// Calls f(std::integral_constant<std::size_t, I>{}) for I = 0..N-1 in
// order, so that f can use I in constant expressions.
template <class F, std::size_t... I>
KECCAK_INLINE inline void unrolled(F&& f, std::index_sequence<I...>) {
  (f(std::integral_constant<std::size_t, I>{}), ...);
}
template <std::size_t N, class F>
KECCAK_INLINE inline void unroll(F&& f) {
  unrolled(f, std::make_index_sequence<N>{});
}

constexpr uint64_t rotl(uint64_t v, unsigned n) {
  return (v << (n & 63)) | (v >> ((64 - n) & 63));
}

template <bool Invert>
KECCAK_INLINE inline uint64_t invert_if(uint64_t v) {
  if constexpr (Invert) {
    return ~v;
  } else {
    return v;
  }
}

// Round constant from its compressed byte: bit j goes to bit 2^j - 1.
// Written out rather than looped: a dozen plain operations per round.
constexpr uint64_t round_constant(unsigned char byte) {
  const uint64_t c = byte;
  return (c & 0x03) | (c & 0x04) << 1 | (c & 0x08) << 4 | (c & 0x10) << 11 |
         (c & 0x20) << 26 | (c & 0x40) << 57;
}

// Where pi takes each lane from. The cycle in `constants` lists lanes that
// each take the value of the next one (the last takes the first's); lane 0
// stays where it is.
struct PiSources {
  unsigned char of[25];
};
constexpr PiSources pi_sources() {
  PiSources p{};
  for (std::size_t k = 0; k < 24; ++k) {
    p.of[constants[kPiPart + k]] = constants[kPiPart + (k + 1) % 24];
  }
  return p;
}
constexpr PiSources kPiSource = pi_sources();

// Rho's rotation of a lane (lane 0 is not rotated).
constexpr unsigned rho_offset(std::size_t lane) {
  return lane == 0 ? 0u : constants[kRhoPart + lane - 1];
}

// The lanes held inverted between rounds (bit i stands for lane i). With
// this set, the inversions entering chi line up so that most of its terms
// need no NOT at all; chi's outputs are then written inverted exactly on
// these lanes again, so the set is the same before every round.
constexpr uint32_t kInverted = (1u << 1) | (1u << 2) | (1u << 8) | (1u << 12) | (1u << 17) |
                               (1u << 20);

constexpr bool inverted(uint32_t set, std::size_t lane) {
  return ((set >> lane) & 1u) != 0;
}

// Which of the lanes entering chi (by position) are inverted, when the
// state going into the round is inverted on `set`. Theta XORs each lane
// with two column parities, each of which is inverted when its column has
// an odd number of inverted lanes; rho and pi only move lanes.
struct ChiInputs {
  bool inverted[25];
};
constexpr ChiInputs chi_inputs(uint32_t set) {
  bool column[5] = {};
  for (std::size_t i = 0; i < 25; ++i) {
    column[i % 5] ^= inverted(set, i);
  }
  ChiInputs in{};
  for (std::size_t p = 0; p < 25; ++p) {
    const std::size_t from = kPiSource.of[p];
    const std::size_t x = from % 5;
    in.inverted[p] = inverted(set, from) ^ column[(x + 4) % 5] ^ column[(x + 1) % 5];
  }
  return in;
}
constexpr ChiInputs kChiInput = chi_inputs(kInverted);

// One round: reads the state from A (inverted on kInverted, column
// parities in C), writes the next state to E (inverted the same way) and
// the next round's column parities to C. rc is the round constant.
KECCAK_INLINE inline void keccak_round(const uint64_t (&A)[25], uint64_t (&E)[25],
                                       uint64_t (&C)[5], uint64_t rc) {
  // Theta: what each column is XORed with.
  uint64_t D[5];
  unroll<5>([&](auto x) KECCAK_INLINE { D[x] = C[(x + 4) % 5] ^ rotl(C[(x + 1) % 5], 1); });

  unroll<5>([&](auto row) KECCAK_INLINE {
    constexpr std::size_t y = 5 * row;

    // Theta, rho and pi: the five lanes that land in this row.
    uint64_t b[5];
    unroll<5>([&](auto x) KECCAK_INLINE {
      constexpr std::size_t from = kPiSource.of[y + x];
      b[x] = rotl(A[from] ^ D[from % 5], rho_offset(from));
    });

    // Chi: E = b0 ^ (~b1 & b2) on the true values. With b0, b1, b2 and E
    // possibly stored inverted, the term is formed as an AND or, inverted,
    // as an OR (~(~b1 & b2) == b1 | ~b2), whichever makes E come out with
    // the inversion it must have; the invert_if calls then cost nothing
    // for most lanes.
    unroll<5>([&](auto x) KECCAK_INLINE {
      constexpr std::size_t x1 = (x + 1) % 5;
      constexpr std::size_t x2 = (x + 2) % 5;
      constexpr bool i0 = kChiInput.inverted[y + x];
      constexpr bool i1 = kChiInput.inverted[y + x1];
      constexpr bool i2 = kChiInput.inverted[y + x2];
      constexpr bool term_inverted = inverted(kInverted, y + x) != i0;
      if constexpr (!term_inverted) {
        E[y + x] = b[x] ^ (invert_if<!i1>(b[x1]) & invert_if<i2>(b[x2]));
      } else {
        E[y + x] = b[x] ^ (invert_if<i1>(b[x1]) | invert_if<!i2>(b[x2]));
      }
    });

    // The next round's column parities, gathered row by row.
    if constexpr (row == 0) {
      unroll<5>([&](auto x) KECCAK_INLINE { C[x] = E[x]; });
    } else {
      unroll<5>([&](auto x) KECCAK_INLINE { C[x] ^= E[y + x]; });
    }
  });

  // Iota (lane 0 is not in kInverted, and the parity of column 0 follows).
  E[0] ^= rc;
  C[0] ^= rc;
}

// Keccak-f[1600], 24 rounds, on a state in the standard representation.
KECCAK_INLINE inline void keccak_f1600(uint64_t (&A)[25]) {
  unroll<25>([&](auto i) KECCAK_INLINE { A[i] = invert_if<inverted(kInverted, i)>(A[i]); });
  uint64_t C[5];
  unroll<5>([&](auto x) KECCAK_INLINE {
    C[x] = A[x] ^ A[x + 5] ^ A[x + 10] ^ A[x + 15] ^ A[x + 20];
  });
  uint64_t E[25];
  for (std::size_t r = 0; r < kRounds; r += 2) {
    keccak_round(A, E, C, round_constant(constants[kRoundPart + r]));
    keccak_round(E, A, C, round_constant(constants[kRoundPart + r + 1]));
  }
  unroll<25>([&](auto i) KECCAK_INLINE { A[i] = invert_if<inverted(kInverted, i)>(A[i]); });
}

// Lane k of a block: bytes 8k..8k+7, least significant first.
KECCAK_INLINE inline uint64_t load_lane(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  return v;
}

KECCAK_INLINE inline void store_lane(unsigned char* p, uint64_t v) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  std::memcpy(p, &v, sizeof v);
}

// XORs one 136-byte block into lanes 0..16 and applies Keccak-f[1600].
// The callers pass an 8-byte aligned block; it is still read through
// memcpy, which compiles to plain loads and bends no aliasing rule.
void keccak_absorb_block(keccak_ctx* ctx, const unsigned char* block) {
  uint64_t A[25];
  unroll<25>([&](auto i) KECCAK_INLINE { A[i] = ctx->state[i]; });
  unroll<kRateLanes>([&](auto i) KECCAK_INLINE { A[i] ^= load_lane(block + 8 * i); });
  keccak_f1600(A);
  unroll<25>([&](auto i) KECCAK_INLINE { ctx->state[i] = A[i]; });
}

inline bool aligned8(const unsigned char* p) {
  return (reinterpret_cast<std::uintptr_t>(p) & 7u) == 0;
}

inline unsigned char* buffer_bytes(keccak_ctx* ctx) {
  return reinterpret_cast<unsigned char*>(ctx->buffer);
}

}  // namespace

extern "C" {

void keccak_init(keccak_ctx* ctx) {
  std::memset(ctx, 0, sizeof *ctx);
}

void keccak_update(keccak_ctx* ctx, const unsigned char* data, uint16_t size) {
  if (size == 0) {
    return;  // nothing changes, and data may be NULL
  }
  unsigned char* const buffer = buffer_bytes(ctx);
  const uint16_t old_pending = ctx->pending;
  ctx->pending = static_cast<uint16_t>((old_pending + size) % kRate);

  // Top up a partly filled block first.
  if (old_pending > 0) {
    const uint16_t left = static_cast<uint16_t>(kRate - old_pending);
    std::memcpy(buffer + old_pending, data, size < left ? size : left);
    if (size < left) {
      return;
    }
    keccak_absorb_block(ctx, buffer);
    data += left;
    size = static_cast<uint16_t>(size - left);
  }

  // Whole blocks: aligned input is absorbed where it lies, unaligned input
  // goes through the (aligned) block buffer.
  while (size >= kRate) {
    if (aligned8(data)) {
      keccak_absorb_block(ctx, data);
    } else {
      std::memcpy(buffer, data, kRate);
      keccak_absorb_block(ctx, buffer);
    }
    data += kRate;
    size = static_cast<uint16_t>(size - kRate);
  }

  if (size > 0) {
    std::memcpy(buffer, data, size);
  }
}

void keccak_final(keccak_ctx* ctx, unsigned char* out) {
  unsigned char* const buffer = buffer_bytes(ctx);
  const std::size_t pending = ctx->pending;
  std::memset(buffer + pending, 0, kRate - pending);
  buffer[pending] |= 0x01;
  buffer[kRate - 1] |= 0x80;  // the same byte as 0x01 when pending is 135
  keccak_absorb_block(ctx, buffer);

  if (out != nullptr) {
    for (std::size_t i = 0; i < kDigestSize / 8; ++i) {
      store_lane(out + 8 * i, ctx->state[i]);
    }
  }
}

unsigned char getConstant(unsigned int part_offset, unsigned int index) {
  constexpr unsigned int size = sizeof constants;
  if (part_offset >= size || index >= size - part_offset) {
    return 0;
  }
  return constants[part_offset + index];
}

}  // extern "C"
