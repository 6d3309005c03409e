// Properties of the hex helpers on arbitrary input: bytes survive a round
// trip through text in both orders, and arbitrary text either converts to
// the documented number of bytes or fails with one of the two documented
// exceptions, never anything else.
#include "HexUtils.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

void check(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);

  // Round trip: bytes -> text -> bytes.
  const std::string text = uint8_to_hex_string(data, static_cast<unsigned int>(size));
  check(text.size() == 2 * size);
  check(std::all_of(text.begin(), text.end(),
                    [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }));
  if (size > 0) {
    check(hex_string_to_bin(text, Endian::Big) == raw);
    std::string reversed(raw.rbegin(), raw.rend());
    check(hex_string_to_bin(text, Endian::Little) == reversed);
  }

  // Arbitrary text.
  for (Endian endian : {Endian::Big, Endian::Little}) {
    try {
      const std::string out = hex_string_to_bin(raw, endian);
      if (endian == Endian::Big) {
        check(out.size() == (size == 1 ? 0 : size / 2));
      } else {
        check(size % 2 == 0 && out.size() == size / 2);
      }
    } catch (const std::invalid_argument&) {
    } catch (const std::out_of_range&) {
      check(endian == Endian::Little && size % 2 == 1);
    }
  }

  // Fixed-width forms.
  const unsigned int width = size > 0 ? data[0] : 0;
  const std::string fitted = fit_string_length(raw, width);
  check(fitted.size() == width);
  if (width >= size) {
    check(fitted.compare(width - size, size, raw) == 0);
  } else {
    check(fitted == raw.substr(0, width));
  }
  return 0;
}
