/*
 * Names of GlobalPlatform TEE result codes and error origins, for messages
 * that a person reads ("0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND"). The codes
 * are the standard's numbers; nothing here depends on a TEE library, so the
 * simulator's tests and the console's tools name results the same way.
 *
 * Plain C names; the returned strings are static and never freed.
 */
#ifndef TESSERA_TEE_NAMES_H
#define TESSERA_TEE_NAMES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the client-side name of a result code ("TEEC_SUCCESS",
 * "TEEC_ERROR_ITEM_NOT_FOUND", ...), the Internal API name for the storage
 * codes that have no client-side name ("TEE_ERROR_CORRUPT_OBJECT", ...), or
 * NULL for a code the standard does not name. */
const char* tee_result_name(uint32_t result);

/* Returns "TEEC_ORIGIN_API", "TEEC_ORIGIN_COMMS", "TEEC_ORIGIN_TEE" or
 * "TEEC_ORIGIN_TRUSTED_APP", or NULL for another value. */
const char* tee_origin_name(uint32_t origin);

/* Returns what the origin means in a sentence: "the client API", "the
 * communication stack", "the TEE", "the trusted application", or NULL for
 * another value. */
const char* tee_origin_text(uint32_t origin);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_TEE_NAMES_H */
