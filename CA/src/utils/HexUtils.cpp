// Hex and byte-order conversions of byte strings.
#include "HexUtils.h"

#include <cstdint>

namespace {

// One pair of digits to one byte. std::stoul is the documented rule: it gives
// the tolerance (case, blanks, sign, 0x) and the exceptions callers rely on.
char pair_to_byte(const std::string& pair) {
  return static_cast<char>(std::stoul(pair, nullptr, 16) & 0xFFu);
}

}  // namespace

std::string hex_string_to_bin(const std::string& hex, Endian endian) {
  std::string out;
  if (endian == Endian::Big) {
    if (hex.size() == 1) {
      return out;
    }
    out.reserve(hex.size() / 2);
    // The first pair is converted before the stop test, so an empty text
    // reaches std::stoul("") and throws; the test is unsigned on purpose.
    std::string::size_type pos = 0;
    do {
      out.push_back(pair_to_byte(hex.substr(pos, 2)));
      pos += 2;
    } while (pos < hex.size() - 1);
    return out;
  }

  if (hex.empty()) {
    return out;
  }
  out.reserve(hex.size() / 2);
  // Walks back two digits at a time. With an odd length the position wraps
  // below zero and substr reports it with std::out_of_range.
  std::string::size_type pos = hex.size();
  do {
    pos -= 2;
    out.push_back(pair_to_byte(hex.substr(pos, 2)));
  } while (pos != 0);
  return out;
}

std::string uint8_to_hex_string(const unsigned char* data, unsigned int length) {
  if (data == nullptr || static_cast<int32_t>(length) <= 0) {
    return std::string();
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string out(2 * static_cast<std::string::size_type>(length), '\0');
  for (unsigned int i = 0; i < length; ++i) {
    out[2 * i] = kDigits[data[i] >> 4];
    out[2 * i + 1] = kDigits[data[i] & 0x0F];
  }
  return out;
}

std::string to_big_endian(unsigned int value) {
  const uint32_t v = value;
  std::string out(4, '\0');
  out[0] = static_cast<char>((v >> 24) & 0xFFu);
  out[1] = static_cast<char>((v >> 16) & 0xFFu);
  out[2] = static_cast<char>((v >> 8) & 0xFFu);
  out[3] = static_cast<char>(v & 0xFFu);
  return out;
}

std::string fit_string_length(const std::string& value, unsigned int length) {
  if (length == value.size()) {
    return value;
  }
  if (length < value.size()) {
    return value.substr(0, length);
  }
  return std::string(length - value.size(), '\0') + value;
}
