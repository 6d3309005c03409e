/*
 * secp256k1 keys for the keystore: BIP-32 derivation of private keys, the
 * account address of a key, and recoverable ECDSA signatures, on
 * libsecp256k1.
 */
#ifndef KEYSTORE_KEYS_H
#define KEYSTORE_KEYS_H

#include <secp256k1.h>

#include <cstddef>
#include <cstdint>

#include "Secure.h"

namespace keystore {

/* One node of a BIP-32 tree: a private key and its chain code. */
struct Node {
  Secret<32> key;
  Secret<32> chain;
};

/* A randomised libsecp256k1 context, made once per TA instance. */
class Curve {
 public:
  /* Returns a context blinded with `seed32` (32 random bytes, which the
   * caller wipes), or null when libsecp256k1 could not make one. */
  static Curve* Create(const unsigned char seed32[32]);
  ~Curve();
  Curve(const Curve&) = delete;
  Curve& operator=(const Curve&) = delete;

  /* The public key of a valid private key. Returns false for an invalid key. */
  [[nodiscard]] bool PublicKey(const unsigned char key[32], secp256k1_pubkey* out) const;

  /* The account address of a public key: the last 20 bytes of Keccak-256 of
   * its 64-byte uncompressed form (x || y). */
  [[nodiscard]] bool Address(const secp256k1_pubkey& pub, unsigned char out20[20]) const;

  /* Signs a 32-byte digest with RFC 6979 nonces and a low S, as
   * r (32, big-endian) || s (32, big-endian) || v (the recovery id, 0 or 1).
   * Returns false for an invalid key. */
  [[nodiscard]] bool Sign(const unsigned char key[32], const unsigned char digest[32],
                          unsigned char out65[65]) const;

  /* BIP-32: the master node of a seed (16 to 64 bytes).
   * Returns false when the seed gives an invalid key (BIP-32 says: use
   * another seed) or hashing failed. */
  [[nodiscard]] bool Master(const unsigned char* seed, std::size_t len, Node* out) const;

  /* BIP-32 CKDpriv: child `index` of `parent`, hardened when bit 31 is set.
   * In: parent_pub, the parent's public key (needed, and used, only for a
   *     non-hardened index; pass null to have it computed).
   * Returns false when the index gives an invalid key (BIP-32: proceed with
   * the next index; this keystore reports the failure) or hashing failed. */
  [[nodiscard]] bool Child(const Node& parent, const secp256k1_pubkey* parent_pub, uint32_t index,
                           Node* out) const;

 private:
  explicit Curve(secp256k1_context* ctx) : ctx_(ctx) {}
  secp256k1_context* ctx_;
};

}  // namespace keystore

#endif  // KEYSTORE_KEYS_H
