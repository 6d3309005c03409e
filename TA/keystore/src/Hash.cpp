// The keystore's hash functions on OpenSSL's libcrypto.
#include "Hash.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <climits>

namespace keystore {
namespace {

// The HMAC implementation is fetched once: a TA instance runs one command
// at a time, and fetching per call costs more than a short MAC itself.
EVP_MAC* Hmac() {
  static EVP_MAC* mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  return mac;
}

bool Mac(const char* digest, const void* key, std::size_t key_len, const void* data,
         std::size_t data_len, unsigned char* out, std::size_t out_len) {
  EVP_MAC* mac = Hmac();
  if (mac == nullptr) return false;
  EVP_MAC_CTX* ctx = EVP_MAC_CTX_new(mac);
  if (ctx == nullptr) return false;
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(digest), 0),
      OSSL_PARAM_construct_end()};
  // An empty key is legal for HMAC; OpenSSL wants a non-null pointer for it.
  static const unsigned char kEmpty[1] = {0};
  const auto* k = key_len != 0 ? static_cast<const unsigned char*>(key) : kEmpty;
  std::size_t written = 0;
  const bool ok = EVP_MAC_init(ctx, k, key_len, params) == 1 &&
                  EVP_MAC_update(ctx, static_cast<const unsigned char*>(data), data_len) == 1 &&
                  EVP_MAC_final(ctx, out, &written, out_len) == 1 && written == out_len;
  EVP_MAC_CTX_free(ctx);  // cleanses the keyed state
  return ok;
}

}  // namespace

bool Sha256(const void* data, std::size_t len, unsigned char out32[32]) {
  unsigned int n = 0;
  return EVP_Digest(data, len, out32, &n, EVP_sha256(), nullptr) == 1 && n == 32;
}

bool HmacSha256(const void* key, std::size_t key_len, const void* data, std::size_t data_len,
                unsigned char out[32]) {
  return Mac("SHA256", key, key_len, data, data_len, out, 32);
}

bool HmacSha512(const void* key, std::size_t key_len, const void* data, std::size_t data_len,
                unsigned char out[64]) {
  return Mac("SHA512", key, key_len, data, data_len, out, 64);
}

bool Pbkdf2HmacSha512(const void* password, std::size_t password_len, const void* salt,
                      std::size_t salt_len, uint32_t iterations, unsigned char out64[64]) {
  if (password_len > INT_MAX || salt_len > INT_MAX || iterations == 0 || iterations > INT_MAX) {
    return false;
  }
  return PKCS5_PBKDF2_HMAC(static_cast<const char*>(password), static_cast<int>(password_len),
                           static_cast<const unsigned char*>(salt), static_cast<int>(salt_len),
                           static_cast<int>(iterations), EVP_sha512(), 64, out64) == 1;
}

}  // namespace keystore
