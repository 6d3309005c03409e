// The client's own key arithmetic against the compiled-in vectors (made by
// an independent implementation) and well-known values.
#include "cases/KeyMath.h"

#include <gtest/gtest.h>

#include <cstring>

#include "TestDataTables.h"
#include "cases/Describe.h"

namespace check {
namespace {

namespace v = test::vectors;

std::string AddressHex(const std::optional<Address>& a) { return a ? Hex(a->data(), a->size()) : "none"; }

Address Expected(unsigned row) {
  Address a;
  std::memcpy(a.data(), v::kAddresses[row], a.size());
  return a;
}

TEST(KeyMath, EveryVectorKeyGivesItsAddress) {
  for (unsigned row = 0; row < v::kRowCount; ++row) {
    const std::optional<Address> a = AddressOfPrivateKey(v::kPrivateKeys[row]);
    ASSERT_TRUE(a.has_value()) << row;
    EXPECT_EQ(*a, Expected(row)) << row;
  }
}

TEST(KeyMath, WellKnownSmallKeys) {
  unsigned char key[32] = {};
  key[31] = 1;
  EXPECT_EQ(AddressHex(AddressOfPrivateKey(key)), "7e5f4552091a69125d5dfcb7b8c2659029395bdf");
  key[31] = 2;
  EXPECT_EQ(AddressHex(AddressOfPrivateKey(key)), "2b5ad5c4795c026514f8317c7a215e218dccd6cf");
}

TEST(KeyMath, KeysOutsideTheGroupHaveNoAddress) {
  // n, the group order, big-endian.
  unsigned char n[32] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                         0xff, 0xff, 0xff, 0xff, 0xfe, 0xba, 0xae, 0xdc, 0xe6, 0xaf, 0x48,
                         0xa0, 0x3b, 0xbf, 0xd2, 0x5e, 0x8c, 0xd0, 0x36, 0x41, 0x41};
  EXPECT_FALSE(AddressOfPrivateKey(n).has_value());
  n[31] = 0x42;  // n + 1
  EXPECT_FALSE(AddressOfPrivateKey(n).has_value());
  n[31] = 0x40;  // n - 1: valid
  EXPECT_TRUE(AddressOfPrivateKey(n).has_value());
  const unsigned char zero[32] = {};
  EXPECT_FALSE(AddressOfPrivateKey(zero).has_value());
  unsigned char ones[32];
  std::memset(ones, 0xff, sizeof ones);
  EXPECT_FALSE(AddressOfPrivateKey(ones).has_value());
}

TEST(KeyMath, VectorSignaturesRecoverToTheirAddressesAndAChangedOneDoesNot) {
  for (unsigned row = 0; row < v::kRowCount; ++row) {
    Signature sig;
    std::memcpy(sig.data(), v::kSignatureR[row], 32);
    std::memcpy(sig.data() + 32, v::kSignatureS[row], 32);
    sig[64] = v::kSignatureV[row];
    EXPECT_EQ(RecoverSigner(v::kApiTestDigest, sig), Expected(row)) << row;
    EXPECT_TRUE(IsLowS(sig.data() + 32)) << row;
    sig[64] ^= 1;
    EXPECT_NE(RecoverSigner(v::kApiTestDigest, sig), Expected(row)) << row;
  }
}

TEST(KeyMath, LowSIsOneToHalfTheOrder) {
  unsigned char s[32] = {};
  EXPECT_FALSE(IsLowS(s)) << "0 is no valid S";
  s[31] = 1;
  EXPECT_TRUE(IsLowS(s));
  const unsigned char half[32] = {0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                  0xff, 0xff, 0xff, 0xff, 0xff, 0x5d, 0x57, 0x6e, 0x73, 0x57, 0xa4,
                                  0x50, 0x1d, 0xdf, 0xe9, 0x2f, 0x46, 0x68, 0x1b, 0x20, 0xa0};
  std::memcpy(s, half, 32);
  EXPECT_TRUE(IsLowS(s));
  s[31] = 0xa1;
  EXPECT_FALSE(IsLowS(s));
  std::memset(s, 0xff, sizeof s);
  EXPECT_FALSE(IsLowS(s));
  std::memset(s, 0, sizeof s);
  s[0] = 0x80;
  EXPECT_FALSE(IsLowS(s));
}

}  // namespace
}  // namespace check
