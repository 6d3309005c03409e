/*
 * BIP-39 with the English word list: entropy to phrase, phrase checking, and
 * phrase to seed.
 *
 * Phrases are written and accepted in one canonical form: lower-case words
 * of the English list separated by single ASCII spaces, with nothing before
 * the first word or after the last. Word lookups scan the whole list with
 * constant-time comparisons, so the time taken does not tell which words a
 * phrase holds.
 */
#ifndef KEYSTORE_BIP39_H
#define KEYSTORE_BIP39_H

#include <cstddef>
#include <cstdint>

#include "keystore_ta.h"

namespace keystore {
namespace bip39 {

/* Longest phrase: 24 words of at most 8 letters and 23 spaces. */
constexpr std::size_t kMaxPhraseLength = KEYSTORE_PHRASE_MAX_SIZE;
/* PBKDF2 rounds and seed size. */
constexpr uint32_t kSeedRounds = 2048;
constexpr std::size_t kSeedSize = 64;

/* True for the entropy sizes BIP-39 defines: 16, 20, 24, 28 or 32 bytes. */
bool IsValidEntropyLength(std::size_t len);

/* Writes the phrase of `entropy` (not terminated) into `out`.
 * Returns the phrase's length, or 0 when len is not a valid entropy length,
 * cap is below kMaxPhraseLength, or hashing failed.
 * In: entropy, len bytes (secret). Out: out, cap bytes owned by the caller;
 * the caller wipes it when done. */
std::size_t EntropyToPhrase(const unsigned char* entropy, std::size_t len, char* out,
                            std::size_t cap);

/* True when text[0..len) is a valid English phrase in canonical form: 12, 15,
 * 18, 21 or 24 known words whose checksum matches. */
bool IsValidPhrase(const char* text, std::size_t len);

/* seed = PBKDF2-HMAC-SHA512(phrase, "mnemonic" || passphrase, 2048 rounds).
 * The phrase and passphrase are used as given (callers pass NFKD text; the
 * English list and an ASCII passphrase already are).
 * Returns false when hashing failed. Out: out64, the 64-byte seed. */
[[nodiscard]] bool PhraseToSeed(const char* phrase, std::size_t phrase_len, const char* passphrase,
                                std::size_t passphrase_len, unsigned char out64[kSeedSize]);

}  // namespace bip39
}  // namespace keystore

#endif  // KEYSTORE_BIP39_H
