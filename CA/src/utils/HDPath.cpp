// The HD derivation path type and its text form.
#include "HDPath.h"

namespace {

constexpr uint32_t kHardened = 0x80000000u;
constexpr uint32_t kBip44Purpose = kHardened | 44u;

void append_level(std::string& text, int32_t word) {
  const uint32_t raw = static_cast<uint32_t>(word);
  text += '/';
  text += std::to_string(raw & ~kHardened);
  if ((raw & kHardened) != 0) {
    text += '\'';
  }
}

}  // namespace

int32_t getHDPathIndex(const hd_path_param& path, uint32_t level) {
  switch (level) {
    case 0:
      return path.purpose;
    case 1:
      return path.coin_type;
    case 2:
      return path.account;
    case 3:
      return path.change;
    default:
      return path.address_index;
  }
}

std::string hd_path_to_string(const hd_path_param& path) {
  std::string text = "m";
  // Only the BIP-44 layout is written out; any other path reads as "m".
  if (static_cast<uint32_t>(path.purpose) != kBip44Purpose) {
    return text;
  }
  append_level(text, path.purpose);
  append_level(text, path.coin_type);
  append_level(text, path.account);
  append_level(text, path.change);
  append_level(text, path.address_index);
  return text;
}
