// Signer address recovery on secp256k1 with OpenSSL's big numbers and curve
// arithmetic; the address hash is this project's Keccak-256.
//
// Given (e, r, s, v), the signer's key is Q = r^-1 (s R - e G), where R is
// the curve point with x coordinate r (+ n when v > 1) and the y parity in
// bit 0 of v. Every failure leaves the 64-byte key at zero, so the caller
// gets the address of the all-zero key and sees a mismatch.

#include "RestoreAddress.h"

#include "RestoreAddressImpl.h"
#include "keccak.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/obj_mac.h>

#include <atomic>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

namespace test::tools {
namespace {

constexpr std::size_t kCoordinateSize = 32;
constexpr std::size_t kPublicKeySize = 2 * kCoordinateSize;
constexpr std::size_t kHashSize = 32;
constexpr std::size_t kAddressSize = 20;

struct BnCtxFree {
  void operator()(BN_CTX* ctx) const { BN_CTX_free(ctx); }
};
struct PointFree {
  void operator()(EC_POINT* point) const { EC_POINT_free(point); }
};
struct GroupFree {
  void operator()(EC_GROUP* group) const { EC_GROUP_free(group); }
};
using BnCtxPtr = std::unique_ptr<BN_CTX, BnCtxFree>;
using PointPtr = std::unique_ptr<EC_POINT, PointFree>;
using GroupPtr = std::unique_ptr<EC_GROUP, GroupFree>;

// A BN_CTX frame that is ended however the scope is left.
class BnFrame {
 public:
  explicit BnFrame(BN_CTX* ctx) : ctx_(ctx) { BN_CTX_start(ctx_); }
  ~BnFrame() { BN_CTX_end(ctx_); }
  BnFrame(const BnFrame&) = delete;
  BnFrame& operator=(const BnFrame&) = delete;

 private:
  BN_CTX* ctx_;
};

// Errors that OpenSSL queues while a recovery fails (an r without inverse,
// an x off the curve) are an expected outcome here, not something for a
// later, unrelated OpenSSL user of this thread to find: they are dropped
// again, down to whatever was queued before.
class ErrorMark {
 public:
  ErrorMark() { ERR_set_mark(); }
  ~ErrorMark() { ERR_pop_to_mark(); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
};

// The whole string as a big-endian number.
bool load(BIGNUM* bn, const std::string& bytes) {
  if (bytes.size() > static_cast<std::size_t>(INT_MAX)) {
    return false;  // longer than OpenSSL can read
  }
  return BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()),
                   static_cast<int>(bytes.size()), bn) != nullptr;
}

// Recovers the signer's public key into key (x then y, big-endian, 32 bytes
// each). Returns true on success; on failure key is left untouched.
bool recover_public_key(const EC_GROUP* group, const std::string& digest, const std::string& sig_r,
                        const std::string& sig_s, unsigned char sig_v,
                        unsigned char (&key)[kPublicKeySize]) {
  if (group == nullptr) {
    return false;
  }
  // Every point of a curve whose cofactor is 1 has the group's order n, so
  // n R is the point at infinity for any R that lies on the curve, and R is
  // only ever built on it (EC_POINT_set_compressed_coordinates checks).
  // That is why the textbook check "n R must be at infinity" is not made
  // below: it cannot fail, and OpenSSL would run it on its constant-time
  // ladder at about the cost of the whole recovery. A curve with another
  // cofactor would need the check, so such a group is refused.
  const BIGNUM* const cofactor = EC_GROUP_get0_cofactor(group);
  if (cofactor == nullptr || !BN_is_one(cofactor)) {
    return false;
  }

  const BnCtxPtr ctx(BN_CTX_new());
  if (!ctx) {
    return false;
  }
  const PointPtr R(EC_POINT_new(group));
  const PointPtr Q(EC_POINT_new(group));
  if (!R || !Q) {
    return false;
  }

  const BnFrame frame(ctx.get());
  BIGNUM* const r = BN_CTX_get(ctx.get());
  BIGNUM* const s = BN_CTX_get(ctx.get());
  BIGNUM* const e = BN_CTX_get(ctx.get());
  BIGNUM* const n = BN_CTX_get(ctx.get());
  BIGNUM* const p = BN_CTX_get(ctx.get());
  BIGNUM* const x = BN_CTX_get(ctx.get());
  BIGNUM* const zero = BN_CTX_get(ctx.get());
  BIGNUM* const r_inv = BN_CTX_get(ctx.get());
  BIGNUM* const u1 = BN_CTX_get(ctx.get());
  BIGNUM* const u2 = BN_CTX_get(ctx.get());
  BIGNUM* const x_q = BN_CTX_get(ctx.get());
  BIGNUM* const y_q = BN_CTX_get(ctx.get());
  if (y_q == nullptr) {
    return false;  // once BN_CTX_get fails, every later call fails too
  }

  if (!load(r, sig_r) || !load(s, sig_s) || !load(e, digest) ||
      !EC_GROUP_get_order(group, n, ctx.get()) ||
      !EC_GROUP_get_curve(group, p, nullptr, nullptr, ctx.get())) {
    return false;
  }

  // R: x coordinate r, or r + n for a recovery id above 1; y parity from
  // bit 0 of the id.
  if (!(sig_v > 1 ? BN_add(x, r, n) : BN_copy(x, r) != nullptr)) {
    return false;
  }
  if (BN_cmp(x, p) >= 0) {
    return false;
  }
  if (!EC_POINT_set_compressed_coordinates(group, R.get(), x, sig_v & 1, ctx.get())) {
    return false;  // x is not the x coordinate of a curve point
  }

  // e: the digest's leftmost bits, as many as the order has, negated mod n.
  const int degree = EC_GROUP_get_degree(group);
  const int e_bits = BN_num_bits(e);
  if (e_bits > degree && !BN_rshift(e, e, e_bits - degree)) {
    return false;
  }
  if (!BN_set_word(zero, 0) || !BN_mod_sub(e, zero, e, n, ctx.get())) {
    return false;
  }

  // Q = u1 G + u2 R with u1 = -e / r and u2 = s / r (mod n).
  if (BN_mod_inverse(r_inv, r, n, ctx.get()) == nullptr) {
    return false;  // r is 0 mod n
  }
  if (!BN_mod_mul(u2, s, r_inv, n, ctx.get()) || !BN_mod_mul(u1, e, r_inv, n, ctx.get())) {
    return false;
  }
  if (!EC_POINT_mul(group, Q.get(), u1, R.get(), u2, ctx.get())) {
    return false;
  }
  if (!EC_POINT_get_affine_coordinates(group, Q.get(), x_q, y_q, ctx.get())) {
    return false;  // Q is the point at infinity
  }

  unsigned char recovered[kPublicKeySize];
  if (BN_bn2binpad(x_q, recovered, kCoordinateSize) < 0 ||
      BN_bn2binpad(y_q, recovered + kCoordinateSize, kCoordinateSize) < 0) {
    return false;
  }
  std::memcpy(key, recovered, sizeof key);
  return true;
}

// Owns the group kept for the whole run, and frees it at exit.
struct SharedGroup {
  ~SharedGroup() { EC_GROUP_free(group.load(std::memory_order_acquire)); }
  std::atomic<EC_GROUP*> group{nullptr};
};

}  // namespace

namespace detail {

const EC_GROUP* secp256k1Group() {
  // OpenSSL registers its own exit-time clean-up when it initialises. Doing
  // that before this holder is constructed makes the holder's destructor,
  // registered later, run earlier: the group is freed while OpenSSL is
  // still intact.
  static SharedGroup shared = (OPENSSL_init_crypto(0, nullptr), SharedGroup{});

  EC_GROUP* const kept = shared.group.load(std::memory_order_acquire);
  if (kept != nullptr) {
    return kept;
  }
  GroupPtr fresh(EC_GROUP_new_by_curve_name(NID_secp256k1));
  if (!fresh) {
    return nullptr;  // a later call tries again
  }
  EC_GROUP* expected = nullptr;
  if (shared.group.compare_exchange_strong(expected, fresh.get(), std::memory_order_acq_rel)) {
    return fresh.release();
  }
  return expected;  // another thread was first; ours is freed
}

std::string restoreAddressOn(const EC_GROUP* group, const std::string& digest,
                             const std::string& sig_r, const std::string& sig_s,
                             unsigned char sig_v) {
  unsigned char key[kPublicKeySize] = {};  // stays zero unless recovery succeeds
  {
    const ErrorMark mark;
    (void)recover_public_key(group, digest, sig_r, sig_s, sig_v, key);
  }

  keccak_ctx ctx;
  keccak_init(&ctx);
  keccak_update(&ctx, key, kPublicKeySize);
  std::string hash(kHashSize, '\0');
  keccak_final(&ctx, reinterpret_cast<unsigned char*>(&hash[0]));
  return hash.substr(kHashSize - kAddressSize);
}

}  // namespace detail

std::string RestoreAddress(const std::string& digest, const std::string& sig_r,
                           const std::string& sig_s, unsigned char sig_v) {
  return detail::restoreAddressOn(detail::secp256k1Group(), digest, sig_r, sig_s, sig_v);
}

}  // namespace test::tools
