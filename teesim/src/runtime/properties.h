/*
 * Installation properties of a TA: the text file <uuid>.props beside the TA,
 * one "name = value" per line; blank lines and lines starting with '#' are
 * ignored; spaces around name and value are dropped. Names beginning with
 * "gpd." are reserved for the properties teesim derives itself.
 */
#ifndef TEESIM_RUNTIME_PROPERTIES_H
#define TEESIM_RUNTIME_PROPERTIES_H

#include <map>
#include <string>

namespace teesim::runtime {

/* Parses the text of a properties file.
 * Returns true and fills `out`; false with a message naming the line in
 * `error` for a line without '=', an empty name, a reserved name or a name
 * given twice. */
[[nodiscard]] bool parse_properties(const std::string& text, std::map<std::string, std::string>* out,
                                    std::string* error);

/* Reads a U32 property value: decimal or 0x-prefixed hexadecimal, nothing
 * else, at most 0xFFFFFFFF. */
[[nodiscard]] bool parse_u32(const std::string& text, uint32_t* out);

/* Reads a boolean property value: "true" or "false", any case. */
[[nodiscard]] bool parse_bool(const std::string& text, bool* out);

}  // namespace teesim::runtime

#endif  // TEESIM_RUNTIME_PROPERTIES_H
