// Keccak-256: published digests, the padding and buffering edge cases, the
// constant table, and a differential run against digests made by an
// independent implementation (testdata/make_keccak_vectors.py).

#include "keccak.h"

#include "tessera/testing/hex.h"
#include "tessera/testing/vector_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = tessera::testing::Bytes;

std::string to_hex(const unsigned char* p, std::size_t n) { return tessera::testing::Hex(p, n); }

Bytes from_string(const std::string& s) { return tessera::testing::BytesOf(s); }

// Feeds data in pieces no longer than one call accepts.
void update_all(keccak_ctx* ctx, const unsigned char* data, std::size_t size) {
  while (size > 0) {
    const uint16_t piece = static_cast<uint16_t>(std::min<std::size_t>(size, UINT16_MAX));
    keccak_update(ctx, data, piece);
    data += piece;
    size -= piece;
  }
}

std::string keccak_hex(const unsigned char* data, std::size_t size) {
  keccak_ctx ctx;
  keccak_init(&ctx);
  update_all(&ctx, data, size);
  unsigned char out[32];
  keccak_final(&ctx, out);
  return to_hex(out, sizeof out);
}

std::string keccak_hex(const Bytes& data) {
  return keccak_hex(data.data(), data.size());
}

// The message generator shared with make_keccak_vectors.py: the splitmix64
// stream from seed, each output least significant byte first.
Bytes splitmix64_bytes(uint64_t seed, std::size_t length) {
  Bytes out;
  out.reserve(length + 8);
  uint64_t state = seed;
  while (out.size() < length) {
    state += 0x9E3779B97F4A7C15ull;
    uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    for (int i = 0; i < 8; ++i) {
      out.push_back(static_cast<unsigned char>(z >> (8 * i)));
    }
  }
  out.resize(length);
  return out;
}

struct Vector {
  std::size_t length;
  uint64_t seed;
  std::string digest;
};

std::vector<Vector> load_vectors() {
  std::vector<Vector> vectors;
  for (const auto& line : tessera::testing::ReadVectorFile(std::string(TESSERA_TESTDATA_DIR) +
                                                          "/keccak256_vectors.txt")) {
    EXPECT_EQ(line.fields.size(), 3u) << "bad line " << line.number;
    if (line.fields.size() != 3) continue;
    vectors.push_back(Vector{std::stoul(line.fields[0]), std::stoull(line.fields[1], nullptr, 16),
                             line.fields[2]});
  }
  EXPECT_FALSE(vectors.empty());
  return vectors;
}

const std::vector<Vector>& vectors() {
  static const std::vector<Vector> all = load_vectors();
  return all;
}

// The independent digest of the pseudo-random message of this length (the
// vector file holds every length from 0 to 410 once, in order).
const Vector& vector_of_length(std::size_t length) {
  const auto& all = vectors();
  const auto it = std::find_if(all.begin(), all.end(),
                               [&](const Vector& v) { return v.length == length; });
  if (it == all.end()) {
    ADD_FAILURE() << "no vector of length " << length;
    static const Vector none{};
    return none;
  }
  return *it;
}

const unsigned char* buffer_of(const keccak_ctx& ctx) {
  return reinterpret_cast<const unsigned char*>(ctx.buffer);
}

// --- published digests -----------------------------------------------------

TEST(Keccak256, EmptyMessageIsKeccakNotSha3) {
  keccak_ctx ctx;
  keccak_init(&ctx);
  unsigned char out[32];
  keccak_final(&ctx, out);
  EXPECT_EQ(to_hex(out, 32), "c5d2460186f7233c927e7db2dcc703c0e500b653ca82273b7bfad8045d85a470");
  // SHA3-256 of the empty message, which differs only by its padding byte.
  EXPECT_NE(to_hex(out, 32), "a7ffc6f8bf1ed76651c14756a061d662f580ff4de43b49fa82d80a4b80f8434a");
}

TEST(Keccak256, Abc) {
  EXPECT_EQ(keccak_hex(from_string("abc")),
            "4e03657aea45a94fc7d47ba826c8d667c0d1e6e33a64a036ec44f58fa12d6c45");
}

TEST(Keccak256, TwoHundredBytesOfA3) {
  EXPECT_EQ(keccak_hex(Bytes(200, 0xa3)),
            "3a57666b048777f2c953dc4456f45a2588e1cb6f2da760122d530ac2ce607d4a");
}

TEST(Keccak256, OneMillionTimesA) {
  const Bytes a(1000000, 'a');
  const std::string expected = "fadae6b49f129bbb812be8407b7b2894f34aecf6dbd1f9b0f0c7e9853098fc96";
  EXPECT_EQ(keccak_hex(a), expected);  // in the largest pieces one call takes

  keccak_ctx ctx;
  keccak_init(&ctx);
  for (std::size_t i = 0; i < a.size(); i += 1000) {
    keccak_update(&ctx, a.data() + i, 1000);
  }
  unsigned char out[32];
  keccak_final(&ctx, out);
  EXPECT_EQ(to_hex(out, 32), expected);
}

// --- how the input is fed ----------------------------------------------------

TEST(Keccak256, OneCallSingleBytesAndBlockCrossingPiecesAgree) {
  const Vector& v = vector_of_length(410);
  const Bytes msg = splitmix64_bytes(v.seed, v.length);

  EXPECT_EQ(keccak_hex(msg), v.digest);

  keccak_ctx ctx;
  keccak_init(&ctx);
  for (unsigned char byte : msg) {
    keccak_update(&ctx, &byte, 1);
  }
  unsigned char out[32];
  keccak_final(&ctx, out);
  EXPECT_EQ(to_hex(out, 32), v.digest);

  // 100 + 100 crosses the first block boundary inside a piece, 72 completes
  // the second block exactly, and the rest spans a whole block plus a tail.
  keccak_init(&ctx);
  const uint16_t pieces[] = {100, 100, 72, 0, 138};
  std::size_t at = 0;
  for (uint16_t piece : pieces) {
    keccak_update(&ctx, msg.data() + at, piece);
    at += piece;
  }
  ASSERT_EQ(at, msg.size());
  keccak_final(&ctx, out);
  EXPECT_EQ(to_hex(out, 32), v.digest);
}

TEST(Keccak256, PendingCountsTheBytesWaitingInTheBuffer) {
  const Bytes msg = splitmix64_bytes(7, 400);
  keccak_ctx ctx;
  keccak_init(&ctx);
  std::size_t total = 0;
  for (uint16_t piece : {uint16_t{5}, uint16_t{131}, uint16_t{0}, uint16_t{1}, uint16_t{200},
                         uint16_t{63}}) {
    keccak_update(&ctx, msg.data() + total, piece);
    total += piece;
    EXPECT_EQ(ctx.pending, total % 136) << "after " << total << " bytes";
  }
  // The waiting bytes are the tail of the message.
  EXPECT_EQ(0, std::memcmp(buffer_of(ctx), msg.data() + total - ctx.pending, ctx.pending));
}

TEST(Keccak256, ZeroSizeUpdateWithNullDataChangesNothing) {
  const Bytes msg = from_string("abc");
  keccak_ctx a;
  keccak_ctx b;
  keccak_init(&a);
  keccak_init(&b);
  keccak_update(&a, msg.data(), 3);
  keccak_update(&b, msg.data(), 3);
  keccak_update(&b, nullptr, 0);
  EXPECT_EQ(0, std::memcmp(&a, &b, sizeof a));
}

TEST(Keccak256, A135ByteMessageEndsItsOnlyBlockWith0x81) {
  const Vector& v = vector_of_length(135);
  const Bytes msg = splitmix64_bytes(v.seed, v.length);
  keccak_ctx ctx;
  keccak_init(&ctx);
  keccak_update(&ctx, msg.data(), 135);
  unsigned char out[32];
  keccak_final(&ctx, out);

  // The padded block stays in the buffer: the message, then one byte that
  // carries both padding bits.
  EXPECT_EQ(0, std::memcmp(buffer_of(ctx), msg.data(), 135));
  EXPECT_EQ(buffer_of(ctx)[135], 0x81);
  EXPECT_EQ(to_hex(out, 32), v.digest);
}

TEST(Keccak256, A136ByteMessageGetsAWholePaddingBlock) {
  const Vector& v = vector_of_length(136);
  const Bytes msg = splitmix64_bytes(v.seed, v.length);
  keccak_ctx ctx;
  keccak_init(&ctx);
  keccak_update(&ctx, msg.data(), 136);
  EXPECT_EQ(ctx.pending, 0);
  unsigned char out[32];
  keccak_final(&ctx, out);

  Bytes padding(136, 0);
  padding.front() = 0x01;
  padding.back() = 0x80;
  EXPECT_EQ(0, std::memcmp(buffer_of(ctx), padding.data(), padding.size()));
  EXPECT_EQ(to_hex(out, 32), v.digest);
}

TEST(Keccak256, UnalignedInputGivesTheDigestOfAnAlignedCopy) {
  for (std::size_t length : {std::size_t{136}, std::size_t{137}, std::size_t{2 * 136 + 135},
                             std::size_t{410}}) {
    const Vector& v = vector_of_length(length);
    const Bytes msg = splitmix64_bytes(v.seed, v.length);
    alignas(8) unsigned char storage[416 + 8];
    std::memcpy(storage, msg.data(), msg.size());
    const std::string aligned = keccak_hex(storage, msg.size());
    EXPECT_EQ(aligned, v.digest);
    for (std::size_t offset = 1; offset < 8; ++offset) {
      std::memmove(storage + offset, msg.data(), msg.size());
      EXPECT_EQ(keccak_hex(storage + offset, msg.size()), aligned)
          << "length " << length << ", offset " << offset;
    }
  }
}

TEST(Keccak256, FinalWithNullOutputFinalisesWithoutWriting) {
  const Bytes msg = from_string("abc");
  keccak_ctx with_out;
  keccak_ctx without_out;
  keccak_init(&with_out);
  keccak_init(&without_out);
  keccak_update(&with_out, msg.data(), 3);
  keccak_update(&without_out, msg.data(), 3);

  unsigned char out[32];
  keccak_final(&with_out, out);
  keccak_final(&without_out, nullptr);

  // Both contexts went through the same final steps; only the copy-out
  // was left out, and the digest is still the start of the state.
  EXPECT_EQ(0, std::memcmp(&with_out, &without_out, sizeof with_out));
  unsigned char from_state[32];
  for (int i = 0; i < 32; ++i) {
    from_state[i] = static_cast<unsigned char>(without_out.state[i / 8] >> (8 * (i % 8)));
  }
  EXPECT_EQ(to_hex(from_state, 32), to_hex(out, 32));
}

TEST(Keccak256, InitMakesAFinalisedContextReusable) {
  keccak_ctx ctx;
  keccak_init(&ctx);
  const Bytes first(500, 0x5a);
  keccak_update(&ctx, first.data(), static_cast<uint16_t>(first.size()));
  keccak_final(&ctx, nullptr);

  keccak_init(&ctx);
  keccak_update(&ctx, reinterpret_cast<const unsigned char*>("abc"), 3);
  unsigned char out[32];
  keccak_final(&ctx, out);
  EXPECT_EQ(to_hex(out, 32), "4e03657aea45a94fc7d47ba826c8d667c0d1e6e33a64a036ec44f58fa12d6c45");
}

// --- the constant table ------------------------------------------------------

TEST(KeccakConstants, GetConstantReadsEachPart) {
  EXPECT_EQ(getConstant(24, 0), 1);
  EXPECT_EQ(getConstant(48, 1), 62);
  EXPECT_EQ(getConstant(0, 0), 1);
  EXPECT_EQ(getConstant(0, 1), 26);
  for (unsigned part : {0u, 24u, 48u}) {
    for (unsigned i = 0; i < 24; ++i) {
      EXPECT_EQ(getConstant(part, i), constants[part + i]) << part << "+" << i;
    }
  }
}

TEST(KeccakConstants, GetConstantOutsideTheTableIsZero) {
  EXPECT_EQ(getConstant(48, 24), 0);
  EXPECT_EQ(getConstant(0, 72), 0);
  EXPECT_EQ(getConstant(72, 0), 0);
  EXPECT_EQ(getConstant(UINT_MAX, 1), 0);    // the sum would wrap to 0
  EXPECT_EQ(getConstant(1, UINT_MAX), 0);
  for (unsigned i = 0; i < 72; ++i) {
    EXPECT_NE(constants[i], 0) << "a table byte of 0 would be ambiguous, position " << i;
  }
}

TEST(KeccakConstants, RoundConstantsExpandToTheStandardOnes) {
  // The 24 round constants of Keccak-f[1600] as the Keccak reference lists them.
  const uint64_t standard[24] = {
      0x0000000000000001, 0x0000000000008082, 0x800000000000808A, 0x8000000080008000,
      0x000000000000808B, 0x0000000080000001, 0x8000000080008081, 0x8000000000008009,
      0x000000000000008A, 0x0000000000000088, 0x0000000080008009, 0x000000008000000A,
      0x000000008000808B, 0x800000000000008B, 0x8000000000008089, 0x8000000000008003,
      0x8000000000008002, 0x8000000000000080, 0x000000000000800A, 0x800000008000000A,
      0x8000000080008081, 0x8000000000008080, 0x0000000080000001, 0x8000000080008008};
  for (unsigned i = 0; i < 24; ++i) {
    uint64_t rc = 0;
    for (unsigned j = 0; j < 7; ++j) {
      if ((constants[i] >> j) & 1u) {
        rc |= uint64_t{1} << ((1u << j) - 1);
      }
    }
    EXPECT_EQ(rc, standard[i]) << "round " << i;
    EXPECT_LT(constants[i], 128) << "only bits 0..6 are used";
  }
}

TEST(KeccakConstants, PiCycleFollowsTheLaneMap) {
  // Pi moves the lane at (x, y) to (y, 2x + 3y mod 5); so the lane at a
  // position takes the value of the lane that maps onto it.
  int source[25];
  for (int x = 0; x < 5; ++x) {
    for (int y = 0; y < 5; ++y) {
      source[y + 5 * ((2 * x + 3 * y) % 5)] = x + 5 * y;
    }
  }
  bool seen[25] = {};
  for (int k = 0; k < 24; ++k) {
    const int lane = constants[24 + k];
    const int next = constants[24 + (k + 1) % 24];
    ASSERT_LT(lane, 25);
    EXPECT_EQ(source[lane], next) << "cycle position " << k;
    EXPECT_FALSE(seen[lane]) << "lane " << lane << " twice";
    seen[lane] = true;
  }
  EXPECT_FALSE(seen[0]) << "lane 0 is not moved";
}

TEST(KeccakConstants, RhoOffsetsFollowTheirDefinition) {
  // Offsets (t+1)(t+2)/2 mod 64 along the walk (x, y) -> (y, 2x + 3y),
  // starting at lane (1, 0).
  int offset[25] = {};
  int x = 1;
  int y = 0;
  for (int t = 0; t < 24; ++t) {
    offset[x + 5 * y] = ((t + 1) * (t + 2) / 2) % 64;
    const int next_y = (2 * x + 3 * y) % 5;
    x = y;
    y = next_y;
  }
  for (int lane = 1; lane < 25; ++lane) {
    EXPECT_EQ(constants[48 + lane - 1], offset[lane]) << "lane " << lane;
  }
}

// --- against an independent implementation --------------------------------

TEST(Keccak256, MatchesIndependentDigestsInRandomSplitsAndAlignments) {
  const auto& all = vectors();
  ASSERT_GE(all.size(), 3000u);

  std::mt19937_64 rng(0x6b656363616bull);
  std::vector<unsigned char> storage;
  std::size_t checked = 0;
  for (const Vector& v : all) {
    const Bytes msg = splitmix64_bytes(v.seed, v.length);
    const std::size_t offset = rng() % 8;
    storage.assign(msg.size() + 16, 0);
    // vector storage is at least 8-byte aligned; offset it on purpose.
    unsigned char* const data = storage.data() + offset;
    std::memcpy(data, msg.data(), msg.size());

    keccak_ctx ctx;
    keccak_init(&ctx);
    std::size_t at = 0;
    while (at < msg.size()) {
      // Mostly short pieces, now and then a long one or an empty one.
      const std::size_t choice = rng() % 16;
      std::size_t piece = choice == 0 ? 0 : choice == 1 ? rng() % 65536 : rng() % 300;
      piece = std::min(piece, msg.size() - at);
      keccak_update(&ctx, data + at, static_cast<uint16_t>(piece));
      at += piece;
    }
    unsigned char out[32];
    keccak_final(&ctx, out);
    ASSERT_EQ(to_hex(out, 32), v.digest)
        << "length " << v.length << ", seed " << std::hex << v.seed << ", offset " << offset;
    ++checked;
  }
  EXPECT_EQ(checked, all.size());
}

}  // namespace
