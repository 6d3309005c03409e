// The API test runner: one keystore call per selection, printed beside the
// expected values.
#include "ApiScenario.h"

#include "PocInterface.h"
#include "RestoreAddress.h"
#include "ScenarioSupport.h"
#include "TestData.h"
#include "TestDataTables.h"

#include <cstring>
#include <string>

namespace test {

namespace {

using scenario::Credential;
using scenario::kSelectorHi;
using scenario::kSelectorLo;
using scenario::KeystoreBuffer;
using scenario::printHexLine;
using scenario::printLine;
using scenario::printTextLine;
using scenario::timed;

constexpr unsigned int kApiTestDigestSize = vectors::kDigestSize;
constexpr unsigned int kAddressSize = vectors::kAddressSize;
constexpr unsigned int kPrivateKeySize = vectors::kKeySize;
constexpr unsigned int kVerdictCorrect = 1;

const char* verdictText(unsigned int verdict) {
  return verdict == kVerdictCorrect ? "CORRECT" : "INCORRECT";
}

bool generateSeed(const credential& cred) {
  const int32_t rc = timed([&] { return poc_generate_seed(cred, kSelectorHi, kSelectorLo); });
  if (rc != 0) {
    printLine("Failed to generate seed");
    return false;
  }
  printLine("Seed successfully generated");
  return true;
}

bool restoreSeed(const credential& cred) {
  const int32_t rc = timed([&] {
    return poc_restore_seed(cred, kSelectorHi, kSelectorLo, testData.seed(), testData.seedSize());
  });
  if (rc != 0) {
    printLine("Failed to restore seed");
    return false;
  }
  printLine("Seed successfully restored: ");
  printHexLine(" seed: [", testData.seed(), testData.seedSize());
  return true;
}

bool getMnemonic(const credential& cred) {
  KeystoreBuffer<char> mnemonic;
  const int32_t rc = timed([&] {
    return poc_getMnemonic(cred, kSelectorHi, kSelectorLo, mnemonic.out(), mnemonic.outLength());
  });
  if (rc != 0 || mnemonic.data() == nullptr) {
    printLine("Failed to get mnemonic");
    return false;
  }
  printTextLine("Received mnemonic: [", mnemonic.data(), mnemonic.length());
  printTextLine("Expected mnemonic: [", testData.ex_mnemonic(), testData.ex_mnemonicSize());
  return true;
}

bool signTransaction(const credential& cred) {
  const hd_path_param path = testData.hd_path();
  const unsigned char* digest = api_test_digest();
  KeystoreBuffer<unsigned char> signature;
  const int32_t rc = timed([&] {
    return poc_signTransaction(cred, kSelectorHi, kSelectorLo, path, digest, kApiTestDigestSize,
                               signature.out(), signature.outLength());
  });
  if (rc != 0 || signature.length() == 0 || signature.data() == nullptr) {
    printLine("Failed to sign transaction");
    return false;
  }

  unsigned char rsv[scenario::kSignatureSize];
  scenario::copySignature(rsv, signature.data(), signature.length());
  const unsigned char* r = rsv;
  const unsigned char* s = rsv + scenario::kSignatureRSize;
  const unsigned char v = rsv[scenario::kSignatureSize - 1];
  const std::string restored = tools::RestoreAddress(
      std::string(reinterpret_cast<const char*>(digest), kApiTestDigestSize),
      std::string(reinterpret_cast<const char*>(r), scenario::kSignatureRSize),
      std::string(reinterpret_cast<const char*>(s), scenario::kSignatureSSize), v);

  printLine("Received:");
  printHexLine(" sig_r: [", r, scenario::kSignatureRSize);
  printHexLine(" sig_s: [", s, scenario::kSignatureSSize);
  printHexLine(" sig_v: [", &v, 1);
  printHexLine(" Restored address: [", reinterpret_cast<const unsigned char*>(restored.data()),
               static_cast<unsigned int>(restored.size()));
  printLine("Expected:");
  printHexLine(" sig_r: [", testData.ex_sig_r(), scenario::kSignatureRSize);
  printHexLine(" sig_s: [", testData.ex_sig_s(), scenario::kSignatureSSize);
  const unsigned char expectedV = testData.ex_sig_v();
  printHexLine(" sig_v: [", &expectedV, 1);
  printHexLine(" Original address: [", testData.ex_address(), kAddressSize);
  return true;
}

bool getAddress(const credential& cred) {
  const hd_path_param path = testData.hd_path();
  KeystoreBuffer<unsigned char> address;
  const int32_t rc = timed([&] {
    return poc_getAddress(cred, kSelectorHi, kSelectorLo, path, address.out(),
                          address.outLength());
  });
  if (rc != 0 || address.length() == 0 || address.data() == nullptr) {
    printLine("Failed to get address");
    return false;
  }
  printHexLine("Received address: [", address.data(), address.length());
  printHexLine("Expected address: [", testData.ex_address(), kAddressSize);
  return true;
}

bool getPrivateKey(const credential& cred) {
  const hd_path_param path = testData.hd_path();
  KeystoreBuffer<unsigned char> key;
  const int32_t rc = timed([&] {
    return poc_getPrivateKey(cred, kSelectorHi, kSelectorLo, path, key.out(), key.outLength());
  });
  if (rc != 0 || key.length() == 0 || key.data() == nullptr) {
    printLine("Failed to get private key");
    return false;
  }
  printHexLine("Received private key: [", key.data(), key.length());
  printHexLine("Expected private key: [", testData.ex_pkey(), kPrivateKeySize);
  return true;
}

const unsigned char* pinBytes() { return reinterpret_cast<const unsigned char*>(testData.pin()); }

bool savePin(const credential& cred) {
  const int32_t rc = timed([&] {
    return poc_save_pin(cred, kSelectorHi, kSelectorLo, pinBytes(), testData.pinSize());
  });
  if (rc != 0) {
    printLine("Failed to save pin");
    return false;
  }
  printLine("Pin successfully saved: ");
  printTextLine(" pin: [", testData.pin(), testData.pinSize());
  return true;
}

bool checkPin(const credential& cred) {
  // Stays 0 (not correct) should the keystore's answer hold no verdict.
  unsigned int verdict = 0;
  const int32_t rc = timed([&] {
    return poc_check_pin(cred, kSelectorHi, kSelectorLo, pinBytes(), testData.pinSize(), &verdict);
  });
  if (rc != 0) {
    printLine("Failed to check pin");
    return false;
  }
  printLine("Pin successfully checked: ");
  printLine(" pin: [" + std::string(testData.pin(), testData.pinSize()) + "]" + " is " +
            verdictText(verdict));
  return true;
}

bool checkMnemonic() {
  const char* mnemonic = testData.ex_mnemonic();
  const auto length = static_cast<unsigned int>(std::strlen(mnemonic));
  unsigned int verdict = 0;
  const int32_t rc = timed([&] { return poc_check_mnemonic(mnemonic, length, &verdict); });
  if (rc != 0) {
    printLine("Failed to check mnemonic");
    return false;
  }
  printLine("Mnemonic successfully checked: ");
  printLine(" mnemonic: [" + std::string(mnemonic, length) + "]" + " is " + verdictText(verdict));
  return true;
}

}  // namespace

bool launchApiInterface(int selection) {
  // The credential comes first, whatever the selection: a selection that
  // turns out to be unknown has still cost one set-up.
  Credential cred;
  if (!cred.init()) {
    return false;
  }
  switch (selection) {
    case 100:
      return generateSeed(cred.get());
    case 101:
      // Deleting the seed is deliberately not offered from the console: the
      // selection exists but always fails, without calling the keystore.
      printLine("Failed to delete seed");
      return false;
    case 102:
      return restoreSeed(cred.get());
    case 103:
      return getMnemonic(cred.get());
    case 104:
      return signTransaction(cred.get());
    case 105:
      return getAddress(cred.get());
    case 106:
      return getPrivateKey(cred.get());
    case 107:
      return savePin(cred.get());
    case 108:
      return checkPin(cred.get());
    case 109:
      return checkMnemonic();
    default:
      return false;
  }
}

}  // namespace test
