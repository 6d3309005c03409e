/* SHA-256, HMAC, HKDF and AES-256-GCM on OpenSSL 3; see crypto.h. */
#include "common/crypto.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <sys/random.h>

#include <cerrno>
#include <climits>
#include <memory>

#include "common/secret.h"

namespace teesim::crypto {
namespace {

struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

bool fits_int(size_t n) { return n <= static_cast<size_t>(INT_MAX); }

}  // namespace

bool sha256(uint8_t digest[32], const void* data, size_t len) {
  unsigned int out_len = 0;
  return EVP_Digest(data, len, digest, &out_len, EVP_sha256(), nullptr) == 1 && out_len == 32;
}

bool hmac_sha256(uint8_t mac[32], const uint8_t* key, size_t key_len, const void* data,
                 size_t len) {
  unsigned int out_len = 0;
  if (!fits_int(key_len)) return false;
  return HMAC(EVP_sha256(), key, static_cast<int>(key_len), static_cast<const unsigned char*>(data),
              len, mac, &out_len) != nullptr &&
         out_len == 32;
}

bool hkdf_sha256(uint8_t* okm, size_t okm_len, const uint8_t* ikm, size_t ikm_len,
                 const uint8_t* salt, size_t salt_len, const uint8_t* info, size_t info_len) {
  EVP_KDF* kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
  if (kdf == nullptr) return false;
  EVP_KDF_CTX* ctx = EVP_KDF_CTX_new(kdf);
  EVP_KDF_free(kdf);
  if (ctx == nullptr) return false;
  char digest[] = "SHA256";
  OSSL_PARAM params[5];
  size_t n = 0;
  params[n++] = OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0);
  params[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t*>(ikm),
                                                  ikm_len);
  params[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<uint8_t*>(salt),
                                                  salt_len);
  params[n++] = OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<uint8_t*>(info),
                                                  info_len);
  params[n] = OSSL_PARAM_construct_end();
  bool ok = EVP_KDF_derive(ctx, okm, okm_len, params) == 1;
  EVP_KDF_CTX_free(ctx);
  return ok;
}

bool aes256gcm_seal(uint8_t* ciphertext, uint8_t tag[kGcmTagSize], const uint8_t key[32],
                    const uint8_t nonce[kGcmNonceSize], const uint8_t* aad, size_t aad_len,
                    const uint8_t* plaintext, size_t len) {
  if (!fits_int(aad_len) || !fits_int(len)) return false;
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return false;
  int out = 0;
  if (EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kGcmNonceSize, nullptr) != 1 ||
      EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key, nonce) != 1)
    return false;
  if (aad_len > 0 &&
      EVP_EncryptUpdate(ctx.get(), nullptr, &out, aad, static_cast<int>(aad_len)) != 1)
    return false;
  if (len > 0 &&
      EVP_EncryptUpdate(ctx.get(), ciphertext, &out, plaintext, static_cast<int>(len)) != 1)
    return false;
  uint8_t final_block[16];
  if (EVP_EncryptFinal_ex(ctx.get(), final_block, &out) != 1) return false;
  return EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kGcmTagSize, tag) == 1;
}

bool aes256gcm_open(uint8_t* plaintext, const uint8_t key[32], const uint8_t nonce[kGcmNonceSize],
                    const uint8_t* aad, size_t aad_len, const uint8_t* ciphertext, size_t len,
                    const uint8_t tag[kGcmTagSize]) {
  if (!fits_int(aad_len) || !fits_int(len)) return false;
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return false;
  int out = 0;
  if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kGcmNonceSize, nullptr) != 1 ||
      EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key, nonce) != 1)
    return false;
  if (aad_len > 0 &&
      EVP_DecryptUpdate(ctx.get(), nullptr, &out, aad, static_cast<int>(aad_len)) != 1)
    return false;
  if (len > 0 &&
      EVP_DecryptUpdate(ctx.get(), plaintext, &out, ciphertext, static_cast<int>(len)) != 1)
    return false;
  uint8_t tag_copy[kGcmTagSize];
  std::copy(tag, tag + kGcmTagSize, tag_copy);
  uint8_t final_block[16];
  if (EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kGcmTagSize, tag_copy) != 1 ||
      EVP_DecryptFinal_ex(ctx.get(), final_block, &out) != 1) {
    wipe(plaintext, len);
    return false;
  }
  return true;
}

bool os_random(void* buf, size_t len) {
  auto* p = static_cast<uint8_t*>(buf);
  while (len > 0) {
    ssize_t n = ::getrandom(p, len, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace teesim::crypto
