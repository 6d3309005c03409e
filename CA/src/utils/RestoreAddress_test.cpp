// Signer address recovery against independent references: vectors made by
// python3-ecdsa + pycryptodome with a transcription of the algorithm
// (testdata/make_recover_vectors.py), and libsecp256k1 at run time.

#include "RestoreAddress.h"

#include "RecoverVectors.h"

#include "RestoreAddressImpl.h"
#include "keccak.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>
#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using test::tools::RestoreAddress;

using recover_vectors::from_hex;
using recover_vectors::kZeroKeyAddress;
using recover_vectors::to_hex;
using recover_vectors::Vector;

std::string bytes(const unsigned char* p, std::size_t n) {
  return std::string(reinterpret_cast<const char*>(p), n);
}

// --- libsecp256k1 as the run-time reference ---------------------------------

struct Secp256k1Free {
  void operator()(secp256k1_context* ctx) const { secp256k1_context_destroy(ctx); }
};

secp256k1_context* secp() {
  static const std::unique_ptr<secp256k1_context, Secp256k1Free> ctx(
      secp256k1_context_create(SECP256K1_CONTEXT_NONE));
  return ctx.get();
}

// Address of a public key: Keccak-256 of x || y, last 20 bytes, in hex.
std::string address_of(const secp256k1_pubkey& pub) {
  unsigned char serialized[65];
  std::size_t length = sizeof serialized;
  EXPECT_EQ(1, secp256k1_ec_pubkey_serialize(secp(), serialized, &length, &pub,
                                             SECP256K1_EC_UNCOMPRESSED));
  EXPECT_EQ(length, 65u);
  keccak_ctx ctx;
  keccak_init(&ctx);
  keccak_update(&ctx, serialized + 1, 64);
  unsigned char hash[32];
  keccak_final(&ctx, hash);
  return to_hex(bytes(hash + 12, 20));
}

struct Signed {
  std::string digest;
  std::string r;
  std::string s;
  unsigned char v;
  std::string address;  // hex, of the signing key
};

Signed sign(const unsigned char (&key)[32], const unsigned char (&digest)[32]) {
  Signed out{};
  secp256k1_ecdsa_recoverable_signature sig;
  EXPECT_EQ(1, secp256k1_ecdsa_sign_recoverable(secp(), &sig, digest, key, nullptr, nullptr));
  unsigned char compact[64];
  int recid = -1;
  EXPECT_EQ(1, secp256k1_ecdsa_recoverable_signature_serialize_compact(secp(), compact, &recid,
                                                                       &sig));
  secp256k1_pubkey pub;
  EXPECT_EQ(1, secp256k1_ec_pubkey_create(secp(), &pub, key));
  out.digest = bytes(digest, 32);
  out.r = bytes(compact, 32);
  out.s = bytes(compact + 32, 32);
  out.v = static_cast<unsigned char>(recid);
  out.address = address_of(pub);
  return out;
}

void random_bytes(std::mt19937_64& rng, unsigned char* p, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    p[i] = static_cast<unsigned char>(rng());
  }
}

void random_key(std::mt19937_64& rng, unsigned char (&key)[32]) {
  do {
    random_bytes(rng, key, 32);
  } while (!secp256k1_ec_seckey_verify(secp(), key));
}

// What libsecp256k1 recovers from these inputs, or the all-zero-key address
// when it refuses them. Same recovery id meaning (0..3); r and s 32 bytes.
std::string secp_recover(const std::string& digest, const std::string& r, const std::string& s,
                         int recid) {
  unsigned char compact[64];
  std::copy(r.begin(), r.end(), compact);
  std::copy(s.begin(), s.end(), compact + 32);
  secp256k1_ecdsa_recoverable_signature sig;
  secp256k1_pubkey pub;
  if (!secp256k1_ecdsa_recoverable_signature_parse_compact(secp(), &sig, compact, recid) ||
      !secp256k1_ecdsa_recover(secp(), &pub, &sig,
                               reinterpret_cast<const unsigned char*>(digest.data()))) {
    return kZeroKeyAddress;
  }
  return address_of(pub);
}

std::string recover_hex(const std::string& digest, const std::string& r, const std::string& s,
                        unsigned char v) {
  const std::string address = RestoreAddress(digest, r, s, v);
  EXPECT_EQ(address.size(), 20u);
  return to_hex(address);
}

Signed random_signature(std::mt19937_64& rng) {
  unsigned char key[32];
  unsigned char digest[32];
  random_key(rng, key);
  random_bytes(rng, digest, sizeof digest);
  return sign(key, digest);
}

// --- the vector file ---------------------------------------------------------

const std::vector<Vector>& vectors() {
  static const std::vector<Vector> all = recover_vectors::load();
  return all;
}

std::vector<Vector> vectors_of(const std::string& kind) {
  std::vector<Vector> out;
  for (const Vector& v : vectors()) {
    if (v.kind == kind) {
      out.push_back(v);
    }
  }
  EXPECT_FALSE(out.empty()) << "no vectors of kind " << kind;
  return out;
}

// --- the vector file, kind by kind ---------------------------------------------

TEST(RestoreAddressVectors, EveryLineGivesTheReferenceAddress) {
  const auto& all = vectors();
  ASSERT_GE(all.size(), 300u);
  for (const Vector& v : all) {
    EXPECT_EQ(recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v)), v.address)
        << v.kind << " r=" << to_hex(v.r) << " v=" << v.v;
  }
}

TEST(RestoreAddressVectors, SignaturesFromAnotherImplementationGiveTheSignersAddress) {
  const auto sigs = vectors_of("sig");
  ASSERT_GE(sigs.size(), 200u);
  for (const Vector& v : sigs) {
    EXPECT_EQ(recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v)), v.address);
  }
}

TEST(RestoreAddressVectors, FailureKindsGiveTheZeroKeyAddress) {
  for (const char* kind : {"v27-28", "r-zero", "r-ge-p", "r-not-x", "r-equals-n",
                           "s-zero-digest-zero", "q-infinity"}) {
    for (const Vector& v : vectors_of(kind)) {
      EXPECT_EQ(recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v)),
                kZeroKeyAddress)
          << kind << " r=" << to_hex(v.r);
    }
  }
}

TEST(RestoreAddressVectors, ZeroSWithANonZeroDigestIsNotRejected) {
  // s = 0 makes Q = -e/r G: a definite, wrong key, exactly as the
  // transcription of the algorithm computes it.
  for (const Vector& v : vectors_of("s-zero")) {
    const std::string got = recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v));
    EXPECT_EQ(got, v.address);
    EXPECT_NE(got, kZeroKeyAddress);
  }
}

TEST(RestoreAddressVectors, RBetweenNAndPIsUsedModuloN) {
  for (const Vector& v : vectors_of("r-between-n-and-p")) {
    const std::string got = recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v));
    EXPECT_EQ(got, v.address);
    EXPECT_NE(got, kZeroKeyAddress);
  }
}

TEST(RestoreAddressVectors, RecoveryIdAboveOneAddsNOnce) {
  for (const Vector& v : vectors_of("v-above-1")) {
    EXPECT_EQ(recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v)), v.address)
        << "v=" << v.v;
  }
}

// --- the listed edge cases ------------------------------------------------------

TEST(RestoreAddress, PrivateKeyOneGivesItsKnownAddress) {
  unsigned char key[32] = {};
  key[31] = 1;
  std::mt19937_64 rng(1);
  for (int i = 0; i < 4; ++i) {
    unsigned char digest[32];
    random_bytes(rng, digest, sizeof digest);
    const Signed sig = sign(key, digest);
    ASSERT_EQ(sig.address, "7e5f4552091a69125d5dfcb7b8c2659029395bdf");
    EXPECT_EQ(recover_hex(sig.digest, sig.r, sig.s, sig.v), sig.address);
  }
  const Vector v = vectors_of("key1").at(0);
  EXPECT_EQ(recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v)),
            "7e5f4552091a69125d5dfcb7b8c2659029395bdf");
}

TEST(RestoreAddress, TheOtherParityGivesADifferentAddressNotAFailure) {
  std::mt19937_64 rng(2);
  for (int i = 0; i < 10; ++i) {
    const Signed sig = random_signature(rng);
    const std::string flipped =
        recover_hex(sig.digest, sig.r, sig.s, static_cast<unsigned char>(sig.v ^ 1));
    EXPECT_NE(flipped, sig.address);
    EXPECT_NE(flipped, kZeroKeyAddress);
    EXPECT_EQ(flipped, secp_recover(sig.digest, sig.r, sig.s, sig.v ^ 1));
  }
  for (const Vector& v : vectors_of("other-parity")) {
    EXPECT_EQ(recover_hex(v.digest, v.r, v.s, static_cast<unsigned char>(v.v)), v.address);
  }
}

TEST(RestoreAddress, V27Or28GivesTheZeroKeyAddress) {
  std::mt19937_64 rng(3);
  for (int i = 0; i < 10; ++i) {
    const Signed sig = random_signature(rng);
    EXPECT_EQ(recover_hex(sig.digest, sig.r, sig.s, 27), kZeroKeyAddress);
    EXPECT_EQ(recover_hex(sig.digest, sig.r, sig.s, 28), kZeroKeyAddress);
    EXPECT_EQ(recover_hex(sig.digest, sig.r, sig.s, sig.v), sig.address);
  }
}

TEST(RestoreAddress, RZeroGivesTheZeroKeyAddress) {
  std::mt19937_64 rng(4);
  const Signed sig = random_signature(rng);
  for (unsigned char v : {0, 1, 2, 3}) {
    EXPECT_EQ(recover_hex(sig.digest, std::string(32, '\0'), sig.s, v), kZeroKeyAddress);
    EXPECT_EQ(recover_hex(sig.digest, std::string(), sig.s, v), kZeroKeyAddress);
  }
}

TEST(RestoreAddress, RAtOrAboveTheFieldPrimeGivesTheZeroKeyAddress) {
  const std::string p = from_hex("fffffffffffffffffffffffffffffffffffffffffffffffffffffffefffffc2f");
  const std::string p_plus_1 =
      from_hex("fffffffffffffffffffffffffffffffffffffffffffffffffffffffefffffc30");
  std::mt19937_64 rng(5);
  const Signed sig = random_signature(rng);
  for (const std::string& r : {p, p_plus_1, std::string(32, '\xff'), std::string(40, '\x7f')}) {
    for (unsigned char v : {0, 1}) {
      EXPECT_EQ(recover_hex(sig.digest, r, sig.s, v), kZeroKeyAddress) << to_hex(r);
    }
  }
}

TEST(RestoreAddress, ALongerDigestCountsByItsLeftmost256Bits) {
  std::mt19937_64 rng(6);
  for (int i = 0; i < 10; ++i) {
    unsigned char key[32];
    unsigned char digest[32];
    random_key(rng, key);
    random_bytes(rng, digest, sizeof digest);
    digest[0] |= 0x80;  // 256 significant bits: the extra bytes are what is cut
    const Signed sig = sign(key, digest);
    std::string longer = sig.digest;
    for (int extra = 0; extra < 1 + i; ++extra) {
      longer += static_cast<char>(rng());
    }
    EXPECT_EQ(recover_hex(longer, sig.r, sig.s, sig.v), sig.address);
    // A leading zero byte does not make a number longer.
    EXPECT_EQ(recover_hex(std::string(1, '\0') + sig.digest, sig.r, sig.s, sig.v), sig.address);
  }
}

TEST(RestoreAddress, AShorterDigestIsTheSmallerNumberItEncodes) {
  std::mt19937_64 rng(7);
  for (std::size_t kept : {std::size_t{0}, std::size_t{1}, std::size_t{20}, std::size_t{31}}) {
    unsigned char key[32];
    unsigned char digest[32] = {};
    random_key(rng, key);
    random_bytes(rng, digest + 32 - kept, kept);
    const Signed sig = sign(key, digest);
    EXPECT_EQ(recover_hex(sig.digest.substr(32 - kept), sig.r, sig.s, sig.v), sig.address)
        << kept << " bytes";
  }
}

TEST(RestoreAddress, TheResultAlwaysHas20Bytes) {
  std::mt19937_64 rng(8);
  for (int i = 0; i < 200; ++i) {
    auto random_string = [&](std::size_t max) {
      std::string s(rng() % (max + 1), '\0');
      for (char& c : s) {
        c = static_cast<char>(rng());
      }
      return s;
    };
    const std::string address =
        RestoreAddress(random_string(70), random_string(40), random_string(40),
                       static_cast<unsigned char>(rng()));
    EXPECT_EQ(address.size(), 20u);
  }
}

// --- against libsecp256k1 ---------------------------------------------------------

TEST(RestoreAddressVsLibsecp256k1, RandomKeysAndDigests) {
  std::mt19937_64 rng(9);
  for (int i = 0; i < 200; ++i) {
    const Signed sig = random_signature(rng);
    ASSERT_EQ(recover_hex(sig.digest, sig.r, sig.s, sig.v), sig.address) << "signature " << i;
  }
}

TEST(RestoreAddressVsLibsecp256k1, RandomInputsSucceedAndFailAlike) {
  // Random r, s and digests below n, recovery ids 0..3, and small r so that
  // ids 2 and 3 (x = r + n) can hit a point. Both sides must agree on the
  // address and on which inputs fail.
  std::mt19937_64 rng(10);
  int failures = 0;
  for (int i = 0; i < 400; ++i) {
    unsigned char r[32];
    unsigned char s[32];
    unsigned char digest[32];
    random_bytes(rng, r, 32);
    random_bytes(rng, s, 32);
    random_bytes(rng, digest, 32);
    r[0] &= 0x7f;  // below n
    s[0] &= 0x7f;
    const int recid = static_cast<int>(rng() % 4);
    if (recid >= 2 && i % 2 == 0) {
      std::fill(r, r + 16, 0);  // r + n below p
    }
    const std::string expected = secp_recover(bytes(digest, 32), bytes(r, 32), bytes(s, 32), recid);
    failures += expected == kZeroKeyAddress;
    EXPECT_EQ(recover_hex(bytes(digest, 32), bytes(r, 32), bytes(s, 32),
                          static_cast<unsigned char>(recid)),
              expected)
        << "case " << i << " recid " << recid;
  }
  // Roughly half of all x values are on the curve: both outcomes occurred.
  EXPECT_GT(failures, 50);
  EXPECT_LT(failures, 350);
}

// --- behaviour around the call ------------------------------------------------------

TEST(RestoreAddress, LeavesOpenSslsErrorQueueAsItWas) {
  std::mt19937_64 rng(11);
  const Signed sig = random_signature(rng);
  ERR_clear_error();
  EXPECT_EQ(recover_hex(sig.digest, std::string(32, '\0'), sig.s, 0), kZeroKeyAddress);
  EXPECT_EQ(ERR_peek_error(), 0u) << "a failed recovery left an error behind";

  ERR_raise(ERR_LIB_USER, 42);
  const unsigned long earlier = ERR_peek_last_error();
  EXPECT_EQ(recover_hex(sig.digest, std::string(32, '\xff'), sig.s, 0), kZeroKeyAddress);
  EXPECT_EQ(recover_hex(sig.digest, sig.r, sig.s, sig.v), sig.address);
  EXPECT_EQ(ERR_peek_last_error(), earlier) << "the caller's own error was disturbed";
  ERR_clear_error();
}

TEST(RestoreAddress, ConcurrentCallsGiveTheSameAddresses) {
  const auto sigs = vectors_of("sig");
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t k = 0; k < sigs.size(); ++k) {
        const Vector& v = sigs[(k + 50 * static_cast<std::size_t>(t)) % sigs.size()];
        if (to_hex(RestoreAddress(v.digest, v.r, v.s, static_cast<unsigned char>(v.v))) !=
            v.address) {
          ++wrong[static_cast<std::size_t>(t)];
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(wrong[static_cast<std::size_t>(t)], 0) << "thread " << t;
  }
}

TEST(RestoreAddressOn, AGroupBuiltPerCallGivesTheSameAddress) {
  std::mt19937_64 rng(12);
  for (int i = 0; i < 5; ++i) {
    const Signed sig = random_signature(rng);
    EC_GROUP* group = EC_GROUP_new_by_curve_name(NID_secp256k1);
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(to_hex(test::tools::detail::restoreAddressOn(group, sig.digest, sig.r, sig.s, sig.v)),
              sig.address);
    EC_GROUP_free(group);
  }
}

TEST(RestoreAddressOn, NoGroupGivesTheZeroKeyAddress) {
  std::mt19937_64 rng(13);
  const Signed sig = random_signature(rng);
  EXPECT_EQ(to_hex(test::tools::detail::restoreAddressOn(nullptr, sig.digest, sig.r, sig.s, sig.v)),
            kZeroKeyAddress);
}

TEST(RestoreAddressOn, AGroupWithAnotherCofactorIsRefused) {
  // secp256k1's own parameters, but declared with cofactor 2: the recovery
  // skips the order check only because the cofactor is 1, so it must refuse.
  std::mt19937_64 rng(14);
  const Signed sig = random_signature(rng);
  const EC_GROUP* real = test::tools::detail::secp256k1Group();
  ASSERT_NE(real, nullptr);
  EC_GROUP* group = EC_GROUP_dup(real);
  ASSERT_NE(group, nullptr);
  BIGNUM* two = BN_new();
  ASSERT_NE(two, nullptr);
  ASSERT_EQ(1, BN_set_word(two, 2));
  ASSERT_EQ(1, EC_GROUP_set_generator(group, EC_GROUP_get0_generator(real),
                                      EC_GROUP_get0_order(real), two));
  EXPECT_EQ(to_hex(test::tools::detail::restoreAddressOn(group, sig.digest, sig.r, sig.s, sig.v)),
            kZeroKeyAddress);
  EXPECT_EQ(to_hex(test::tools::detail::restoreAddressOn(real, sig.digest, sig.r, sig.s, sig.v)),
            sig.address);
  BN_free(two);
  EC_GROUP_free(group);
}

}  // namespace
