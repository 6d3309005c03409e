/*
 * The hash functions the keystore needs, on OpenSSL's libcrypto. Every
 * function returns true on success and false only when libcrypto fails
 * (out of memory); outputs are then undefined and must not be used.
 */
#ifndef KEYSTORE_HASH_H
#define KEYSTORE_HASH_H

#include <cstddef>
#include <cstdint>

namespace keystore {

/* out32 = SHA-256(data[0..len)). */
[[nodiscard]] bool Sha256(const void* data, std::size_t len, unsigned char out32[32]);

/* out = HMAC-SHA256(key, data) (32 bytes) / HMAC-SHA512(key, data) (64 bytes).
 * In: key, key_len (any length); data, data_len. Out: out, owned by caller. */
[[nodiscard]] bool HmacSha256(const void* key, std::size_t key_len, const void* data,
                              std::size_t data_len, unsigned char out[32]);
[[nodiscard]] bool HmacSha512(const void* key, std::size_t key_len, const void* data,
                              std::size_t data_len, unsigned char out[64]);

/* out64 = PBKDF2-HMAC-SHA512(password, salt, iterations, 64 bytes). */
[[nodiscard]] bool Pbkdf2HmacSha512(const void* password, std::size_t password_len,
                                    const void* salt, std::size_t salt_len, uint32_t iterations,
                                    unsigned char out64[64]);

}  // namespace keystore

#endif  // KEYSTORE_HASH_H
