// Prints every compiled-in test vector, read through TestData, in the listing
// that make_test_vectors.py (beside this file) derives on its own; the test suite
// compares the two. Hex is written here rather than with the console's
// helpers so that the comparison depends on nothing but the tables.
#include "TestData.h"

#include <cstdio>

namespace {

void hex(const unsigned char* data, unsigned int length) {
  for (unsigned int i = 0; i < length; ++i) {
    std::printf("%02x", data[i]);
  }
}

}  // namespace

int main() {
  test::TestData data;
  for (unsigned int i = 0; i < 4; ++i) {
    data.setPinIndex(i);
    std::printf("pin %u %.*s\n", i, static_cast<int>(data.pinSize()), data.pin());
  }
  for (unsigned int d = 0; d < 5; ++d) {
    data.setDataIndex(d);
    std::printf("seed %u ", d);
    hex(data.seed(), data.seedSize());
    std::printf("\nseed_size %u %u\n", d, data.seedSize());
    std::printf("mnemonic %u %.*s\n", d, static_cast<int>(data.ex_mnemonicSize()), data.ex_mnemonic());
    for (unsigned int a = 0; a < 5; ++a) {
      data.setAccountIndex(a);
      std::printf("private_key %u %u ", d, a);
      hex(data.ex_pkey(), 32);
      std::printf("\naddress %u %u ", d, a);
      hex(data.ex_address(), 20);
      std::printf("\nsig_r %u %u ", d, a);
      hex(data.ex_sig_r(), 32);
      std::printf("\nsig_s %u %u ", d, a);
      hex(data.ex_sig_s(), 32);
      std::printf("\nsig_v %u %u %02x\n", d, a, data.ex_sig_v());
    }
  }
  for (unsigned int a = 0; a < 5; ++a) {
    data.setAccountIndex(a);
    const hd_path_param p = data.hd_path();
    std::printf("hd_path %u", a);
    for (uint32_t level = 0; level < 5; ++level) {
      std::printf(" %08x", static_cast<unsigned int>(getHDPathIndex(p, level)));
    }
    std::printf("\n");
  }
  std::printf("special_seed ");
  hex(data.special_seed(), data.special_seedSize());
  std::printf("\nspecial_seed_size %u\n", data.special_seedSize());
  for (unsigned int i = 0; data.get_special_transaction(i) != nullptr; ++i) {
    std::printf("special_transaction %u ", i);
    hex(data.get_special_transaction(i), 32);
    std::printf("\n");
  }
  std::printf("api_test_digest ");
  hex(test::api_test_digest(), 32);
  std::printf("\n");
  return std::fflush(stdout) == 0 ? 0 : 1;
}
