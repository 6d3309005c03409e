/*
 * The keystore TA's interface: its UUID, its command numbers and, per
 * command, the fields of the request and of the answer.
 *
 * Every command takes one parameter: parameter 0 a memory reference
 * (in/out) holding a request written with CTzfrWsm; the TA writes its answer
 * into the same buffer from its start. Parameters 1 to 3 are unused.
 *
 * Field notation: cred = blob of 32 bytes (the caller's credential token);
 * sel = u32 selector word (selector_hi * 256 + selector_lo); path = blob of
 * 20 bytes (five u32 path levels in host byte order, bit 31 = hardened).
 *
 * Results: TEE_SUCCESS; TEE_ERROR_BAD_PARAMETERS for a malformed request;
 * TEE_ERROR_ACCESS_DENIED for a credential that is not allowed;
 * TEE_ERROR_ITEM_NOT_FOUND when the wallet has no seed;
 * TEE_ERROR_NOT_SUPPORTED for an unknown command.
 */
#ifndef KEYSTORE_TA_H
#define KEYSTORE_TA_H

#include <stdint.h>

/* 58d50001-1105-000b-af0c-c12fb6edecca */
#define KEYSTORE_TA_UUID \
  { 0x58d50001, 0x1105, 0x000b, { 0xaf, 0x0c, 0xc1, 0x2f, 0xb6, 0xed, 0xec, 0xca } }
#define KEYSTORE_TA_UUID_TEXT "58d50001-1105-000b-af0c-c12fb6edecca"

/* Size of a credential token and of an encoded derivation path. */
#define KEYSTORE_CREDENTIAL_SIZE 32u
#define KEYSTORE_PATH_SIZE 20u

enum keystore_command {
  /* Request: cred; sel; u32 n; blob seed (n bytes: 16, 20, 24, 28 or 32).
   * Answer: none. Replaces any stored seed, clears the PIN. */
  KEYSTORE_CMD_RESTORE_SEED = 1,
  /* Request: cred; sel. Answer: none. Removes seed and PIN. */
  KEYSTORE_CMD_DELETE_SEED = 3,
  /* Request: cred; sel; u32 n; blob pin (n bytes). Answer: none. */
  KEYSTORE_CMD_SAVE_PIN = 4,
  /* Request: cred; sel; u32 n; blob pin (n bytes).
   * Answer: u32 verdict (1 match, 0 mismatch, 2 locked). */
  KEYSTORE_CMD_CHECK_PIN = 5,
  /* Request: cred; sel. Answer: u32 n; blob mnemonic (n bytes, no NUL). */
  KEYSTORE_CMD_GET_MNEMONIC = 6,
  /* Request: u32 n; blob phrase (n bytes). No credential.
   * Answer: u32 verdict (1 valid BIP-39 English phrase, 0 otherwise). */
  KEYSTORE_CMD_CHECK_MNEMONIC = 7,
  /* Request: cred; sel; path. Answer: u32 n; blob address (20 bytes). */
  KEYSTORE_CMD_GET_ADDRESS = 9,
  /* Request: cred; sel; path; u32 n; blob data (n bytes, the digest).
   * Answer: u32 n; blob signature (65 bytes: r, s big-endian, v 0 or 1). */
  KEYSTORE_CMD_SIGN = 10,
  /* Request: cred; sel. Answer: none. Makes a new 16-byte seed. */
  KEYSTORE_CMD_GENERATE_SEED = 100,
  /* Request: cred; sel; path. Answer: u32 n; blob private key (32 bytes). */
  KEYSTORE_CMD_GET_PRIVATE_KEY = 101,
};

/* Name of the TA property (a comma-separated list of 64-digit hex tokens)
 * that lists the credentials the keystore serves. */
#define KEYSTORE_PROP_ALLOWED_CREDENTIALS "tessera.keystore.allowed_credentials"

#endif /* KEYSTORE_TA_H */
