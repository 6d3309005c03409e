// BIP-32 derivation, addresses and recoverable signatures on libsecp256k1.
#include "Keys.h"

#include <secp256k1_recovery.h>

#include <cstring>

#include "Hash.h"
#include "keccak.h"

namespace keystore {

Curve* Curve::Create(const unsigned char seed32[32]) {
  secp256k1_context* ctx = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  if (ctx == nullptr) return nullptr;
  if (secp256k1_context_randomize(ctx, seed32) != 1) {
    secp256k1_context_destroy(ctx);
    return nullptr;
  }
  return new (std::nothrow) Curve(ctx);
}

Curve::~Curve() { secp256k1_context_destroy(ctx_); }

bool Curve::PublicKey(const unsigned char key[32], secp256k1_pubkey* out) const {
  return secp256k1_ec_pubkey_create(ctx_, out, key) == 1;
}

bool Curve::Address(const secp256k1_pubkey& pub, unsigned char out20[20]) const {
  unsigned char uncompressed[65];
  std::size_t len = sizeof uncompressed;
  if (secp256k1_ec_pubkey_serialize(ctx_, uncompressed, &len, &pub, SECP256K1_EC_UNCOMPRESSED) != 1 ||
      len != 65) {
    return false;
  }
  keccak_ctx k;
  unsigned char digest[32];
  keccak_init(&k);
  keccak_update(&k, uncompressed + 1, 64);  // without the 0x04 prefix
  keccak_final(&k, digest);
  std::memcpy(out20, digest + 12, 20);
  return true;
}

bool Curve::Sign(const unsigned char key[32], const unsigned char digest[32],
                 unsigned char out65[65]) const {
  secp256k1_ecdsa_recoverable_signature sig;
  // Null nonce function: RFC 6979; libsecp256k1 always produces a low S.
  if (secp256k1_ecdsa_sign_recoverable(ctx_, &sig, digest, key, nullptr, nullptr) != 1) return false;
  int recid = 0;
  if (secp256k1_ecdsa_recoverable_signature_serialize_compact(ctx_, out65, &recid, &sig) != 1) {
    return false;
  }
  out65[64] = static_cast<unsigned char>(recid);
  return true;
}

bool Curve::Master(const unsigned char* seed, std::size_t len, Node* out) const {
  static const char kKey[] = "Bitcoin seed";
  Secret<64> i;
  if (!HmacSha512(kKey, sizeof kKey - 1, seed, len, i.data())) return false;
  if (secp256k1_ec_seckey_verify(ctx_, i.data()) != 1) return false;  // zero or >= n
  std::memcpy(out->key.data(), i.data(), 32);
  std::memcpy(out->chain.data(), i.data() + 32, 32);
  return true;
}

bool Curve::Child(const Node& parent, const secp256k1_pubkey* parent_pub, uint32_t index,
                  Node* out) const {
  // data = 0x00 || k_par || ser32(i) for a hardened index,
  //        serP(K_par) || ser32(i) (compressed point) otherwise.
  Secret<37> data;
  if ((index & 0x80000000u) != 0) {
    data[0] = 0;
    std::memcpy(data.data() + 1, parent.key.data(), 32);
  } else {
    secp256k1_pubkey computed;
    if (parent_pub == nullptr) {
      if (!PublicKey(parent.key.data(), &computed)) return false;
      parent_pub = &computed;
    }
    std::size_t len = 33;
    if (secp256k1_ec_pubkey_serialize(ctx_, data.data(), &len, parent_pub, SECP256K1_EC_COMPRESSED) != 1 ||
        len != 33) {
      return false;
    }
  }
  data[33] = static_cast<unsigned char>(index >> 24);
  data[34] = static_cast<unsigned char>(index >> 16);
  data[35] = static_cast<unsigned char>(index >> 8);
  data[36] = static_cast<unsigned char>(index);

  Secret<64> i;
  if (!HmacSha512(parent.chain.data(), 32, data.data(), data.size(), i.data())) return false;
  // k_i = IL + k_par (mod n); fails when IL >= n or the sum is zero.
  std::memcpy(out->key.data(), parent.key.data(), 32);
  if (secp256k1_ec_seckey_tweak_add(ctx_, out->key.data(), i.data()) != 1) {
    out->key.Clear();
    return false;
  }
  std::memcpy(out->chain.data(), i.data() + 32, 32);
  return true;
}

}  // namespace keystore
