/*
 * The keystore API: ten functions, each running exactly one command of the
 * keystore TA over the process's TEE connection (client::TEEClient).
 *
 * Every function follows the same steps: check its arguments; open the
 * connection (a no-op when it is up); write the request fields into the
 * shared buffer with CTzfrWsm — every field is written before the writes'
 * combined result is tested; invoke the command; for commands with an
 * answer, read it back from the same buffer and copy it out.
 *
 * Results (signed 32-bit), the same for every function:
 *    0   success
 *   -1   a required pointer is null or a required length is zero
 *        (nothing else happens: the connection is not touched)
 *   -2   a request field did not fit the shared buffer (nothing is sent),
 *        or the output buffer could not be allocated
 *   -3   the TEE connection could not be opened
 *   -4   the TA answered with a length of 0, or its answer could not be read
 *   -99  the TA command failed (the TEE's own result is only logged)
 * Each failure is logged once (tag "TESSERA"); nothing is written to
 * standard output, and no key, seed, PIN, mnemonic or signature byte is ever
 * logged. The connection stays open after any failure.
 *
 * Selectors: every function that takes a credential also takes selector_hi
 * and selector_lo and sends one 32-bit selector word selector_hi * 256 +
 * selector_lo. The two PIN functions declare selector_lo `unsigned int` and
 * add it unmasked, so values above 255 carry into the higher bits.
 *
 * Output buffers: a function that returns data allocates it with malloc,
 * exactly as many bytes as the TA reported, with no terminator added; the
 * caller owns it and releases it with free. On failure no buffer is handed
 * over: after -2 from a failed allocation *out is null, after any other
 * failure *out is not written.
 *
 * A TA verdict (a PIN or a phrase that is correct) is answer data, not a
 * result code: 1 means correct, any other value not.
 *
 * Threads: none. All functions share one connection and one buffer; call
 * them from one thread, one at a time. An answer is valid in the shared
 * buffer only until the next call, which is why every answer is copied out.
 */
#ifndef TESSERA_INTERFACE_POCINTERFACE_H
#define TESSERA_INTERFACE_POCINTERFACE_H

#include <cstdint>

#include "HDPath.h"
#include "securestorage.h"

/* Has the TA replace the wallet's seed with one that it generates.
 * Returns 0, -2, -3 or -99 (no argument is checked).
 * In: cred, whose first 32 bytes identify the caller; selector_hi,
 *     selector_lo, the wallet selector. Command 100. */
[[nodiscard]] int32_t poc_generate_seed(const credential& cred, unsigned char selector_hi,
                                        unsigned char selector_lo);

/* Hands the TA a seed (BIP-39 entropy) that replaces the wallet's seed.
 * Returns 0, -1 (seed null or seed_len 0), -2, -3 or -99 (among others when
 *   the TA refuses the seed).
 * In: cred, selector_hi, selector_lo as above; seed, seed_len bytes sent
 *     unchanged (borrowed). Command 1. */
[[nodiscard]] int32_t poc_restore_seed(const credential& cred, unsigned char selector_hi,
                                       unsigned char selector_lo, const unsigned char* seed,
                                       unsigned int seed_len);

/* Has the TA delete the wallet's seed (and PIN).
 * Returns 0, -2, -3 or -99 (no argument is checked). Command 3. */
[[nodiscard]] int32_t poc_delete_seed(const credential& cred, unsigned char selector_hi,
                                      unsigned char selector_lo);

/* Reads the wallet's mnemonic phrase.
 * Returns 0, -1 (mnemonic or mnemonic_len null), -2, -3, -4 or -99.
 * Out: *mnemonic, a malloc'd buffer of exactly *mnemonic_len bytes, not
 *      zero-terminated, owned by the caller (free). *mnemonic_len holds the
 *      TA's length also after -4. Command 6. */
[[nodiscard]] int32_t poc_getMnemonic(const credential& cred, unsigned char selector_hi,
                                      unsigned char selector_lo, char** mnemonic,
                                      unsigned int* mnemonic_len);

/* Asks the TA whether a text is a valid mnemonic phrase. Sends no
 * credential and no selector.
 * Returns 0 whenever the TA answered, -1 (mnemonic or verdict null, or
 *   mnemonic_len 0), -2, -3 or -99.
 * In: mnemonic, mnemonic_len bytes without a terminator (borrowed).
 * Out: *verdict, 1 when the phrase is valid. Command 7. */
[[nodiscard]] int32_t poc_check_mnemonic(const char* mnemonic, unsigned int mnemonic_len,
                                         unsigned int* verdict);

/* Reads the account address of the key at a derivation path.
 * Returns 0, -1 (out or out_len null), -2, -3, -4 or -99.
 * In: path, sent whole as a 20-byte blob.
 * Out: *out, a malloc'd buffer of *out_len bytes (20: the raw address), owned
 *      by the caller (free). Command 9. */
[[nodiscard]] int32_t poc_getAddress(const credential& cred, unsigned char selector_hi,
                                     unsigned char selector_lo, const hd_path_param& path,
                                     unsigned char** out, unsigned int* out_len);

/* Has the TA sign data with the key at a derivation path.
 * Returns 0, -1 (data, out or out_len null, or data_len 0), -2, -3, -4, -99.
 * In: path as above; data, data_len bytes sent unchanged (the TA signs a
 *     32-byte digest; the client hashes nothing).
 * Out: *out, a malloc'd buffer of *out_len bytes (65: r, s big-endian, then v
 *      0 or 1), owned by the caller (free). Command 10. */
[[nodiscard]] int32_t poc_signTransaction(const credential& cred, unsigned char selector_hi,
                                          unsigned char selector_lo, const hd_path_param& path,
                                          const unsigned char* data, unsigned int data_len,
                                          unsigned char** out, unsigned int* out_len);

/* Reads the private key at a derivation path.
 * Returns 0, -1 (out or out_len null), -2, -3, -4 or -99.
 * Out: *out, a malloc'd buffer of *out_len bytes (32), owned by the caller,
 *      who should wipe it before free. Command 101. */
[[nodiscard]] int32_t poc_getPrivateKey(const credential& cred, unsigned char selector_hi,
                                        unsigned char selector_lo, const hd_path_param& path,
                                        unsigned char** out, unsigned int* out_len);

/* Has the TA store a PIN for the wallet.
 * Returns 0, -1 (pin null or pin_len 0), -2, -3 or -99.
 * In: selector_lo is added to selector_hi * 256 unmasked; pin, pin_len
 *     opaque bytes (no terminator). Command 4. */
[[nodiscard]] int32_t poc_save_pin(const credential& cred, unsigned char selector_hi,
                                   unsigned int selector_lo, const unsigned char* pin,
                                   unsigned int pin_len);

/* Has the TA compare a PIN with the stored one.
 * Returns 0 whenever the TA answered, -1 (pin or verdict null, or pin_len
 *   0), -2, -3 or -99.
 * Out: *verdict, the TA's word: 1 for a match, anything else not (left as it
 *      was when the TA's answer holds no word). Command 5. */
[[nodiscard]] int32_t poc_check_pin(const credential& cred, unsigned char selector_hi,
                                    unsigned int selector_lo, const unsigned char* pin,
                                    unsigned int pin_len, unsigned int* verdict);

#endif  // TESSERA_INTERFACE_POCINTERFACE_H
