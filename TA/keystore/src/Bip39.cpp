// BIP-39 with the English word list: phrases from entropy, phrase checks, seeds
// from phrases.
#include "Bip39.h"

#include <cstring>

#include "Bip39Words.h"
#include "Faults.h"
#include "Hash.h"
#include "Secure.h"

namespace keystore {
namespace bip39 {
namespace {

constexpr std::size_t kWords = 2048;
constexpr std::size_t kMaxWordLength = 8;

uint64_t Load8(const char* p) {
  uint64_t v = 0;
  std::memcpy(&v, p, 8);
  return v;
}

// All ones when a == b, else zero, without a branch on the values.
uint64_t EqualMask(uint64_t a, uint64_t b) {
  const uint64_t d = a ^ b;
  const uint64_t nonzero = (d | (0 - d)) >> 63;
  return nonzero - 1;  // 0 - 1 = all ones when equal; 1 - 1 = 0 otherwise
}

// The word at `index`, found by reading every entry of the list.
uint64_t WordAt(uint32_t index) {
  uint64_t word = 0;
  for (uint32_t j = 0; j < kWords; ++j) word |= Load8(kEnglishWords[j]) & EqualMask(j, index);
  return word;
}

// The index of `word` (8 bytes, zero-padded), found by reading every entry;
// *found tells whether it is in the list.
uint32_t IndexOf(uint64_t word, bool* found) {
  uint64_t index = 0;
  uint64_t hit = 0;
  for (uint32_t j = 0; j < kWords; ++j) {
    const uint64_t m = EqualMask(Load8(kEnglishWords[j]), word);
    index |= j & m;
    hit |= m;
  }
  *found = hit != 0;
  return static_cast<uint32_t>(index);
}

// Bit i of a big-endian bit string.
unsigned Bit(const unsigned char* bytes, std::size_t i) { return (bytes[i / 8] >> (7 - i % 8)) & 1u; }

}  // namespace

bool IsValidEntropyLength(std::size_t len) { return len >= 16 && len <= 32 && len % 4 == 0; }

std::size_t EntropyToPhrase(const unsigned char* entropy, std::size_t len, char* out,
                            std::size_t cap) {
  if (entropy == nullptr || out == nullptr || !IsValidEntropyLength(len) || cap < kMaxPhraseLength) {
    return 0;
  }
  // entropy || checksum (the first len/4 bits of its SHA-256), 11 bits a word.
  Secret<33> bits;
  std::memcpy(bits.data(), entropy, len);
  unsigned char hash[32];
  if (!Sha256(entropy, len, hash)) return 0;
  bits[len] = hash[0];
  tessera_secure_wipe(hash, sizeof hash);

  const std::size_t words = (len * 8 + len / 4) / 11;
  std::size_t at = 0;
  for (std::size_t w = 0; w < words; ++w) {
    uint32_t index = 0;
    for (std::size_t b = 0; b < 11; ++b) index = (index << 1) | Bit(bits.data(), w * 11 + b);
    uint64_t word = WordAt(index);
    char letters[8];
    std::memcpy(letters, &word, 8);
    std::size_t n = 0;
    for (std::size_t k = 0; k < kMaxWordLength; ++k) n += letters[k] != 0;
    if (w != 0) out[at++] = ' ';
    std::memcpy(out + at, letters, n);
    at += n;
    tessera_secure_wipe(letters, sizeof letters);
    tessera_secure_wipe(&word, sizeof word);
  }
  return at;
}

bool IsValidPhrase(const char* text, std::size_t len) {
  if (text == nullptr || len == 0 || len > kMaxPhraseLength) return false;

  Secret<33> bits;  // up to 24 * 11 = 264 bits
  std::size_t words = 0;
  bool all_known = true;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= len; ++i) {
    if (i < len && text[i] != ' ') continue;
    const std::size_t n = i - start;
    if (n == 0 || n > kMaxWordLength || words == 24) return false;  // not canonical form
    char padded[8] = {};
    for (std::size_t k = 0; k < n; ++k) {
      const char c = text[start + k];
      if (c < 'a' || c > 'z') {
        tessera_secure_wipe(padded, sizeof padded);
        return false;
      }
      padded[k] = c;
    }
    bool found = false;
    const uint32_t index = IndexOf(Load8(padded), &found);
    tessera_secure_wipe(padded, sizeof padded);
    all_known = all_known && found;
    for (std::size_t b = 0; b < 11; ++b) {
      const std::size_t bit = words * 11 + b;
      bits[bit / 8] = static_cast<unsigned char>(bits[bit / 8] |
                                                 (((index >> (10 - b)) & 1u) << (7 - bit % 8)));
    }
    ++words;
    start = i + 1;
  }
  if (!all_known || words % 3 != 0 || words < 12) return false;

  const std::size_t checksum_bits = words / 3;
  const std::size_t entropy_len = (words * 11 - checksum_bits) / 8;
  unsigned char hash[32];
  if (!Sha256(bits.data(), entropy_len, hash)) return false;
  // The checksum bits follow the entropy in the same byte; compare them
  // under a mask (no early exit).
  const unsigned mask = (0xFFu << (8 - checksum_bits)) & 0xFFu;
  const bool ok = fault::kLaxChecksum || ((bits[entropy_len] ^ hash[0]) & mask) == 0;
  tessera_secure_wipe(hash, sizeof hash);
  return ok;
}

bool PhraseToSeed(const char* phrase, std::size_t phrase_len, const char* passphrase,
                  std::size_t passphrase_len, unsigned char out64[kSeedSize]) {
  static const char kSaltPrefix[] = "mnemonic";
  SecretBuffer salt(sizeof kSaltPrefix - 1 + passphrase_len);
  std::memcpy(salt.data(), kSaltPrefix, sizeof kSaltPrefix - 1);
  if (passphrase_len != 0) std::memcpy(salt.data() + sizeof kSaltPrefix - 1, passphrase, passphrase_len);
  return Pbkdf2HmacSha512(phrase, phrase_len, salt.data(), salt.size(), kSeedRounds, out64);
}

}  // namespace bip39
}  // namespace keystore
