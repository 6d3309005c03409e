/*
 * Defects on purpose, for tests only: each is switched on by a compile
 * definition that only the faulty variants of this TA carry (the test-only
 * modules keystore_ta_<defect>, each in a TA folder of its own). They exist
 * to prove that tessera-check fails a keystore that misbehaves, each defect
 * in exactly the cases that touch it. The product TA has none of the
 * definitions: every constant below is then false and every branch that
 * tests one compiles to nothing.
 *
 *   KEYSTORE_FAULT_WRONG_ADDRESS     GET_ADDRESS answers a wrong address for
 *                                    account (last path level) 3
 *   KEYSTORE_FAULT_HIGH_S            SIGN answers s' = n - s with v flipped:
 *                                    still valid, but not the low-S form
 *   KEYSTORE_FAULT_WRONG_SIGNER      SIGN signs with the key of the
 *                                    neighbouring account (last level ^ 1)
 *   KEYSTORE_FAULT_PIN_NEVER_LOCKS   CHECK_PIN never locks
 *   KEYSTORE_FAULT_LAX_CHECKSUM      CHECK_MNEMONIC ignores the checksum
 *   KEYSTORE_FAULT_MNEMONIC_OFF_BY_ONE  GET_MNEMONIC answers the last word's
 *                                    neighbour in the list (index ^ 1)
 *   KEYSTORE_FAULT_HANG_ON_13_WORDS  CHECK_MNEMONIC of a 13-word text never
 *                                    returns
 */
#ifndef KEYSTORE_FAULTS_H
#define KEYSTORE_FAULTS_H

#include <cstddef>

namespace keystore {
namespace fault {

#ifdef KEYSTORE_FAULT_WRONG_ADDRESS
constexpr bool kWrongAddress = true;
#else
constexpr bool kWrongAddress = false;
#endif
#ifdef KEYSTORE_FAULT_HIGH_S
constexpr bool kHighS = true;
#else
constexpr bool kHighS = false;
#endif
#ifdef KEYSTORE_FAULT_WRONG_SIGNER
constexpr bool kWrongSigner = true;
#else
constexpr bool kWrongSigner = false;
#endif
#ifdef KEYSTORE_FAULT_PIN_NEVER_LOCKS
constexpr bool kPinNeverLocks = true;
#else
constexpr bool kPinNeverLocks = false;
#endif
#ifdef KEYSTORE_FAULT_LAX_CHECKSUM
constexpr bool kLaxChecksum = true;
#else
constexpr bool kLaxChecksum = false;
#endif
#ifdef KEYSTORE_FAULT_MNEMONIC_OFF_BY_ONE
constexpr bool kMnemonicOffByOne = true;
#else
constexpr bool kMnemonicOffByOne = false;
#endif
#ifdef KEYSTORE_FAULT_HANG_ON_13_WORDS
constexpr bool kHangOn13Words = true;
#else
constexpr bool kHangOn13Words = false;
#endif

/* The account whose address kWrongAddress spoils. */
constexpr unsigned kWrongAddressAccount = 3;

/* s := n - s (n the secp256k1 group order), big-endian, for a nonzero s
 * below n. */
void NegateS(unsigned char s[32]);

/* Replaces the last word of phrase[0..*len) (capacity cap) by its
 * neighbour in the word list (index ^ 1), updating *len. */
void SwapLastWord(char* phrase, std::size_t* len, std::size_t cap);

/* Blocks the calling thread for good. */
[[noreturn]] void Hang();

}  // namespace fault
}  // namespace keystore

#endif  // KEYSTORE_FAULTS_H
