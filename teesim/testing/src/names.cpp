/* Result codes and origins by name; see names.h. */
#include "teesim/testing/names.h"

#include <cstdio>

#include "tee_names.h"

namespace teesim::testing {

std::string ResultName(uint32_t result) {
  if (const char* name = tee_result_name(result)) return name;
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08x", result);
  return hex;
}

std::string OriginName(uint32_t origin) {
  if (const char* name = tee_origin_name(origin)) return name;
  return "origin " + std::to_string(origin);
}

std::string Outcome(uint32_t result, uint32_t origin) {
  return ResultName(result) + " from " + OriginName(origin);
}

}  // namespace teesim::testing
