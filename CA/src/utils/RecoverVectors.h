// Test support: the recovery vectors of testdata/recover_vectors.txt (made by
// make_recover_vectors.py with independent implementations) and hex text.
#ifndef TESSERA_UTILS_RECOVERVECTORS_H
#define TESSERA_UTILS_RECOVERVECTORS_H

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace recover_vectors {

// The address that every failed recovery yields: that of the all-zero key.
inline constexpr char kZeroKeyAddress[] = "3f17f1962b36e491b30a40b2405849e597ba5fb5";

// Lower-case hex text of raw bytes.
inline std::string to_hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (unsigned char c : bytes) {
    s += digits[c >> 4];
    s += digits[c & 15];
  }
  return s;
}

// Raw bytes of hex text; "-" stands for the empty string in the vector file.
inline std::string from_hex(const std::string& hex) {
  if (hex == "-") {
    return {};
  }
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

// One line of the file: what it probes, the inputs as raw bytes, and the
// expected address as hex.
struct Vector {
  std::string kind;
  std::string digest;
  std::string r;
  std::string s;
  unsigned v;
  std::string address;
};

// Every vector of the file, in file order; a missing file or a malformed line
// fails the calling test.
inline std::vector<Vector> load() {
  const std::string path = std::string(TESSERA_TESTDATA_DIR) + "/recover_vectors.txt";
  std::ifstream in(path);
  EXPECT_TRUE(in.is_open()) << "cannot read " << path;
  std::vector<Vector> vectors;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    std::istringstream fields(line);
    Vector v{};
    std::string digest, r, s;
    fields >> v.kind >> digest >> r >> s >> v.v >> v.address;
    EXPECT_FALSE(fields.fail()) << "bad line: " << line;
    v.digest = from_hex(digest);
    v.r = from_hex(r);
    v.s = from_hex(s);
    vectors.push_back(v);
  }
  return vectors;
}

}  // namespace recover_vectors

#endif  // TESSERA_UTILS_RECOVERVECTORS_H
