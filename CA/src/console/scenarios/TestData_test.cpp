// Tests of the test data: bounds of the indices and the values each choice
// gives.
#include "TestData.h"

#include "ConsoleTestSupport.h"
#include "tessera/testing/hex.h"
#include "TestDataTables.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

using test::TestData;
namespace vectors = test::vectors;

// Read during static initialisation, before main and before any test: the
// process-wide instance must already be in its start state.
const unsigned int kDataIndexAtStart = test::testData.getDataIndex();
const unsigned int kAccountIndexAtStart = test::testData.getAccountIndex();
const unsigned int kPinIndexAtStart = test::testData.getPinIndex();

std::string hex(const unsigned char* data, unsigned int length) {
  return tessera::testing::Hex(data, length);
}

// Everything that depends on the data set and account, as text.
struct Snapshot {
  std::string seed, mnemonic, pin, pkey, address, r, s, path;
  unsigned int v;
};

Snapshot snapshot(const TestData& data) {
  const hd_path_param p = data.hd_path();
  return Snapshot{hex(data.seed(), data.seedSize()),
                  std::string(data.ex_mnemonic(), data.ex_mnemonicSize()),
                  std::string(data.pin(), data.pinSize()),
                  hex(data.ex_pkey(), 32),
                  hex(data.ex_address(), 20),
                  hex(data.ex_sig_r(), 32),
                  hex(data.ex_sig_s(), 32),
                  hd_path_to_string(p),
                  data.ex_sig_v()};
}

TEST(TestDataStart, ProcessStartsWithDataSetZeroAccountZeroPinZero) {
  EXPECT_EQ(kDataIndexAtStart, 0u);
  EXPECT_EQ(kAccountIndexAtStart, 0u);
  EXPECT_EQ(kPinIndexAtStart, 0u);
  const TestData fresh;
  EXPECT_EQ(fresh.getDataIndex(), 0u);
  EXPECT_EQ(fresh.getAccountIndex(), 0u);
  EXPECT_EQ(fresh.getPinIndex(), 0u);
}

TEST(TestDataSetters, OutOfRangeKeepsTheOldIndex) {
  TestData data;
  data.setDataIndex(2);
  data.setAccountIndex(1);
  data.setPinIndex(2);
  data.setDataIndex(5);
  data.setAccountIndex(5);
  data.setPinIndex(4);
  EXPECT_EQ(data.getDataIndex(), 2u);
  EXPECT_EQ(data.getAccountIndex(), 1u);
  EXPECT_EQ(data.getPinIndex(), 2u);
  data.setDataIndex(0xFFFFFFFFu);
  data.setAccountIndex(0x80000000u);
  data.setPinIndex(100u);
  EXPECT_EQ(data.getDataIndex(), 2u);
  EXPECT_EQ(data.getAccountIndex(), 1u);
  EXPECT_EQ(data.getPinIndex(), 2u);
}

TEST(TestDataSetters, LastValuesAreAccepted) {
  TestData data;
  data.setDataIndex(4);
  data.setAccountIndex(4);
  data.setPinIndex(3);
  EXPECT_EQ(data.getDataIndex(), 4u);
  EXPECT_EQ(data.getAccountIndex(), 4u);
  EXPECT_EQ(data.getPinIndex(), 3u);
}

TEST(TestDataSpecialTransactions, ElevenRowsThenNull) {
  const TestData data;
  for (unsigned int i = 0; i <= 10; ++i) {
    EXPECT_EQ(data.get_special_transaction(i), vectors::kSpecialTransactions[i]) << i;
  }
  EXPECT_EQ(data.get_special_transaction(11), nullptr);
  EXPECT_EQ(data.get_special_transaction(0xFFFFFFFFu), nullptr);
}

TEST(TestDataSpecialTransactions, EdgesOfSigningArePresent) {
  const TestData data;
  auto row = [&](unsigned int i) { return hex(data.get_special_transaction(i), 32); };
  const std::string n = "fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141";
  EXPECT_EQ(row(0), std::string(64, '0'));
  EXPECT_EQ(row(1), std::string(63, '0') + "1");
  EXPECT_EQ(row(2), n);
  EXPECT_EQ(row(3), n.substr(0, 63) + "0");
  EXPECT_EQ(row(4), n.substr(0, 63) + "2");
  EXPECT_EQ(row(5), std::string(64, 'f'));
  EXPECT_EQ(row(6), "fffffffffffffffffffffffffffffffffffffffffffffffffffffffefffffc2f");
  EXPECT_EQ(row(7), "8" + std::string(63, '0'));
  // The EIP-155 worked example's signing hash.
  EXPECT_EQ(row(8), "daf5a779ae972f972197303d7b574746c7ef83eadac0f2791ad23db92e4c8e53");
  EXPECT_NE(row(9), row(10));
}

TEST(TestDataPath, AccountIsTheLastLevel) {
  TestData data;
  data.setAccountIndex(3);
  data.setDataIndex(4);  // the data set does not enter the path
  const hd_path_param p = data.hd_path();
  EXPECT_EQ(static_cast<uint32_t>(p.purpose), 0x8000002Cu);
  EXPECT_EQ(static_cast<uint32_t>(p.coin_type), 0x8000003Cu);
  EXPECT_EQ(static_cast<uint32_t>(p.account), 0x80000000u);
  EXPECT_EQ(p.change, 0);
  EXPECT_EQ(p.address_index, 3);
  EXPECT_EQ(hd_path_to_string(p), "m/44'/60'/0'/0/3");
}

TEST(TestDataRows, DataSetMajorAccountMinor) {
  TestData data;
  for (unsigned int d = 0; d < 5; ++d) {
    for (unsigned int a = 0; a < 5; ++a) {
      data.setDataIndex(d);
      data.setAccountIndex(a);
      const unsigned int row = 5 * d + a;
      EXPECT_EQ(data.ex_pkey(), vectors::kPrivateKeys[row]);
      EXPECT_EQ(data.ex_address(), vectors::kAddresses[row]);
      EXPECT_EQ(data.ex_sig_r(), vectors::kSignatureR[row]);
      EXPECT_EQ(data.ex_sig_s(), vectors::kSignatureS[row]);
      EXPECT_EQ(data.ex_sig_v(), vectors::kSignatureV[row]);
      EXPECT_EQ(data.seed(), vectors::kSeeds[d]);
      EXPECT_EQ(data.ex_mnemonic(), vectors::kMnemonics[d]);
    }
  }
}

TEST(TestDataRows, ChangingTheDataSetChangesSeedMnemonicAndEveryAccountRow) {
  TestData data;
  data.setAccountIndex(2);
  data.setPinIndex(1);
  const Snapshot before = snapshot(data);
  data.setDataIndex(3);
  const Snapshot after = snapshot(data);
  EXPECT_NE(after.seed, before.seed);
  EXPECT_NE(after.mnemonic, before.mnemonic);
  EXPECT_NE(after.pkey, before.pkey);
  EXPECT_NE(after.address, before.address);
  EXPECT_NE(after.r, before.r);
  EXPECT_NE(after.s, before.s);
  EXPECT_EQ(after.pin, before.pin);
  EXPECT_EQ(after.path, before.path);
}

TEST(TestDataRows, ChangingTheAccountChangesOnlyAccountRowsAndPath) {
  TestData data;
  data.setDataIndex(1);
  const Snapshot before = snapshot(data);
  data.setAccountIndex(4);
  const Snapshot after = snapshot(data);
  EXPECT_EQ(after.seed, before.seed);
  EXPECT_EQ(after.mnemonic, before.mnemonic);
  EXPECT_EQ(after.pin, before.pin);
  EXPECT_NE(after.pkey, before.pkey);
  EXPECT_NE(after.address, before.address);
  EXPECT_NE(after.r, before.r);
  EXPECT_NE(after.s, before.s);
  EXPECT_NE(after.path, before.path);
}

TEST(TestDataRows, ChangingThePinChangesOnlyThePin) {
  TestData data;
  const Snapshot before = snapshot(data);
  data.setPinIndex(2);
  const Snapshot after = snapshot(data);
  EXPECT_NE(after.pin, before.pin);
  EXPECT_EQ(after.seed, before.seed);
  EXPECT_EQ(after.mnemonic, before.mnemonic);
  EXPECT_EQ(after.pkey, before.pkey);
  EXPECT_EQ(after.address, before.address);
  EXPECT_EQ(after.r, before.r);
  EXPECT_EQ(after.s, before.s);
  EXPECT_EQ(after.v, before.v);
  EXPECT_EQ(after.path, before.path);
}

TEST(TestDataValues, SizesAndForms) {
  TestData data;
  EXPECT_EQ(data.special_seedSize(), 16u);
  EXPECT_EQ(data.special_seed(), vectors::kSpecialSeed);
  for (unsigned int d = 0; d < 5; ++d) {
    data.setDataIndex(d);
    EXPECT_EQ(data.seedSize(), 16u);
    EXPECT_EQ(data.ex_mnemonicSize(), std::strlen(data.ex_mnemonic()));
    std::istringstream words(data.ex_mnemonic());
    std::vector<std::string> list{std::istream_iterator<std::string>(words), {}};
    EXPECT_EQ(list.size(), 12u) << data.ex_mnemonic();
    for (const std::string& w : list) {
      for (char c : w) {
        EXPECT_TRUE(c >= 'a' && c <= 'z') << w;
      }
    }
    EXPECT_NE(hex(data.seed(), 16), hex(data.special_seed(), 16));
  }
  for (unsigned int i = 0; i < 4; ++i) {
    data.setPinIndex(i);
    ASSERT_EQ(data.pinSize(), 6u);
    for (unsigned int k = 0; k < 6; ++k) {
      EXPECT_TRUE(data.pin()[k] >= '0' && data.pin()[k] <= '9');
    }
  }
}

TEST(TestDataValues, DataSetZeroIsThePublishedAllZeroWallet) {
  TestData data;
  EXPECT_EQ(hex(data.seed(), 16), std::string(32, '0'));
  EXPECT_STREQ(data.ex_mnemonic(),
               "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon "
               "abandon about");
  EXPECT_EQ(hex(data.ex_address(), 20), "9858effd232b4033e47d90003d41ec34ecaeda94");
}

TEST(TestDataValues, SignaturesAreLowSWithRecoveryIdZeroOrOne) {
  // Half the group order, rounded down: the largest S in the lower half.
  const std::string halfOrder = "7fffffffffffffffffffffffffffffff5d576e7357a4501ddfe92f46681b20a0";
  TestData data;
  for (unsigned int d = 0; d < 5; ++d) {
    for (unsigned int a = 0; a < 5; ++a) {
      data.setDataIndex(d);
      data.setAccountIndex(a);
      EXPECT_LE(hex(data.ex_sig_s(), 32), halfOrder) << d << "/" << a;
      EXPECT_NE(hex(data.ex_sig_r(), 32), std::string(64, '0'));
      EXPECT_LE(data.ex_sig_v(), 1u);
    }
  }
}

TEST(TestDataValues, ApiTestDigestIsTheCompiledOne) {
  EXPECT_EQ(test::api_test_digest(), vectors::kApiTestDigest);
}

}  // namespace
