// Fuzz target: RestoreAddress on arbitrary byte strings never fails, never
// leaks (the sanitizers watch) and always returns 20 bytes; on inputs that
// libsecp256k1 also accepts as a signature it returns the same address.
//
// Input: byte 0 is v. A 97-byte input is read as v, a 32-byte digest, r and
// s, the shape libsecp256k1 takes; any other input as v, then one byte each
// for the lengths of digest and r, then digest, r and (the rest) s.

#include "RestoreAddress.h"
#include "keccak.h"

#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

secp256k1_context* secp() {
  static secp256k1_context* const ctx = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  return ctx;
}

// libsecp256k1's address for (digest, r || s, recid); false when it refuses
// the signature or when the specified recovery and libsecp256k1 are known to
// differ (s = 0, r or s at or above n: libsecp256k1 refuses, the recovery
// does not).
bool secp_address(const unsigned char* digest, const unsigned char* rs, int recid,
                  std::string& address) {
  static const unsigned char zero[32] = {};
  if (recid > 3 || std::memcmp(rs + 32, zero, 32) == 0) {
    return false;
  }
  secp256k1_ecdsa_recoverable_signature sig;
  if (!secp256k1_ecdsa_recoverable_signature_parse_compact(secp(), &sig, rs, recid)) {
    return false;  // r or s overflows n
  }
  secp256k1_pubkey pub;
  unsigned char key[65] = {};
  std::size_t length = sizeof key;
  if (secp256k1_ecdsa_recover(secp(), &pub, &sig, digest)) {
    if (!secp256k1_ec_pubkey_serialize(secp(), key, &length, &pub, SECP256K1_EC_UNCOMPRESSED)) {
      std::abort();
    }
  }  // else: refused for a reason the recovery shares; the key stays zero
  keccak_ctx ctx;
  keccak_init(&ctx);
  keccak_update(&ctx, key + 1, 64);
  unsigned char hash[32];
  keccak_final(&ctx, hash);
  address.assign(reinterpret_cast<const char*>(hash + 12), 20);
  return true;
}

std::string take(const uint8_t*& p, std::size_t& left, std::size_t n) {
  n = std::min(n, left);
  std::string s(reinterpret_cast<const char*>(p), n);
  p += n;
  left -= n;
  return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
  if (size == 0) {
    return 0;
  }
  const unsigned char v = input[0];
  const uint8_t* p = input + 1;
  std::size_t left = size - 1;

  if (size == 97) {
    const std::string digest = take(p, left, 32);
    const std::string r = take(p, left, 32);
    const std::string s = take(p, left, 32);
    const std::string address = test::tools::RestoreAddress(digest, r, s, v);
    if (address.size() != 20) {
      std::abort();
    }
    unsigned char rs[64];
    std::memcpy(rs, input + 33, 64);
    std::string expected;
    if (secp_address(input + 1, rs, v, expected) && address != expected) {
      std::abort();
    }
    return 0;
  }

  const std::size_t digest_length = left > 0 ? *p : 0;
  take(p, left, 1);
  const std::size_t r_length = left > 0 ? *p : 0;
  take(p, left, 1);
  const std::string digest = take(p, left, digest_length);
  const std::string r = take(p, left, r_length);
  const std::string s = take(p, left, left);
  if (test::tools::RestoreAddress(digest, r, s, v).size() != 20) {
    std::abort();
  }
  return 0;
}
