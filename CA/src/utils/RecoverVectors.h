// Test support: the recovery vectors of testdata/recover_vectors.txt (made by
// make_recover_vectors.py with independent implementations), read with the
// shared vector-file reader, inputs as raw byte strings.
#ifndef TESSERA_UTILS_RECOVERVECTORS_H
#define TESSERA_UTILS_RECOVERVECTORS_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tessera/testing/hex.h"
#include "tessera/testing/vector_file.h"

namespace recover_vectors {

// The address that every failed recovery yields: that of the all-zero key.
inline constexpr char kZeroKeyAddress[] = "3f17f1962b36e491b30a40b2405849e597ba5fb5";

// Lower-case hex text of raw bytes.
inline std::string to_hex(const std::string& bytes) {
  return tessera::testing::HexOfString(bytes);
}

// Raw bytes of hex text; "-" stands for the empty string in the vector file.
inline std::string from_hex(const std::string& hex) {
  return tessera::testing::UnhexToString(hex);
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
  std::vector<Vector> vectors;
  for (const auto& line :
       tessera::testing::ReadVectorFile(std::string(TESSERA_TESTDATA_DIR) + "/recover_vectors.txt")) {
    const std::vector<std::string>& f = line.fields;
    EXPECT_EQ(f.size(), 6u) << "bad line " << line.number;
    if (f.size() != 6) continue;
    vectors.push_back(Vector{f[0], from_hex(f[1]), from_hex(f[2]), from_hex(f[3]),
                             static_cast<unsigned>(std::stoul(f[4])), f[5]});
  }
  EXPECT_FALSE(vectors.empty());
  return vectors;
}

}  // namespace recover_vectors

#endif  // TESSERA_UTILS_RECOVERVECTORS_H
