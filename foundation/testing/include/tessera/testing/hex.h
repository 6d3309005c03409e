/*
 * Hex text for tests, written independently of the product's own hex
 * helpers so that an expected text depends on nothing but the bytes.
 * Vectors are kept as hex and answers compared as hex, so a mismatch reads
 * well in a failure message.
 */
#ifndef TESSERA_TESTING_HEX_H
#define TESSERA_TESTING_HEX_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tessera::testing {

using Bytes = std::vector<unsigned char>;

/* Returns the lower-case hex text of n bytes at p (p may be null when n is 0). */
std::string Hex(const void* p, std::size_t n);
inline std::string Hex(const Bytes& bytes) { return Hex(bytes.data(), bytes.size()); }
/* Hex of the bytes of a string (a std::string used as a byte container). */
inline std::string HexOfString(const std::string& bytes) { return Hex(bytes.data(), bytes.size()); }

/* Returns the bytes of hex text (either case); "-" stands for no bytes, as
 * vector files write an empty field.
 * Throws std::invalid_argument for an odd length or a character that is not
 * a hex digit, so a broken vector file fails its test loudly. */
Bytes Unhex(const std::string& hex);
/* The same bytes in a std::string. */
std::string UnhexToString(const std::string& hex);

/* Returns the bytes of a string as they are. */
inline Bytes BytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

}  // namespace tessera::testing

#endif  // TESSERA_TESTING_HEX_H
