/*
 * A wallet as the keystore stores it: one persistent object per
 * (credential token, selector word) in the TA's private storage, holding the
 * seed (BIP-39 entropy) and the PIN state.
 *
 * Object id: "wallet:" followed by 48 hex digits of
 *   SHA-256("tessera.keystore.wallet" || token || selector as 4 LE bytes),
 * so object names reveal neither the token nor the selector.
 *
 * Record, 88 bytes (teesim encrypts and authenticates it at rest):
 *   0   magic "TKSW"          4   version (1)
 *   5   entropy length        6   PIN set (0 or 1)
 *   7   PIN failures (0..5)   8   entropy, 32 bytes, zero-padded
 *   40  PIN salt, 16 bytes    56  PIN MAC, 32 bytes
 * The PIN itself is never stored: only HMAC-SHA256(pin key, salt || PIN),
 * where pin key = HMAC-SHA256(entropy, "tessera.keystore.pin-key"), so the
 * MAC is worthless without the seed and cannot outlive it.
 */
#ifndef KEYSTORE_WALLET_H
#define KEYSTORE_WALLET_H

#include <cstddef>
#include <cstdint>

#include "Secure.h"
#include "keystore_ta.h"
#include "tee_internal_api.h"

namespace keystore {

/* Consecutive mismatches after which the PIN is locked. */
constexpr uint8_t kMaxPinFailures = KEYSTORE_MAX_PIN_FAILURES;
constexpr std::size_t kRecordSize = 88;
constexpr std::size_t kPinSaltSize = 16;
constexpr std::size_t kPinMacSize = 32;

struct WalletRecord {
  uint8_t entropy_len = 0;
  Secret<32> entropy;
  bool pin_set = false;
  uint8_t pin_failures = 0;
  Secret<kPinSaltSize> pin_salt;
  Secret<kPinMacSize> pin_mac;
};

/* Copies every field of `from` into `to`. */
void CopyRecord(const WalletRecord& from, WalletRecord* to);

/* Serialises a record into exactly kRecordSize bytes (secret: wipe after). */
void EncodeRecord(const WalletRecord& record, unsigned char out[kRecordSize]);

/* Parses a stored record. Returns false for anything but a well-formed
 * version-1 record of exactly kRecordSize bytes. */
[[nodiscard]] bool DecodeRecord(const unsigned char* in, std::size_t len, WalletRecord* out);

/* The storage name of a wallet. */
struct WalletId {
  char text[7 + 48];
  static constexpr uint32_t size() { return sizeof text; }
  bool operator==(const WalletId& other) const;
};

/* Computes the id of (token, selector). Returns false when hashing failed. */
[[nodiscard]] bool MakeWalletId(const unsigned char token[32], uint32_t selector, WalletId* out);

/* PIN MAC of `pin` under the record's seed and the given salt. */
[[nodiscard]] bool PinMac(const WalletRecord& record, const unsigned char* pin, std::size_t pin_len,
                          const unsigned char salt[kPinSaltSize], unsigned char out[kPinMacSize]);

/* Storage. Each returns TEE_SUCCESS or the storage's own result:
 * TEE_ERROR_ITEM_NOT_FOUND when the wallet has no record, a passing failure
 * (TEE_ERROR_STORAGE_NOT_AVAILABLE, TEE_ERROR_BUSY, ...) as it came, and
 * TEE_ERROR_CORRUPT_OBJECT for a record that does not parse. A failure never
 * changes what is stored, except as the call says. */
TEE_Result LoadRecord(const WalletId& id, WalletRecord* out);
/* Replaces the record atomically (the old or the new one, never a mix). */
TEE_Result StoreRecord(const WalletId& id, const WalletRecord& record);
/* Removes the record. */
TEE_Result EraseRecord(const WalletId& id);

}  // namespace keystore

#endif  // KEYSTORE_WALLET_H
