// Public key, address and signature arithmetic on the client side.
#include "cases/KeyMath.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "RestoreAddress.h"
#include "keccak.h"
#include "secure_wipe.h"

namespace check {
namespace {

// n / 2 rounded down, big-endian: the largest low S.
constexpr unsigned char kHalfOrder[32] = {
    0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
    0x5d, 0x57, 0x6e, 0x73, 0x57, 0xa4, 0x50, 0x1d, 0xdf, 0xe9, 0x2f, 0x46, 0x68, 0x1b, 0x20, 0xa0};

struct GroupFree {
  void operator()(EC_GROUP* g) const { EC_GROUP_free(g); }
};
struct PointFree {
  void operator()(EC_POINT* p) const { EC_POINT_clear_free(p); }
};
struct BnFree {
  void operator()(BIGNUM* b) const { BN_clear_free(b); }
};
struct CtxFree {
  void operator()(BN_CTX* c) const { BN_CTX_free(c); }
};

// The curve, built once per process (building it costs more than a
// multiplication) and kept to the end.
const EC_GROUP* Secp256k1() {
  static const std::unique_ptr<EC_GROUP, GroupFree> group(EC_GROUP_new_by_curve_name(NID_secp256k1));
  return group.get();
}

}  // namespace

void PrepareKeyMath() {
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
  (void)Secp256k1();
  // Digests are fetched from the providers on first use (the credential is
  // a SHA-256).
  EVP_MD_free(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
}

std::optional<Address> AddressOfPrivateKey(const unsigned char key[32]) {
  const EC_GROUP* group = Secp256k1();
  if (group == nullptr) return std::nullopt;
  // A secure context: the ladder's temporaries, derived from the key, are
  // cleared when it is freed.
  std::unique_ptr<BN_CTX, CtxFree> ctx(BN_CTX_secure_new());
  std::unique_ptr<BIGNUM, BnFree> k(BN_secure_new());
  std::unique_ptr<EC_POINT, PointFree> point(EC_POINT_new(group));
  if (!ctx || !k || !point || BN_bin2bn(key, 32, k.get()) == nullptr) return std::nullopt;
  if (BN_is_zero(k.get()) || BN_cmp(k.get(), EC_GROUP_get0_order(group)) >= 0) return std::nullopt;
  BN_set_flags(k.get(), BN_FLG_CONSTTIME);
  if (EC_POINT_mul(group, point.get(), k.get(), nullptr, nullptr, ctx.get()) != 1) return std::nullopt;

  unsigned char pub[65];
  if (EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED, pub, sizeof pub,
                         ctx.get()) != sizeof pub) {
    return std::nullopt;
  }
  keccak_ctx hash;
  unsigned char digest[32];
  keccak_init(&hash);
  keccak_update(&hash, pub + 1, 64);
  keccak_final(&hash, digest);
  Address address;
  std::memcpy(address.data(), digest + 12, address.size());
  return address;
}

Address RecoverSigner(const unsigned char digest[32], const Signature& signature) {
  const auto* sig = signature.data();
  const std::string recovered = test::tools::RestoreAddress(
      std::string(reinterpret_cast<const char*>(digest), KEYSTORE_DIGEST_SIZE),
      std::string(reinterpret_cast<const char*>(sig), KEYSTORE_SIGNATURE_R_SIZE),
      std::string(reinterpret_cast<const char*>(sig) + KEYSTORE_SIGNATURE_R_SIZE,
                  KEYSTORE_SIGNATURE_S_SIZE),
      sig[KEYSTORE_SIGNATURE_V_OFFSET]);
  Address address{};
  std::memcpy(address.data(), recovered.data(), std::min(recovered.size(), address.size()));
  return address;
}

bool IsLowS(const unsigned char s[32]) {
  bool zero = true;
  for (int i = 0; i < 32; ++i) zero = zero && s[i] == 0;
  return !zero && std::memcmp(s, kHalfOrder, 32) <= 0;
}

}  // namespace check
