// Tests of the wallet record's encoding and of its object names.
#include "Wallet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace {

using keystore::WalletRecord;

void Fill(WalletRecord* r, unsigned char seed) {
  r->entropy_len = 24;
  for (std::size_t i = 0; i < 32; ++i) r->entropy[i] = i < 24 ? static_cast<unsigned char>(seed + i) : 0;
  r->pin_set = true;
  r->pin_failures = 3;
  for (std::size_t i = 0; i < 16; ++i) r->pin_salt[i] = static_cast<unsigned char>(0x40 + i);
  for (std::size_t i = 0; i < 32; ++i) r->pin_mac[i] = static_cast<unsigned char>(0x80 + i);
}

TEST(WalletRecord, RoundTripsThroughItsDocumentedLayout) {
  WalletRecord r;
  Fill(&r, 9);
  unsigned char bytes[keystore::kRecordSize];
  keystore::EncodeRecord(r, bytes);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 4), "TKSW");
  EXPECT_EQ(bytes[4], 1);
  EXPECT_EQ(bytes[5], 24);
  EXPECT_EQ(bytes[6], 1);
  EXPECT_EQ(bytes[7], 3);
  EXPECT_EQ(bytes[8], 9);
  EXPECT_EQ(bytes[40], 0x40);
  EXPECT_EQ(bytes[56], 0x80);
  WalletRecord back;
  ASSERT_TRUE(keystore::DecodeRecord(bytes, sizeof bytes, &back));
  EXPECT_EQ(back.entropy_len, 24);
  EXPECT_EQ(std::memcmp(back.entropy.data(), r.entropy.data(), 32), 0);
  EXPECT_TRUE(back.pin_set);
  EXPECT_EQ(back.pin_failures, 3);
  EXPECT_EQ(std::memcmp(back.pin_salt.data(), r.pin_salt.data(), 16), 0);
  EXPECT_EQ(std::memcmp(back.pin_mac.data(), r.pin_mac.data(), 32), 0);
}

TEST(WalletRecord, RefusesEveryMalformedRecord) {
  WalletRecord r;
  Fill(&r, 1);
  unsigned char good[keystore::kRecordSize];
  keystore::EncodeRecord(r, good);
  WalletRecord out;
  EXPECT_FALSE(keystore::DecodeRecord(nullptr, sizeof good, &out));
  EXPECT_FALSE(keystore::DecodeRecord(good, sizeof good - 1, &out));
  EXPECT_FALSE(keystore::DecodeRecord(good, 0, &out));
  const struct {
    std::size_t at;
    unsigned char value;
  } bad[] = {{0, 'X'}, {4, 0}, {4, 2}, {5, 0}, {5, 15}, {5, 33}, {6, 2}, {7, 6}, {32, 1}, {39, 1}};
  for (const auto& b : bad) {
    unsigned char bytes[keystore::kRecordSize];
    std::memcpy(bytes, good, sizeof bytes);
    bytes[b.at] = b.value;
    EXPECT_FALSE(keystore::DecodeRecord(bytes, sizeof bytes, &out)) << "byte " << b.at;
  }
}

TEST(WalletId, IsFixedLengthTextAndSeparatesTokensAndSelectors) {
  unsigned char token[32] = {1, 2, 3};
  std::set<std::string> ids;
  for (uint32_t sel : {0u, 1u, 340u, 0x10000u, 0xFFFFFFFFu}) {
    keystore::WalletId id;
    ASSERT_TRUE(keystore::MakeWalletId(token, sel, &id));
    const std::string text(id.text, id.size());
    EXPECT_EQ(text.rfind("wallet:", 0), 0u);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef", 7), std::string::npos);
    EXPECT_LE(id.size(), 64u);
    ids.insert(text);
  }
  token[31] = 1;
  keystore::WalletId other;
  ASSERT_TRUE(keystore::MakeWalletId(token, 340, &other));
  ids.insert(std::string(other.text, other.size()));
  EXPECT_EQ(ids.size(), 6u);
}

TEST(PinMac, DependsOnPinSaltAndSeed) {
  WalletRecord a, b;
  Fill(&a, 1);
  Fill(&b, 2);
  const unsigned char salt1[16] = {1}, salt2[16] = {2};
  const unsigned char pin[] = "123456";
  unsigned char m1[32], m2[32], m3[32], m4[32], m5[32];
  ASSERT_TRUE(keystore::PinMac(a, pin, 6, salt1, m1));
  ASSERT_TRUE(keystore::PinMac(a, pin, 6, salt1, m2));
  ASSERT_TRUE(keystore::PinMac(a, pin, 6, salt2, m3));
  ASSERT_TRUE(keystore::PinMac(b, pin, 6, salt1, m4));
  ASSERT_TRUE(keystore::PinMac(a, pin, 5, salt1, m5));
  EXPECT_EQ(std::memcmp(m1, m2, 32), 0);
  EXPECT_NE(std::memcmp(m1, m3, 32), 0);
  EXPECT_NE(std::memcmp(m1, m4, 32), 0);
  EXPECT_NE(std::memcmp(m1, m5, 32), 0);
}

}  // namespace
