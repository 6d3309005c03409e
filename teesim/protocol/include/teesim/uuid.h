/*
 * TA identities: a UUID as its 16 bytes in RFC 4122 (network) order, the
 * order in which it travels on the wire and is printed.
 */
#ifndef TEESIM_UUID_H
#define TEESIM_UUID_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace teesim {

struct Uuid {
  std::array<uint8_t, 16> bytes{};
  bool operator==(const Uuid& o) const { return bytes == o.bytes; }
  bool operator!=(const Uuid& o) const { return bytes != o.bytes; }
  bool operator<(const Uuid& o) const { return bytes < o.bytes; }
};

/* Builds a UUID from the host-order fields of TEEC_UUID / TEE_UUID.
 * In: time_low, time_mid, time_hi_and_version; clock_seq_and_node, 8 bytes. */
Uuid uuid_from_fields(uint32_t time_low, uint16_t time_mid, uint16_t time_hi_and_version,
                      const uint8_t clock_seq_and_node[8]);

/* Splits a UUID into the host-order fields of TEEC_UUID / TEE_UUID.
 * Out: every pointer argument (none may be NULL; clock_seq_and_node 8 bytes). */
void uuid_to_fields(const Uuid& uuid, uint32_t* time_low, uint16_t* time_mid,
                    uint16_t* time_hi_and_version, uint8_t clock_seq_and_node[8]);

/* Canonical lower-case text, 36 characters ("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx"). */
std::string uuid_to_string(const Uuid& uuid);

/* Parses canonical text (either case, exactly 36 characters).
 * Returns true and fills `out` on success; false (out untouched) otherwise. */
[[nodiscard]] bool uuid_parse(std::string_view text, Uuid* out);

}  // namespace teesim

#endif  // TEESIM_UUID_H
