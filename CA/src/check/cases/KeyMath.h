/*
 * The client's own arithmetic on what the keystore returns, so that its
 * answers can be checked against each other without trusting any of them:
 * the address of a private key (OpenSSL's secp256k1 arithmetic and the
 * foundation's Keccak-256), the signer of a signature (the console's
 * RestoreAddress), and the form of a signature (low S, recovery id).
 */
#ifndef TESSERA_CHECK_KEYMATH_H
#define TESSERA_CHECK_KEYMATH_H

#include <array>
#include <optional>
#include <string>

#include "keystore_ta.h"

namespace check {

using Address = std::array<unsigned char, KEYSTORE_ADDRESS_SIZE>;
using Signature = std::array<unsigned char, KEYSTORE_SIGNATURE_SIZE>;

/* Returns the account address of a private key: the last 20 bytes of the
 * Keccak-256 of its uncompressed public key (x || y, 64 bytes), computed
 * with OpenSSL's constant-time scalar multiplication. Returns nothing when
 * the key is not a valid scalar (0, or not below the group order) or
 * OpenSSL fails. In: key, 32 bytes big-endian (secret: every copy made
 * here is wiped). */
[[nodiscard]] std::optional<Address> AddressOfPrivateKey(const unsigned char key[32]);

/* Returns the address of the key that made `signature` over `digest`, as
 * test::tools::RestoreAddress recovers it (r, s, v from the 65 bytes). */
[[nodiscard]] Address RecoverSigner(const unsigned char digest[32], const Signature& signature);

/* Makes OpenSSL ready ahead of the first check: it reads its configuration
 * and loads its providers on first use, and the curve is built once; done
 * early, on another thread, that work overlaps the opening of the TEE
 * connection. Safe to call from any thread, any number of times. */
void PrepareKeyMath();

/* Returns true when s (32 bytes, big-endian) is in 1 .. n/2, the lower half
 * of the group order that canonical signatures use. */
[[nodiscard]] bool IsLowS(const unsigned char s[32]);

}  // namespace check

#endif  // TESSERA_CHECK_KEYMATH_H
