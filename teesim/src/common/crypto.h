/*
 * The few primitives the secure side needs, on OpenSSL 3: SHA-256,
 * HMAC-SHA-256, HKDF-SHA-256 and AES-256-GCM. All return false on an OpenSSL
 * failure; none allocates memory that outlives the call.
 */
#ifndef TEESIM_COMMON_CRYPTO_H
#define TEESIM_COMMON_CRYPTO_H

#include <cstddef>
#include <cstdint>

namespace teesim::crypto {

inline constexpr size_t kGcmNonceSize = 12;
inline constexpr size_t kGcmTagSize = 16;

/* Out: digest, 32 bytes. In: data, len. */
[[nodiscard]] bool sha256(uint8_t digest[32], const void* data, size_t len);

/* Out: mac, 32 bytes. In: key, key_len; data, len. */
[[nodiscard]] bool hmac_sha256(uint8_t mac[32], const uint8_t* key, size_t key_len,
                               const void* data, size_t len);

/* RFC 5869 HKDF with SHA-256.
 * Out: okm, okm_len bytes (at most 255 * 32).
 * In: ikm, ikm_len (input key material); salt, salt_len; info, info_len. */
[[nodiscard]] bool hkdf_sha256(uint8_t* okm, size_t okm_len, const uint8_t* ikm, size_t ikm_len,
                               const uint8_t* salt, size_t salt_len, const uint8_t* info,
                               size_t info_len);

/* AES-256-GCM encryption with a 16-byte tag.
 * Out: ciphertext, len bytes (may equal plaintext); tag, 16 bytes.
 * In: key, 32 bytes; nonce, 12 bytes; aad, aad_len; plaintext, len. */
[[nodiscard]] bool aes256gcm_seal(uint8_t* ciphertext, uint8_t tag[kGcmTagSize],
                                  const uint8_t key[32], const uint8_t nonce[kGcmNonceSize],
                                  const uint8_t* aad, size_t aad_len, const uint8_t* plaintext,
                                  size_t len);

/* AES-256-GCM decryption. Returns false when the tag does not verify (then
 * `plaintext` is wiped) or OpenSSL fails.
 * Out: plaintext, len bytes. In: as for seal, with the received tag. */
[[nodiscard]] bool aes256gcm_open(uint8_t* plaintext, const uint8_t key[32],
                                  const uint8_t nonce[kGcmNonceSize], const uint8_t* aad,
                                  size_t aad_len, const uint8_t* ciphertext, size_t len,
                                  const uint8_t tag[kGcmTagSize]);

/* Fills buf with bytes from the OS random source. */
[[nodiscard]] bool os_random(void* buf, size_t len);

}  // namespace teesim::crypto

#endif  // TEESIM_COMMON_CRYPTO_H
