// The five-level HD derivation path that keystore requests carry.
#ifndef TESSERA_UTILS_HDPATH_H
#define TESSERA_UTILS_HDPATH_H

#include <cstdint>
#include <string>

/* A BIP-32 derivation path of exactly five levels in the BIP-44 layout:
 * purpose / coin type / account / change / address index. Each word is the
 * child index as BIP-32 defines it: bit 31 (0x80000000) marks a hardened
 * level, so a hardened word reads as negative when taken as signed.
 * A keystore request carries the five words, in this order and in the host's
 * byte order, as a 20-byte blob. */
struct hd_path_param {
  int32_t purpose;
  int32_t coin_type;
  int32_t account;
  int32_t change;
  int32_t address_index;
};

static_assert(sizeof(hd_path_param) == 20, "a path travels as a 20-byte blob");

/* Returns the raw word of one level, hardened bit included: level 0 gives
 * purpose, 1 coin_type, 2 account, 3 change, and every other value (4 and
 * above) address_index. */
int32_t getHDPathIndex(const hd_path_param& path, uint32_t level);

/* Returns the text form "m/44'/60'/0'/0/3": "m", then per level "/", the word
 * without bit 31 in unsigned decimal and "'" when bit 31 was set. Only
 * BIP-44 paths are written out: when purpose is not exactly 44 hardened
 * (0x8000002C) the result is "m" alone. */
std::string hd_path_to_string(const hd_path_param& path);

#endif  // TESSERA_UTILS_HDPATH_H
