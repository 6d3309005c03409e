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
 * A request holds exactly the fields listed, in that order: a missing, extra
 * or mistyped field, or a length that disagrees with its blob, makes it
 * malformed.
 *
 * Wallets: one per (credential token, selector word). A wallet holds a seed
 * (BIP-39 entropy) and optionally a PIN; keys are the BIP-32 tree of the
 * BIP-39 seed of the seed's English phrase with an empty passphrase.
 *
 * Answers: a command without answer fields leaves an empty message. On
 * success the TA sets the memref's size to the bytes it wrote (the answer,
 * then zeros over the rest of the request, which may have carried a seed or
 * a PIN).
 *
 * Results: TEE_SUCCESS; TEE_ERROR_BAD_PARAMETERS for a malformed request or
 * wrong parameter types; TEE_ERROR_SHORT_BUFFER (memref size set to the
 * size needed) when the buffer cannot hold the longest answer of the
 * command; TEE_ERROR_ACCESS_DENIED for a credential that is not allowed;
 * TEE_ERROR_ITEM_NOT_FOUND when the wallet has no seed (or, for
 * CHECK_PIN, no PIN); TEE_ERROR_NOT_SUPPORTED for an unknown command; a
 * storage failure (TEE_ERROR_STORAGE_NOT_AVAILABLE, TEE_ERROR_CORRUPT_OBJECT,
 * ...) as storage reported it — such a failure never deletes or replaces a
 * seed.
 */
#ifndef KEYSTORE_TA_H
#define KEYSTORE_TA_H

#include <stdint.h>

/* 58d50001-1105-000b-af0c-c12fb6edecca */
#define KEYSTORE_TA_UUID \
  { 0x58d50001, 0x1105, 0x000b, { 0xaf, 0x0c, 0xc1, 0x2f, 0xb6, 0xed, 0xec, 0xca } }
#define KEYSTORE_TA_UUID_TEXT "58d50001-1105-000b-af0c-c12fb6edecca"

/* Sizes of the fixed-size fields, in bytes: a credential token; an encoded
 * derivation path; the digest that SIGN takes; and the answers of
 * GET_PRIVATE_KEY, GET_ADDRESS and SIGN. */
#define KEYSTORE_CREDENTIAL_SIZE 32u
#define KEYSTORE_PATH_SIZE 20u
#define KEYSTORE_DIGEST_SIZE 32u
#define KEYSTORE_PRIVATE_KEY_SIZE 32u
#define KEYSTORE_ADDRESS_SIZE 20u
#define KEYSTORE_SIGNATURE_SIZE 65u
/* Where r, s and v sit in a signature: r in bytes 0..31, s in 32..63, v at 64. */
#define KEYSTORE_SIGNATURE_R_SIZE 32u
#define KEYSTORE_SIGNATURE_S_SIZE 32u
#define KEYSTORE_SIGNATURE_V_OFFSET 64u

/* Limits of the variable-size fields, in bytes: a PIN (SAVE_PIN, CHECK_PIN)
 * and the longest phrase (24 words of at most 8 letters and 23 spaces),
 * which bounds the answer of GET_MNEMONIC. Seeds are 16, 20, 24, 28 or 32
 * bytes of entropy. */
#define KEYSTORE_PIN_MIN_SIZE 1u
#define KEYSTORE_PIN_MAX_SIZE 128u
#define KEYSTORE_PHRASE_MAX_SIZE (24u * 8u + 23u)
#define KEYSTORE_SEED_MIN_SIZE 16u
#define KEYSTORE_SEED_MAX_SIZE 32u

enum keystore_command {
  /* Request: cred; sel; u32 n; blob seed (n bytes: 16, 20, 24, 28 or 32).
   * Answer: none. Replaces any stored seed, clears the PIN (and its lock). */
  KEYSTORE_CMD_RESTORE_SEED = 1,
  /* Request: cred; sel. Answer: none. Removes seed and PIN
   * (TEE_ERROR_ITEM_NOT_FOUND when there is no seed). */
  KEYSTORE_CMD_DELETE_SEED = 3,
  /* Request: cred; sel; u32 n; blob pin (n bytes, 1 to 128).
   * Answer: none. Replaces the PIN and lifts a lock. */
  KEYSTORE_CMD_SAVE_PIN = 4,
  /* Request: cred; sel; u32 n; blob pin (n bytes, 1 to 128).
   * Answer: u32 verdict (KEYSTORE_PIN_* below: 1 match, 0 mismatch,
   * 2 locked). The attempt is counted in storage before the comparison. */
  KEYSTORE_CMD_CHECK_PIN = 5,
  /* Request: cred; sel. Answer: u32 n; blob mnemonic (n bytes, no NUL):
   * the seed's BIP-39 English phrase, words separated by single spaces. */
  KEYSTORE_CMD_GET_MNEMONIC = 6,
  /* Request: u32 n; blob phrase (n bytes). No credential.
   * Answer: u32 verdict (1 valid BIP-39 English phrase, 0 otherwise). Valid
   * means 12, 15, 18, 21 or 24 known lower-case words separated by single
   * spaces, nothing before or after, and a matching checksum. */
  KEYSTORE_CMD_CHECK_MNEMONIC = 7,
  /* Request: cred; sel; path. Answer: u32 n; blob address (20 bytes). */
  KEYSTORE_CMD_GET_ADDRESS = 9,
  /* Request: cred; sel; path; u32 n; blob data (n = 32: the digest, signed
   * as it is). Answer: u32 n; blob signature (65 bytes: r, s big-endian, v
   * the recovery id 0 or 1; RFC 6979 nonce, low S). */
  KEYSTORE_CMD_SIGN = 10,
  /* Request: cred; sel. Answer: none. Replaces any stored seed with 16
   * random bytes and clears the PIN. */
  KEYSTORE_CMD_GENERATE_SEED = 100,
  /* Request: cred; sel; path. Answer: u32 n; blob private key (32 bytes). */
  KEYSTORE_CMD_GET_PRIVATE_KEY = 101,
};

/* Verdicts of KEYSTORE_CMD_CHECK_PIN. After KEYSTORE_MAX_PIN_FAILURES
 * consecutive mismatches every check answers LOCKED, without comparing,
 * until a PIN is saved again or the seed is replaced. */
#define KEYSTORE_PIN_MISMATCH 0u
#define KEYSTORE_PIN_MATCH 1u
#define KEYSTORE_PIN_LOCKED 2u
#define KEYSTORE_MAX_PIN_FAILURES 5u

/* Name of the TA property (a comma-separated list of 64-digit hex tokens)
 * that lists the credentials the keystore serves. */
#define KEYSTORE_PROP_ALLOWED_CREDENTIALS "tessera.keystore.allowed_credentials"

#endif /* KEYSTORE_TA_H */
