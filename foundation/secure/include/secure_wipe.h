/*
 * The project's one way to destroy secret bytes (seeds, keys, PINs, copies of
 * requests that carried them): a wipe that the compiler may not remove as a
 * dead store, whatever it knows about the buffer's later use.
 *
 * Plain C, header-only, so that every part of the project can use it without
 * linking anything: the keystore TA, the simulator and its client library,
 * and the console.
 */
#ifndef TESSERA_SECURE_WIPE_H
#define TESSERA_SECURE_WIPE_H

#include <stddef.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Overwrites n bytes at p with zeros.
 * In: p, the bytes (may be NULL when n is 0, and is then left alone);
 *     n, their count.
 * explicit_bzero runs at memset's speed (the wipe sits on command paths)
 * and is documented never to be optimised away. */
static inline void tessera_secure_wipe(void* p, size_t n) {
  if (p != NULL && n != 0) explicit_bzero(p, n);
}

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_SECURE_WIPE_H */
