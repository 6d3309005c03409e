/* Helpers shared by the runtime's unit tests: patterned keys and UUIDs,
 * whole-file reads and writes. Temporary folders come from teesim_testing
 * (TempFolder), hex text from the foundation's tessera_testing. */
#ifndef TEESIM_RUNTIME_TEST_SUPPORT_H
#define TEESIM_RUNTIME_TEST_SUPPORT_H

#include <cstdio>
#include <string>
#include <vector>

#include "common/secret.h"
#include "teesim/uuid.h"

namespace teesim::runtime::testing {

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
