// The defects of the faulty test variants (Faults.h), compiled into those
// variants only.
#include "Faults.h"

#include <unistd.h>

#include <cstring>

#include "Bip39Words.h"

namespace keystore {
namespace fault {

void NegateS(unsigned char s[32]) {
  static const unsigned char kOrder[32] = {
      0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xfe,
      0xba, 0xae, 0xdc, 0xe6, 0xaf, 0x48, 0xa0, 0x3b, 0xbf, 0xd2, 0x5e, 0x8c, 0xd0, 0x36, 0x41, 0x41};
  int borrow = 0;
  for (int i = 31; i >= 0; --i) {
    const int d = kOrder[i] - s[i] - borrow;
    s[i] = static_cast<unsigned char>(d & 0xff);
    borrow = d < 0 ? 1 : 0;
  }
}

void SwapLastWord(char* phrase, std::size_t* len, std::size_t cap) {
  std::size_t start = *len;
  while (start > 0 && phrase[start - 1] != ' ') --start;
  const std::size_t n = *len - start;
  for (unsigned i = 0; i < 2048; ++i) {
    if (std::strlen(bip39::kEnglishWords[i]) != n || std::memcmp(bip39::kEnglishWords[i], phrase + start, n) != 0) {
      continue;
    }
    const char* other = bip39::kEnglishWords[i ^ 1u];
    const std::size_t m = std::strlen(other);
    if (start + m > cap) return;
    std::memcpy(phrase + start, other, m);
    *len = start + m;
    return;
  }
}

void Hang() {
  for (;;) ::pause();
}

}  // namespace fault
}  // namespace keystore
