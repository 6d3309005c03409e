// The current test data: indices with their bounds, and accessors into the
// generated tables.
#include "TestData.h"

#include "TestDataTables.h"

#include <cstring>

namespace test {

namespace {

constexpr uint32_t kHardened = 0x80000000u;

}  // namespace

TestData testData;

void TestData::setDataIndex(unsigned int i) {
  if (i < vectors::kDataSetCount) {
    dataIndex = i;
  }
}

void TestData::setAccountIndex(unsigned int i) {
  if (i < vectors::kAccountCount) {
    accountIndex = i;
  }
}

void TestData::setPinIndex(unsigned int i) {
  if (i < vectors::kPinCount) {
    pinIndex = i;
  }
}

hd_path_param TestData::hd_path() const {
  hd_path_param path{};
  path.purpose = static_cast<int32_t>(kHardened | 44u);
  path.coin_type = static_cast<int32_t>(kHardened | 60u);
  path.account = static_cast<int32_t>(kHardened | 0u);
  path.change = 0;
  path.address_index = static_cast<int32_t>(accountIndex);
  return path;
}

const unsigned char* TestData::seed() const { return vectors::kSeeds[dataIndex]; }

unsigned int TestData::seedSize() const { return vectors::kSeedLengths[dataIndex]; }

const unsigned char* TestData::special_seed() const { return vectors::kSpecialSeed; }

unsigned int TestData::special_seedSize() const { return 16; }

const char* TestData::ex_mnemonic() const { return vectors::kMnemonics[dataIndex]; }

unsigned int TestData::ex_mnemonicSize() const {
  return static_cast<unsigned int>(std::strlen(vectors::kMnemonics[dataIndex]));
}

const char* TestData::pin() const { return vectors::kPins[pinIndex]; }

unsigned int TestData::pinSize() const {
  return static_cast<unsigned int>(std::strlen(vectors::kPins[pinIndex]));
}

unsigned int TestData::row() const { return vectors::kAccountCount * dataIndex + accountIndex; }

const unsigned char* TestData::ex_pkey() const { return vectors::kPrivateKeys[row()]; }

const unsigned char* TestData::ex_address() const { return vectors::kAddresses[row()]; }

const unsigned char* TestData::ex_sig_r() const { return vectors::kSignatureR[row()]; }

const unsigned char* TestData::ex_sig_s() const { return vectors::kSignatureS[row()]; }

unsigned char TestData::ex_sig_v() const { return vectors::kSignatureV[row()]; }

const unsigned char* TestData::get_special_transaction(unsigned int i) const {
  if (i >= vectors::kSpecialTransactionCount) {
    return nullptr;
  }
  return vectors::kSpecialTransactions[i];
}

const unsigned char* api_test_digest() { return vectors::kApiTestDigest; }

}  // namespace test
