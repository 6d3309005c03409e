/*
 * Secure-storage client: the caller's identity towards Trusted Applications.
 *
 * A client application fills a `credential` once with ss_init_credential and
 * hands its first 32 bytes, the identity token, to a TA with each request.
 * The TA decides by that token which data the caller may reach.
 *
 * Host build: the token is derived deterministically from the deployment
 * words, so a TA installation can list the tokens it serves, and the same
 * words always give the same token:
 *   token = SHA-256("tessera.securestorage.credential" || w0 || ... || w4 ||
 *                   version || flags), each word as 4 little-endian bytes.
 */
#ifndef SECURESTORAGE_H
#define SECURESTORAGE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SS_TOKEN_SIZE 32u

/* The one credential version this library makes. */
#define SS_CREDENTIAL_VERSION 1u

/* Results of ss_init_credential. */
#define SS_SUCCESS 0
#define SS_ERROR_INVALID_PARAMETER (-1) /* null record, unknown flags, no identity */
#define SS_ERROR_NOT_SUPPORTED (-2)     /* a version other than SS_CREDENTIAL_VERSION */
#define SS_ERROR_INTERNAL (-3)          /* the hash could not be computed */

/* A caller's credential. Only `token` is meant to leave the process; the
 * fields after it belong to the library and may change. */
typedef struct credential {
  unsigned char token[SS_TOKEN_SIZE]; /* the identity token, first 32 bytes */
  uint32_t version;                   /* SS_CREDENTIAL_VERSION once filled */
  uint32_t flags;                     /* as given; no flag is defined yet */
} credential;

/* Fills a credential from the deployment's five identity words.
 * Returns SS_SUCCESS, or one of the SS_ERROR_* codes above (all non-zero).
 * Out: cred, the record to fill; on failure it is zeroed (when non-null), so
 *      it never holds a half-made token.
 * In:  w0..w4, the identity words of the deployment (not all zero);
 *      version, SS_CREDENTIAL_VERSION (1); flags, 0.
 * Deterministic: the same arguments always give the same token. */
int ss_init_credential(credential* cred, uint32_t w0, uint32_t w1, uint32_t w2, uint32_t w3,
                       uint32_t w4, uint32_t version, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* SECURESTORAGE_H */
