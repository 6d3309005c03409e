// Hex text for tests.
#include "tessera/testing/hex.h"

#include <stdexcept>

namespace tessera::testing {
namespace {

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string Hex(const void* p, std::size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  const unsigned char* bytes = static_cast<const unsigned char*>(p);
  std::string text;
  text.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

Bytes Unhex(const std::string& hex) {
  if (hex == "-") return {};
  if (hex.size() % 2 != 0) throw std::invalid_argument("odd-length hex text: " + hex);
  Bytes out;
  out.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int hi = DigitValue(hex[i]);
    const int lo = DigitValue(hex[i + 1]);
    if (hi < 0 || lo < 0) throw std::invalid_argument("not hex text: " + hex);
    out.push_back(static_cast<unsigned char>(hi << 4 | lo));
  }
  return out;
}

std::string UnhexToString(const std::string& hex) {
  const Bytes bytes = Unhex(hex);
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace tessera::testing
