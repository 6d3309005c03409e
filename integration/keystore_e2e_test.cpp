// End to end: the real poc_* functions, through the real libteec and a
// private teesim daemon, to the real keystore TA — every command, and the
// refusals a healthy system gives (no seed, wrong credential, malformed
// request, oversize data).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "CTzfrWsm.h"
#include "DeploymentCredential.h"
#include "PocInterface.h"
#include "TEEClient.h"
#include "teesim/testing/private_daemon.h"
#include "keystore_ta.h"
#include "securestorage.h"

#include "tessera/testing/hex.h"
#include "tessera/testing/vector_file.h"

namespace {

using tessera::testing::Hex;
using tessera::testing::Unhex;

using Bytes = std::vector<unsigned char>;
using tessera::testing::ReadTextFileOrEmpty;
using teesim::testing::PrivateDaemon;

// One daemon for the whole program. Made before the first keystore call, so
// it is destroyed (stopped) after the connection singleton has closed.
PrivateDaemon& Daemon() {
  static PrivateDaemon daemon;
  return daemon;
}

std::string ClientLog() { return Daemon().ClientLogPath(); }

class KeystoreE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(Daemon().Start()) << Daemon().Error();
    Daemon().UseFromThisProcess();
  }
  void SetUp() override {
    const uint32_t* w = tessera::kCredentialWords;
    ASSERT_EQ(ss_init_credential(&cred_, w[0], w[1], w[2], w[3], w[4], 1, 0), 0);
    ASSERT_EQ(ss_init_credential(&stranger_, 1, 2, 3, 4, 5, 1, 0), 0);
    log_start_ = ReadTextFileOrEmpty(ClientLog()).size();
  }
  // What the client logged during this test.
  std::string NewLog() const { return ReadTextFileOrEmpty(ClientLog()).substr(log_start_); }

  credential cred_;
  credential stranger_;
  std::size_t log_start_ = 0;
};



hd_path_param Path(uint32_t account) {
  return {static_cast<int32_t>(0x8000002Cu), static_cast<int32_t>(0x8000003Cu),
          static_cast<int32_t>(0x80000000u), 0, static_cast<int32_t>(account)};
}

const Bytes kZeroEntropy(16, 0);
const std::string kZeroPhrase =
    "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about";

// The TA's refusal as the client logs it: result and origin 4 (the TA).
std::string Refusal(uint32_t cmd, uint32_t result) {
  return "TEEC_InvokeCommand() failed for cmd " + std::to_string(cmd) +
         ", result = " + std::to_string(result) + ", retOrigin = 4";
}

TEST_F(KeystoreE2E, RestoreThenReadMnemonicKeysAddressesAndSignatures) {
  ASSERT_EQ(poc_restore_seed(cred_, 1, 84, kZeroEntropy.data(), 16), 0);
  char* phrase = nullptr;
  unsigned len = 0;
  ASSERT_EQ(poc_getMnemonic(cred_, 1, 84, &phrase, &len), 0);
  EXPECT_EQ(std::string(phrase, len), kZeroPhrase);
  std::free(phrase);

  // Values made by independent implementations (testdata/make_wallet_vectors.py).
  int checked = 0;
  bool in_zero_wallet = false;
  for (const auto& line : tessera::testing::ReadVectorFile(KEYSTORE_TESTDATA "/wallet_vectors.txt")) {
    const std::vector<std::string>& f = line.fields;
    if (f[0] == "wallet") {
      if (in_zero_wallet) break;
      in_zero_wallet = f.size() == 2 && f[1].rfind("0000", 0) == 0;
      continue;
    }
    if (!in_zero_wallet || f.size() != 4) continue;
    const std::string &kind = f[0], &path = f[1], &a = f[2], &b = f[3];
    if (path.rfind("44H/60H/0H/0/", 0) != 0) continue;
    const hd_path_param p = Path(static_cast<uint32_t>(std::stoul(path.substr(13))));
    unsigned char* out = nullptr;
    unsigned n = 0;
    if (kind == "key") {
      ASSERT_EQ(poc_getPrivateKey(cred_, 1, 84, p, &out, &n), 0);
      EXPECT_EQ(Hex(out, n), a) << path;
      std::free(out);
      ASSERT_EQ(poc_getAddress(cred_, 1, 84, p, &out, &n), 0);
      EXPECT_EQ(Hex(out, n), b) << path;
      std::free(out);
      ++checked;
    } else if (kind == "sign") {
      const Bytes digest = Unhex(a);
      ASSERT_EQ(poc_signTransaction(cred_, 1, 84, p, digest.data(), 32, &out, &n), 0);
      EXPECT_EQ(Hex(out, n), b) << "digest " << a;
      std::free(out);
      ++checked;
    }
  }
  EXPECT_EQ(checked, 3 + 8);
  EXPECT_NE(NewLog().find("TEE connection has been set"), std::string::npos);
}

TEST_F(KeystoreE2E, GenerateGivesAFreshValidPhrase) {
  ASSERT_EQ(poc_generate_seed(cred_, 2, 84), 0);
  char* first = nullptr;
  unsigned first_len = 0;
  ASSERT_EQ(poc_getMnemonic(cred_, 2, 84, &first, &first_len), 0);
  const std::string a(first, first_len);
  std::free(first);
  unsigned verdict = 0;
  ASSERT_EQ(poc_check_mnemonic(a.data(), static_cast<unsigned>(a.size()), &verdict), 0);
  EXPECT_EQ(verdict, 1u);
  ASSERT_EQ(poc_generate_seed(cred_, 2, 84), 0);
  char* second = nullptr;
  unsigned second_len = 0;
  ASSERT_EQ(poc_getMnemonic(cred_, 2, 84, &second, &second_len), 0);
  EXPECT_NE(std::string(second, second_len), a);
  std::free(second);
}

TEST_F(KeystoreE2E, CheckMnemonicGivesTheVerdict) {
  unsigned verdict = 99;
  ASSERT_EQ(poc_check_mnemonic(kZeroPhrase.data(), static_cast<unsigned>(kZeroPhrase.size()), &verdict), 0);
  EXPECT_EQ(verdict, 1u);
  const std::string bad = "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon";
  ASSERT_EQ(poc_check_mnemonic(bad.data(), static_cast<unsigned>(bad.size()), &verdict), 0);
  EXPECT_EQ(verdict, 0u);
}

TEST_F(KeystoreE2E, PinSaveCheckAndLock) {
  ASSERT_EQ(poc_restore_seed(cred_, 3, 84, kZeroEntropy.data(), 16), 0);
  const unsigned char pin[6] = {'2', '4', '6', '8', '0', '2'};
  const unsigned char wrong[6] = {'0', '0', '0', '0', '0', '1'};
  ASSERT_EQ(poc_save_pin(cred_, 3, 84, pin, 6), 0);
  unsigned verdict = 99;
  ASSERT_EQ(poc_check_pin(cred_, 3, 84, pin, 6, &verdict), 0);
  EXPECT_EQ(verdict, 1u);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(poc_check_pin(cred_, 3, 84, wrong, 6, &verdict), 0);
    EXPECT_EQ(verdict, 0u);
  }
  ASSERT_EQ(poc_check_pin(cred_, 3, 84, pin, 6, &verdict), 0);
  EXPECT_EQ(verdict, 2u) << "locked";
  ASSERT_EQ(poc_save_pin(cred_, 3, 84, pin, 6), 0);
  ASSERT_EQ(poc_check_pin(cred_, 3, 84, pin, 6, &verdict), 0);
  EXPECT_EQ(verdict, 1u);
  const std::string log = NewLog();
  EXPECT_EQ(log.find("246802"), std::string::npos) << "no PIN in the log";
}

TEST_F(KeystoreE2E, DeleteRemovesTheSeedAndLaterCommandsFail) {
  ASSERT_EQ(poc_restore_seed(cred_, 4, 84, kZeroEntropy.data(), 16), 0);
  ASSERT_EQ(poc_delete_seed(cred_, 4, 84), 0);
  char* phrase = nullptr;
  unsigned len = 0;
  EXPECT_EQ(poc_getMnemonic(cred_, 4, 84, &phrase, &len), -99);
  EXPECT_EQ(phrase, nullptr);
  EXPECT_EQ(poc_delete_seed(cred_, 4, 84), -99);
  EXPECT_NE(NewLog().find(Refusal(KEYSTORE_CMD_GET_MNEMONIC, TEEC_ERROR_ITEM_NOT_FOUND)), std::string::npos)
      << NewLog();
}

TEST_F(KeystoreE2E, CommandsWithoutSeedFail) {
  unsigned char* out = nullptr;
  unsigned n = 0;
  const hd_path_param p = Path(0);
  const unsigned char digest[32] = {1};
  EXPECT_EQ(poc_getPrivateKey(cred_, 5, 84, p, &out, &n), -99);
  EXPECT_EQ(poc_getAddress(cred_, 5, 84, p, &out, &n), -99);
  EXPECT_EQ(poc_signTransaction(cred_, 5, 84, p, digest, 32, &out, &n), -99);
  const unsigned char pin[6] = {'1', '1', '1', '1', '1', '1'};
  unsigned verdict = 0;
  EXPECT_EQ(poc_save_pin(cred_, 5, 84, pin, 6), -99);
  EXPECT_EQ(poc_check_pin(cred_, 5, 84, pin, 6, &verdict), -99);
  EXPECT_EQ(out, nullptr);
  const std::string log = NewLog();
  EXPECT_NE(log.find(Refusal(KEYSTORE_CMD_GET_PRIVATE_KEY, TEEC_ERROR_ITEM_NOT_FOUND)), std::string::npos) << log;
  EXPECT_NE(log.find("poc_getPrivateKey("), std::string::npos);
  EXPECT_NE(log.find(") > InvokeCommand failed"), std::string::npos);
}

TEST_F(KeystoreE2E, AStrangersCredentialIsDenied) {
  ASSERT_EQ(poc_restore_seed(cred_, 6, 84, kZeroEntropy.data(), 16), 0);
  char* phrase = nullptr;
  unsigned len = 0;
  EXPECT_EQ(poc_getMnemonic(stranger_, 6, 84, &phrase, &len), -99);
  EXPECT_EQ(poc_restore_seed(stranger_, 6, 84, kZeroEntropy.data(), 16), -99);
  EXPECT_EQ(poc_generate_seed(stranger_, 6, 84), -99);
  EXPECT_NE(NewLog().find(Refusal(KEYSTORE_CMD_GET_MNEMONIC, TEEC_ERROR_ACCESS_DENIED)), std::string::npos);
  // The owner's wallet is untouched.
  ASSERT_EQ(poc_getMnemonic(cred_, 6, 84, &phrase, &len), 0);
  EXPECT_EQ(std::string(phrase, len), kZeroPhrase);
  std::free(phrase);
}

TEST_F(KeystoreE2E, SeedOfAnUnsupportedLengthIsRefused) {
  const Bytes seed(17, 1);
  EXPECT_EQ(poc_restore_seed(cred_, 7, 84, seed.data(), 17), -99);
  EXPECT_NE(NewLog().find(Refusal(KEYSTORE_CMD_RESTORE_SEED, TEEC_ERROR_BAD_PARAMETERS)), std::string::npos);
}

TEST_F(KeystoreE2E, DigestOtherThan32BytesIsRefused) {
  ASSERT_EQ(poc_restore_seed(cred_, 8, 84, kZeroEntropy.data(), 16), 0);
  const Bytes data(33, 5);
  unsigned char* out = nullptr;
  unsigned n = 0;
  EXPECT_EQ(poc_signTransaction(cred_, 8, 84, Path(0), data.data(), 33, &out, &n), -99);
  EXPECT_EQ(out, nullptr);
}

TEST_F(KeystoreE2E, OversizeDataNeverLeavesTheClient) {
  ASSERT_EQ(poc_restore_seed(cred_, 9, 84, kZeroEntropy.data(), 16), 0);
  const Bytes data(9000, 5);
  unsigned char* out = nullptr;
  unsigned n = 0;
  EXPECT_EQ(poc_signTransaction(cred_, 9, 84, Path(0), data.data(), 9000, &out, &n), -2);
  EXPECT_EQ(poc_restore_seed(cred_, 9, 84, data.data(), 9000), -2);
  const std::string log = NewLog();
  EXPECT_NE(log.find(") > Put data error!"), std::string::npos);
  EXPECT_EQ(log.find("TEEC_InvokeCommand() failed"), std::string::npos) << "nothing was sent";
  char* phrase = nullptr;
  unsigned len = 0;
  ASSERT_EQ(poc_getMnemonic(cred_, 9, 84, &phrase, &len), 0);
  EXPECT_EQ(std::string(phrase, len), kZeroPhrase) << "the wallet is as it was";
  std::free(phrase);
}

TEST_F(KeystoreE2E, MalformedRequestsAreRefusedByTheTa) {
  // Requests the keystore API cannot make, written straight into the
  // connection's shared memory: a 19-byte path, a missing selector, an
  // unknown command.
  client::TEEClient& tee = client::TEEClient::getInstance();
  ASSERT_TRUE(tee.Open());
  const uint32_t levels[5] = {0x8000002Cu, 0x8000003Cu, 0x80000000u, 0, 0};
  {
    CTzfrWsm w(tee.getSHMPtr());
    ASSERT_TRUE(w.PutBlob(cred_.token, 32));
    ASSERT_TRUE(w.PutUint(340));
    ASSERT_TRUE(w.PutBlob(levels, 19));
    EXPECT_FALSE(tee.InvokeCommand(KEYSTORE_CMD_GET_ADDRESS));
  }
  {
    CTzfrWsm w(tee.getSHMPtr());
    ASSERT_TRUE(w.PutBlob(cred_.token, 32));
    EXPECT_FALSE(tee.InvokeCommand(KEYSTORE_CMD_GENERATE_SEED));
  }
  {
    CTzfrWsm w(tee.getSHMPtr());
    ASSERT_TRUE(w.PutBlob(cred_.token, 32));
    ASSERT_TRUE(w.PutUint(340));
    EXPECT_FALSE(tee.InvokeCommand(2));
  }
  const std::string log = NewLog();
  EXPECT_NE(log.find(Refusal(KEYSTORE_CMD_GET_ADDRESS, TEEC_ERROR_BAD_PARAMETERS)), std::string::npos) << log;
  EXPECT_NE(log.find(Refusal(KEYSTORE_CMD_GENERATE_SEED, TEEC_ERROR_BAD_PARAMETERS)), std::string::npos) << log;
  EXPECT_NE(log.find(Refusal(2, TEEC_ERROR_NOT_SUPPORTED)), std::string::npos) << log;
  // The session survives refusals.
  unsigned verdict = 0;
  ASSERT_EQ(poc_check_mnemonic(kZeroPhrase.data(), static_cast<unsigned>(kZeroPhrase.size()), &verdict), 0);
  EXPECT_EQ(verdict, 1u);
}

TEST_F(KeystoreE2E, NothingSecretReachesEitherLog) {
  ASSERT_EQ(poc_restore_seed(cred_, 10, 84, kZeroEntropy.data(), 16), 0);
  char* phrase = nullptr;
  unsigned len = 0;
  ASSERT_EQ(poc_getMnemonic(cred_, 10, 84, &phrase, &len), 0);
  std::free(phrase);
  unsigned char* key = nullptr;
  ASSERT_EQ(poc_getPrivateKey(cred_, 10, 84, Path(0), &key, &len), 0);
  const std::string key_hex = Hex(key, len);
  std::free(key);
  const unsigned char pin[6] = {'9', '7', '5', '3', '1', '8'};
  ASSERT_EQ(poc_save_pin(cred_, 10, 84, pin, 6), 0);
  unsigned verdict = 0;
  ASSERT_EQ(poc_check_pin(cred_, 10, 84, pin, 6, &verdict), 0);
  EXPECT_EQ(poc_getMnemonic(stranger_, 10, 84, &phrase, &len), -99);
  for (const std::string& log : {ReadTextFileOrEmpty(ClientLog()), Daemon().LogText()}) {
    EXPECT_EQ(log.find("abandon"), std::string::npos);
    EXPECT_EQ(log.find("975318"), std::string::npos);
    EXPECT_EQ(log.find(key_hex.substr(0, 12)), std::string::npos);
  }
}

}  // namespace
