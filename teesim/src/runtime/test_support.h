/* Helpers shared by the runtime's unit tests. */
#ifndef TEESIM_RUNTIME_TEST_SUPPORT_H
#define TEESIM_RUNTIME_TEST_SUPPORT_H

#include <stdlib.h>

#include <cstdio>
#include <string>
#include <vector>

#include "common/secret.h"
#include "teesim/uuid.h"

namespace teesim::runtime::testing {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/teesim-rt-XXXXXX";
    char* p = ::mkdtemp(tmpl);
    path_ = p != nullptr ? p : "";
  }
  ~TempDir() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline Key256 pattern_key(uint8_t seed) {
  Key256 k;
  for (size_t i = 0; i < k.size(); ++i) k.data()[i] = static_cast<uint8_t>(seed + 3 * i);
  return k;
}

inline Uuid pattern_uuid(uint8_t seed) {
  Uuid u;
  for (int i = 0; i < 16; ++i) u.bytes[i] = static_cast<uint8_t>(seed + i);
  return u;
}

inline std::string hex(const uint8_t* p, size_t n) {
  static const char k[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s.push_back(k[p[i] >> 4]);
    s.push_back(k[p[i] & 15]);
  }
  return s;
}

inline std::vector<uint8_t> read_all(const std::string& path) {
  std::vector<uint8_t> v;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return v;
  int c;
  while ((c = std::fgetc(f)) != EOF) v.push_back(static_cast<uint8_t>(c));
  std::fclose(f);
  return v;
}

inline void write_all(const std::string& path, const std::vector<uint8_t>& v) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return;
  std::fwrite(v.data(), 1, v.size(), f);
  std::fclose(f);
}

}  // namespace teesim::runtime::testing

#endif  // TEESIM_RUNTIME_TEST_SUPPORT_H
