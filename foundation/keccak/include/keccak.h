/*
 * Keccak-256: the Keccak-f[1600] sponge with rate 136 bytes (capacity 512
 * bits), 24 rounds and a 32-byte output, padded the original Keccak way:
 * 0x01 after the message and 0x80 in the last byte of the block. This is the
 * hash that turns a public key into an account address; it is NOT SHA3-256,
 * whose first padding byte is 0x06 and whose digests therefore all differ.
 *
 * Use: keccak_init, any number of keccak_update calls, one keccak_final.
 *
 *   keccak_ctx ctx;
 *   unsigned char digest[32];
 *   keccak_init(&ctx);
 *   keccak_update(&ctx, data, size);
 *   keccak_final(&ctx, digest);
 *
 * The context is a fixed-size plain record owned by the caller (usually on
 * the stack); nothing here allocates, keeps global state or reports an error.
 * One context must not be used by two threads at once; distinct contexts are
 * independent. The context keeps the last absorbed block: a caller hashing a
 * secret wipes the context when done.
 *
 * Plain C names, usable from C and C++.
 */
#ifndef TESSERA_UTILS_KECCAK_H
#define TESSERA_UTILS_KECCAK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Hash context. Fields, in this order:
 *  state:   the 25 lanes of the Keccak state, lane index x + 5y, each lane a
 *           64-bit number (byte k of the lane is the lane's bits 8k..8k+7).
 *  buffer:  192 bytes, of which the first 136 collect input until a whole
 *           block is there (and receive an unaligned block before it is
 *           absorbed). After keccak_final it holds the padded last block.
 *  pending: how many bytes wait in buffer, 0..135.
 * Treat the fields as private; they are visible only so that the context can
 * live on the stack. */
typedef struct keccak_ctx {
  uint64_t state[25];
  uint64_t buffer[24];
  uint16_t pending;
} keccak_ctx;

/* The permutation's constant table, 72 bytes in three parts of 24:
 *   0..23   round constant i in compressed form: bit j (j = 0..6) of byte i
 *           is bit 2^j - 1 of round constant i, all its other bits are zero;
 *   24..47  the lane cycle of the pi step: each lane in the list takes the
 *           value of the next one, the last takes the first's old value;
 *   48..71  the rho rotation offset of lanes 1..24 (lane 0 is not rotated).
 * Read-only; the permutation reads it directly. */
extern const unsigned char constants[72];

/* Prepares a context for a new message: zeroes the state, the block buffer
 * and the pending count. Must precede the first keccak_update, and is the only
 * way to reuse a context after keccak_final.
 *  Out: ctx, the context to prepare (not NULL). */
void keccak_init(keccak_ctx* ctx);

/* Absorbs size bytes of the message. May be called any number of times, with
 * any split of the message, including size 0; the digest depends only on the
 * concatenation of all pieces. data needs no particular alignment. One call
 * takes at most 65535 bytes; longer messages are fed in several calls.
 *  In/Out: ctx,  a context after keccak_init and before keccak_final.
 *  In:     data, the next size bytes of the message (may be NULL when size
 *                is 0); only read, never kept.
 *          size, how many bytes to take from data. */
void keccak_update(keccak_ctx* ctx, const unsigned char* data, uint16_t size);

/* Pads the message, absorbs the last block and writes the digest. After this
 * the context is finalised: it takes no more input until keccak_init.
 *  In/Out: ctx, a context after keccak_init (and any keccak_update calls).
 *  Out:    out, 32 bytes that receive the digest; with NULL the context is
 *               finalised and nothing is written. */
void keccak_final(keccak_ctx* ctx, unsigned char* out);

/* Returns the byte of `constants` at position part_offset + index, or 0 when
 * that position lies outside the 72-byte table (no table byte is 0).
 *  In: part_offset, where the part starts: 0 (round constants), 24 (pi lane
 *                   cycle) or 48 (rho offsets);
 *      index,       the position inside the part, 0..23. */
unsigned char getConstant(unsigned int part_offset, unsigned int index);

#ifdef __cplusplus
}
#endif

#endif /* TESSERA_UTILS_KECCAK_H */
