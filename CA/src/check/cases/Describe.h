/*
 * The words tessera-check uses for what it saw: a TEE result with its
 * origin, the outcome of a poc_* call, bytes as hex, and text from the
 * keystore made safe to print.
 */
#ifndef TESSERA_CHECK_DESCRIBE_H
#define TESSERA_CHECK_DESCRIBE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "cases/Results.h"

namespace check {

/* Returns "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND from the trusted
 * application": the code as 8 upper-case hex digits, its standard name
 * (or "(no standard name)"), and the origin in words ("from origin 7" for
 * one the standard does not define; nothing for origin 0). */
[[nodiscard]] std::string DescribeTeeResult(uint32_t result, uint32_t origin);

/* Returns what a poc_* call's result means, for a failure line:
 *   -99  the TEE's result (DescribeTeeResult of the call's record)
 *   -3   "the TEE connection could not be opened: " + the TEE's result
 *   -1, -2, -4 and others: a sentence with the number.
 * For 0, "success". */
[[nodiscard]] std::string DescribeCall(const CallRecord& call);

/* Returns size bytes as lower-case hex (the project's uint8_to_hex_string),
 * or "" for none. */
[[nodiscard]] std::string Hex(const unsigned char* data, std::size_t size);

/* Returns text as it can be printed on one line in any report: printable
 * ASCII stays, a backslash becomes "\\", every other byte "\xNN". */
[[nodiscard]] std::string Printable(const char* text, std::size_t size);

}  // namespace check

#endif  // TESSERA_CHECK_DESCRIBE_H
