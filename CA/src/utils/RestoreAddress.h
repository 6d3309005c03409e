// Signer address recovery from a secp256k1 ECDSA signature.
#ifndef TESSERA_UTILS_RESTOREADDRESS_H
#define TESSERA_UTILS_RESTOREADDRESS_H

#include <string>

namespace test::tools {

/* Recovers the account address of the key that made an ECDSA signature on
 * secp256k1.
 *
 * Returns: 20 raw bytes (not hex): the last 20 bytes of the Keccak-256
 *          digest of the signer's 64-byte public key, x then y, each 32 bytes
 *          big-endian. When the key cannot be recovered (r is 0 or has no
 *          inverse, x = r (+ n) is not below the field prime or is not the x
 *          coordinate of a curve point, the recovered point is at infinity,
 *          or OpenSSL fails) the result is the address of the all-zero key,
 *          3f17f1962b36e491b30a40b2405849e597ba5fb5 in hex. A failed recovery
 *          thus shows as a wrong address; nothing is logged or thrown for bad
 *          input, and OpenSSL's error queue is left as it was found.
 * Args:    all byte strings are used as raw big-endian numbers over their
 *          whole length, and only read.
 *  In:     digest: the signed message digest, normally 32 bytes. A longer one
 *                  is cut to its leftmost 256 bits (as a number); a shorter
 *                  one is the smaller number it encodes.
 *          sig_r:  the signature's r, normally 32 bytes.
 *          sig_s:  the signature's s, normally 32 bytes (used modulo n).
 *          sig_v:  the recovery id: bit 0 is the parity of y of the point R;
 *                  any value above 1 means R's x is r + n (once). The 27/28
 *                  convention of some formats is not accepted: subtract 27.
 * Throws:  only std::bad_alloc when memory runs out; no OpenSSL object is
 *          left behind on any path.
 * Thread safety: may be called from any number of threads at once. */
[[nodiscard]] std::string RestoreAddress(const std::string& digest, const std::string& sig_r,
                                         const std::string& sig_s, unsigned char sig_v);

}  // namespace test::tools

#endif  // TESSERA_UTILS_RESTOREADDRESS_H
