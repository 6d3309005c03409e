/* Secure-storage client for the host: deterministic identity tokens. */
#include "securestorage.h"

#include <openssl/evp.h>
#include <string.h>

static const char kDomain[] = "tessera.securestorage.credential";

static void store_le32(unsigned char* p, uint32_t v) {
  p[0] = (unsigned char)v;
  p[1] = (unsigned char)(v >> 8);
  p[2] = (unsigned char)(v >> 16);
  p[3] = (unsigned char)(v >> 24);
}

int ss_init_credential(credential* cred, uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3,
                       uint32_t w4, uint32_t version, uint32_t flags) {
  if (cred == NULL) return SS_ERROR_INVALID_PARAMETER;
  memset(cred, 0, sizeof *cred);
  if (version != SS_CREDENTIAL_VERSION) return SS_ERROR_NOT_SUPPORTED;
  if (flags != 0) return SS_ERROR_INVALID_PARAMETER;
  if ((w0 | w1 | w2 | w3 | w4) == 0) return SS_ERROR_INVALID_PARAMETER;

  unsigned char msg[sizeof kDomain - 1 + 7 * 4];
  memcpy(msg, kDomain, sizeof kDomain - 1);
  const uint32_t words[7] = {w0, w1, w2, w3, w4, version, flags};
  for (size_t i = 0; i < 7; ++i) store_le32(msg + sizeof kDomain - 1 + 4 * i, words[i]);

  unsigned int len = 0;
  if (EVP_Digest(msg, sizeof msg, cred->token, &len, EVP_sha256(), NULL) != 1 ||
      len != SS_TOKEN_SIZE) {
    memset(cred, 0, sizeof *cred);
    return SS_ERROR_INTERNAL;
  }
  cred->version = version;
  cred->flags = flags;
  return SS_SUCCESS;
}
