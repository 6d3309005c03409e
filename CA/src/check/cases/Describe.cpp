// Result codes, origins and bytes turned into the text of failure lines.
#include "cases/Describe.h"

#include <cstdio>

#include "HexUtils.h"
#include "tee_names.h"

namespace check {

std::string DescribeTeeResult(uint32_t result, uint32_t origin) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(result));
  const char* name = tee_result_name(result);
  std::string text = std::string(code) + " " + (name != nullptr ? name : "(no standard name)");
  if (origin != 0) {
    const char* from = tee_origin_text(origin);
    text += from != nullptr ? std::string(" from ") + from
                            : " from origin " + std::to_string(origin);
  }
  return text;
}

std::string DescribeCall(const CallRecord& call) {
  switch (call.rc) {
    case 0: return "success";
    case -1: return "refused its arguments (-1)";
    case -2: return "the request did not fit or the answer could not be allocated (-2)";
    case -3:
      return "the TEE connection could not be opened: " +
             DescribeTeeResult(call.tee_result, call.tee_origin);
    case -4: return "the TA answered without data (-4)";
    case -99: return DescribeTeeResult(call.tee_result, call.tee_origin);
    default: return "returned " + std::to_string(call.rc);
  }
}

std::string Hex(const unsigned char* data, std::size_t size) {
  if (data == nullptr || size == 0) return "";
  return uint8_to_hex_string(data, static_cast<unsigned int>(size));
}

std::string Printable(const char* text, std::size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size);
  for (std::size_t i = 0; i < size; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '\\') {
      out += "\\\\";
    } else if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += kDigits[c >> 4];
      out += kDigits[c & 15];
    }
  }
  return out;
}

}  // namespace check
