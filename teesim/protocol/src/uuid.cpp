/* TA identities: UUID bytes, GP fields and canonical text; see teesim/uuid.h. */
#include "teesim/uuid.h"

namespace teesim {

Uuid uuid_from_fields(uint32_t time_low, uint16_t time_mid, uint16_t time_hi_and_version,
                      const uint8_t clock_seq_and_node[8]) {
  Uuid u;
  u.bytes[0] = static_cast<uint8_t>(time_low >> 24);
  u.bytes[1] = static_cast<uint8_t>(time_low >> 16);
  u.bytes[2] = static_cast<uint8_t>(time_low >> 8);
  u.bytes[3] = static_cast<uint8_t>(time_low);
  u.bytes[4] = static_cast<uint8_t>(time_mid >> 8);
  u.bytes[5] = static_cast<uint8_t>(time_mid);
  u.bytes[6] = static_cast<uint8_t>(time_hi_and_version >> 8);
  u.bytes[7] = static_cast<uint8_t>(time_hi_and_version);
  for (int i = 0; i < 8; ++i) u.bytes[8 + i] = clock_seq_and_node[i];
  return u;
}

void uuid_to_fields(const Uuid& u, uint32_t* time_low, uint16_t* time_mid,
                    uint16_t* time_hi_and_version, uint8_t clock_seq_and_node[8]) {
  *time_low = (uint32_t{u.bytes[0]} << 24) | (uint32_t{u.bytes[1]} << 16) |
              (uint32_t{u.bytes[2]} << 8) | uint32_t{u.bytes[3]};
  *time_mid = static_cast<uint16_t>((u.bytes[4] << 8) | u.bytes[5]);
  *time_hi_and_version = static_cast<uint16_t>((u.bytes[6] << 8) | u.bytes[7]);
  for (int i = 0; i < 8; ++i) clock_seq_and_node[i] = u.bytes[8 + i];
}

std::string uuid_to_string(const Uuid& u) {
  static const char kHex[] = "0123456789abcdef";
  std::string s;
  s.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) s.push_back('-');
    s.push_back(kHex[u.bytes[i] >> 4]);
    s.push_back(kHex[u.bytes[i] & 0xF]);
  }
  return s;
}

static int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool uuid_parse(std::string_view text, Uuid* out) {
  if (text.size() != 36) return false;
  Uuid u;
  size_t pos = 0;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) {
      if (text[pos] != '-') return false;
      ++pos;
    }
    int hi = hex_value(text[pos]);
    int lo = hex_value(text[pos + 1]);
    if (hi < 0 || lo < 0) return false;
    u.bytes[i] = static_cast<uint8_t>((hi << 4) | lo);
    pos += 2;
  }
  *out = u;
  return true;
}

}  // namespace teesim
