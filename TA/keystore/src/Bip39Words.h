/* The BIP-39 English word list, generated at build time from
 * data/bip39_english.txt: 2048 words of 3 to 8 lower-case letters, each
 * stored in 8 bytes padded with zero bytes (and a terminating zero). */
#ifndef KEYSTORE_BIP39WORDS_H
#define KEYSTORE_BIP39WORDS_H

namespace keystore {
namespace bip39 {

extern const char kEnglishWords[2048][9];

}  // namespace bip39
}  // namespace keystore

#endif  // KEYSTORE_BIP39WORDS_H
