// The special transaction test: the special seed restored and its eleven
// transactions signed.
#include "SpecialTransactionScenario.h"

#include "PocInterface.h"
#include "ScenarioSupport.h"
#include "TestData.h"
#include "TestDataTables.h"

namespace test {

namespace {

using scenario::Credential;
using scenario::kSelectorHi;
using scenario::kSelectorLo;
using scenario::KeystoreBuffer;
using scenario::printHexLine;
using scenario::printLine;
using scenario::timed;

using vectors::kSpecialTransactionCount;
constexpr unsigned int kSpecialTransactionSize = vectors::kDigestSize;

// Moves the process-wide account index to 0 for its lifetime and puts the
// previous value back however the run ends, an exception included.
class AccountZero {
 public:
  AccountZero() : saved_(testData.getAccountIndex()) { testData.setAccountIndex(0); }
  ~AccountZero() { testData.setAccountIndex(saved_); }
  AccountZero(const AccountZero&) = delete;
  AccountZero& operator=(const AccountZero&) = delete;

 private:
  unsigned int saved_;
};

bool restoreSpecialSeed(const credential& cred) {
  const int32_t rc = timed([&] {
    return poc_restore_seed(cred, kSelectorHi, kSelectorLo, testData.special_seed(),
                            testData.special_seedSize());
  });
  if (rc != 0) {
    printLine("Failed to restore seed");
    return false;
  }
  printLine("Seed successfully restored: ");
  printHexLine(" seed: [", testData.special_seed(), testData.special_seedSize());
  return true;
}

bool printPrivateKey(const credential& cred, const hd_path_param& path) {
  KeystoreBuffer<unsigned char> key;
  const int32_t rc = timed([&] {
    return poc_getPrivateKey(cred, kSelectorHi, kSelectorLo, path, key.out(), key.outLength());
  });
  if (rc != 0 || key.length() == 0 || key.data() == nullptr) {
    printLine("Failed to get private key");
    return false;
  }
  printHexLine("Received private key: [", key.data(), key.length());
  return true;
}

bool signSpecialTransaction(const credential& cred, const hd_path_param& path, unsigned int i) {
  KeystoreBuffer<unsigned char> signature;
  const unsigned char* transaction = testData.get_special_transaction(i);
  const int32_t rc = timed([&] {
    return poc_signTransaction(cred, kSelectorHi, kSelectorLo, path, transaction,
                               kSpecialTransactionSize, signature.out(), signature.outLength());
  });
  if (rc != 0 || signature.length() == 0 || signature.data() == nullptr) {
    printLine("Failed to sign transaction");
    return false;
  }
  unsigned char rsv[scenario::kSignatureSize];
  scenario::copySignature(rsv, signature.data(), signature.length());
  printLine("Received:");
  printHexLine(" sig_r: [", rsv, scenario::kSignatureRSize);
  printHexLine(" sig_s: [", rsv + scenario::kSignatureRSize, scenario::kSignatureSSize);
  printHexLine(" sig_v: [", rsv + scenario::kSignatureSize - 1, 1);
  return true;
}

}  // namespace

bool specialTransactionTest(int /*option*/) {
  Credential cred;
  if (!cred.init()) {
    return false;
  }
  if (!restoreSpecialSeed(cred.get())) {
    return false;
  }

  const AccountZero accountZero;
  const hd_path_param path = testData.hd_path();  // m/44'/60'/0'/0/0
  if (!printPrivateKey(cred.get(), path)) {
    return false;
  }
  for (unsigned int i = 0; i < kSpecialTransactionCount; ++i) {
    if (!signSpecialTransaction(cred.get(), path, i)) {
      return false;
    }
  }
  return true;
}

}  // namespace test
