// Hex and byte-order helpers of the console.
#ifndef TESSERA_UTILS_HEXUTILS_H
#define TESSERA_UTILS_HEXUTILS_H

#include <string>

/* Conversions between raw byte strings and their printable or fixed-width
 * forms. A byte string is held in a std::string and may contain any byte
 * value, zero included. None of these functions prints anything; the only
 * failures are the standard-library exceptions named per function, which
 * propagate to the caller. */

/* Byte order of the result of hex_string_to_bin. Any value other than Big
 * (for instance one made by a cast) behaves as Little. */
enum class Endian : int {
  Little = 0, /* the last two digits give the first byte */
  Big = 1,    /* the first two digits give the first byte */
};

/* Turns hexadecimal text into bytes, two digits per byte.
 *
 * Returns: the bytes, in the order selected by `endian`.
 * In:      hex:    the text. Each pair of characters is converted as by
 *                  std::stoul(pair, nullptr, 16) and the low 8 bits are kept:
 *                  both letter cases are accepted, leading white space, a
 *                  sign and a 0x prefix are tolerated, and conversion stops at
 *                  the first character that is not a hex digit (1z gives 0x01).
 *          endian: Endian::Big keeps the text's order, anything else reverses
 *                  it.
 * Throws:  std::invalid_argument ("stoul") when a pair starts with no hex
 *          digit, including the empty pair that Endian::Big converts for an
 *          empty text.
 *          std::out_of_range with Endian::Little when the text has odd length
 *          (the pairs before the failure are discarded with the result).
 * Edges:   Endian::Big: a text of one character gives the empty string, and
 *          a text of odd length loses its last digit (abc gives 0xab).
 *          Endian::Little: the empty text gives the empty string. */
[[nodiscard]] std::string hex_string_to_bin(const std::string& hex, Endian endian);

/* Writes bytes as lower-case hex text, two digits per byte, no prefix and no
 * separator.
 *
 * Returns: the text of 2 * length characters; the empty string when `data`
 *          is null or when `length`, read as a signed 32-bit number, is zero
 *          or negative (so 0x80000000 gives the empty string).
 * In:      data:   the bytes (may be null); not owned, only read.
 *          length: how many bytes of `data` to write. */
[[nodiscard]] std::string uint8_to_hex_string(const unsigned char* data, unsigned int length);

/* Returns: exactly 4 bytes holding `value` most significant byte first
 *          (0x01020304 gives 01 02 03 04), whatever the host's byte order.
 * In:      value: the number to encode. */
[[nodiscard]] std::string to_big_endian(unsigned int value);

/* Brings a byte string to a fixed length as a big-endian number would be.
 *
 * Returns: a copy of `value` when it already has `length` bytes; its first
 *          `length` bytes when it is longer (the end is cut off); otherwise
 *          (length - size) zero bytes followed by `value`.
 * In:      value:  the bytes.
 *          length: the wanted length in bytes. */
[[nodiscard]] std::string fit_string_length(const std::string& value, unsigned int length);

#endif  // TESSERA_UTILS_HEXUTILS_H
