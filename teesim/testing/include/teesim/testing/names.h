/*
 * Result codes and origins by name, for failure messages that read
 * "TEEC_ERROR_TARGET_DEAD from TEEC_ORIGIN_TEE" instead of two numbers.
 * Built on the foundation's tee_names, so every test of the project names
 * them the same way.
 */
#ifndef TEESIM_TESTING_NAMES_H
#define TEESIM_TESTING_NAMES_H

#include <cstdint>
#include <string>

namespace teesim::testing {

/* Returns the name of a result code ("TEEC_SUCCESS",
 * "TEE_ERROR_CORRUPT_OBJECT", ...), or "0x%08x" of a code without a name. */
std::string ResultName(uint32_t result);

/* Returns the name of an origin ("TEEC_ORIGIN_TEE", ...), or "origin <n>"
 * (decimal) of a value without a name. */
std::string OriginName(uint32_t origin);

/* Returns "<ResultName(result)> from <OriginName(origin)>": what a test
 * compares when both the result and its origin matter. */
std::string Outcome(uint32_t result, uint32_t origin);

}  // namespace teesim::testing

#endif  // TEESIM_TESTING_NAMES_H
