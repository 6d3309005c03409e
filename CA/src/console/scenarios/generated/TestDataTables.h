/* The constant test vectors compiled into the console. The values live in
 * TestDataTables.cpp, which ../testdata/make_test_vectors.py writes from
 * ../testdata/inputs.json with independent implementations of BIP-39,
 * BIP-32, secp256k1 ECDSA and Keccak-256; a test reruns the generator and
 * compares every value with these tables.
 *
 * Per-account tables have one row per (data set d, account a), at row
 * kAccountCount * d + a; a row holds the value for the key at
 * m/44'/60'/0'/0/a of the wallet whose BIP-39 entropy is kSeeds[d] (empty
 * passphrase). Byte strings are raw, big-endian where they are numbers. */

#ifndef TESSERA_CONSOLE_TESTDATATABLES_H
#define TESSERA_CONSOLE_TESTDATATABLES_H

#include <cstdint>

#include "keystore_ta.h"

namespace test {
namespace vectors {

constexpr unsigned int kDataSetCount = 5;
constexpr unsigned int kAccountCount = 5;
constexpr unsigned int kRowCount = kDataSetCount * kAccountCount;
constexpr unsigned int kPinCount = 4;
constexpr unsigned int kPinLength = 6;
constexpr unsigned int kSpecialTransactionCount = 11;
constexpr unsigned int kSeedSize = 16;
constexpr unsigned int kKeySize = KEYSTORE_PRIVATE_KEY_SIZE;
constexpr unsigned int kAddressSize = KEYSTORE_ADDRESS_SIZE;
constexpr unsigned int kDigestSize = KEYSTORE_DIGEST_SIZE;

/* Test PINs: 6 ASCII decimal digits, NUL-terminated. */
extern const char kPins[kPinCount][kPinLength + 1];
/* BIP-39 English phrase (12 words, single blanks) of each data set's seed. */
extern const char* const kMnemonics[kDataSetCount];
/* The 128-bit BIP-39 entropy of each data set; data set 0 is all zero. */
extern const unsigned char kSeeds[kDataSetCount][kSeedSize];
/* Length of each seed in bytes (16). */
extern const uint32_t kSeedLengths[kDataSetCount];
/* Private key at m/44'/60'/0'/0/a. */
extern const unsigned char kPrivateKeys[kRowCount][kKeySize];
/* Account address: the last 20 bytes of the Keccak-256 of the uncompressed
 * public key without its 0x04 prefix. */
extern const unsigned char kAddresses[kRowCount][kAddressSize];
/* Signature of kApiTestDigest by the row's key: secp256k1 ECDSA with RFC 6979
 * nonces (HMAC-SHA256), S normalised to the lower half, and v the recovery id
 * (0 or 1) of the normalised signature. */
extern const unsigned char kSignatureR[kRowCount][kKeySize];
extern const unsigned char kSignatureS[kRowCount][kKeySize];
extern const unsigned char kSignatureV[kRowCount];
/* The seed the special transactions are signed with; none of kSeeds. */
extern const unsigned char kSpecialSeed[kSeedSize];
/* Digests that probe the edges of signing: 0, 1, n, n-1, n+1, 2^256-1, p,
 * 2^255, then the hashes of three sample transactions. Those at or above the
 * group order have no valid signature of their own meaning; they only have to
 * be offered to the keystore. */
extern const unsigned char kSpecialTransactions[kSpecialTransactionCount][kDigestSize];
/* The digest the API signing test signs. */
extern const unsigned char kApiTestDigest[kDigestSize];

}  // namespace vectors
}  // namespace test

#endif  // TESSERA_CONSOLE_TESTDATATABLES_H
