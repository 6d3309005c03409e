// Hex text for the keystore's tests: vectors are written as hex, answers are
// compared as hex so a mismatch reads well.
#ifndef KEYSTORE_TESTING_HEXTEXT_H
#define KEYSTORE_TESTING_HEXTEXT_H

#include <cstddef>
#include <string>
#include <vector>

namespace keystore_test {

// Returns the bytes of an even-length hex text (either case).
inline std::vector<unsigned char> Unhex(const std::string& hex) {
  std::vector<unsigned char> out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// Returns lower-case hex text of n bytes.
inline std::string Hex(const unsigned char* p, std::size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string s;
  s.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    s += kDigits[p[i] >> 4];
    s += kDigits[p[i] & 15];
  }
  return s;
}

inline std::string Hex(const std::vector<unsigned char>& b) { return Hex(b.data(), b.size()); }

}  // namespace keystore_test

#endif  // KEYSTORE_TESTING_HEXTEXT_H
