// The console's side of the deployment against the keystore TA's command
// handler: the TA's installation serves exactly the credential the console
// makes; every data set and account gives the phrase, key, address and
// signature the console prints as expected; and the special transactions are
// all signed by the special seed's account 0 (checked with libsecp256k1, an
// implementation independent of the TA's signing path). Checks across both
// worlds, so they live here rather than beside either side.
#include <gtest/gtest.h>
#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <cstring>
#include <fstream>
#include <string>

#include "DeploymentCredential.h"
#include "KeystoreHarness.h"
#include "TestDataTables.h"
#include "securestorage.h"

namespace {

using namespace keystore_test;

TEST_F(KeystoreTest, InstallationPropertiesListTheConsolesCredential) {
  std::ifstream in(KEYSTORE_PROPS_FILE);
  ASSERT_TRUE(in.good()) << KEYSTORE_PROPS_FILE;
  std::string line, value;
  while (std::getline(in, line)) {
    const std::string prefix = std::string(KEYSTORE_PROP_ALLOWED_CREDENTIALS) + " = ";
    if (line.rfind(prefix, 0) == 0) value = line.substr(prefix.size());
  }
  credential console;
  const uint32_t* w = tessera::kCredentialWords;
  ASSERT_EQ(ss_init_credential(&console, w[0], w[1], w[2], w[3], w[4], 1, 0), 0);
  Token token;
  std::memcpy(token.data(), console.token, 32);
  EXPECT_EQ(value, TokenHex(token));

  // A TA installed with that file serves the console and nobody else.
  fake_tee::Reset();
  fake_tee::SetProperty(KEYSTORE_PROP_ALLOWED_CREDENTIALS, value);
  Restart();
  EXPECT_EQ(Restore(kZeroEntropy, token), TEE_SUCCESS);
  EXPECT_EQ(Restore(kZeroEntropy, kAlice), TEE_ERROR_ACCESS_DENIED);
}

TEST_F(KeystoreTest, ConsoleTestDataEveryDataSetAndAccount) {
  namespace v = test::vectors;
  for (unsigned d = 0; d < v::kDataSetCount; ++d) {
    ASSERT_EQ(Restore(Bytes(v::kSeeds[d], v::kSeeds[d] + v::kSeedLengths[d])), TEE_SUCCESS) << "data set " << d;
    std::string phrase;
    ASSERT_EQ(Mnemonic(&phrase), TEE_SUCCESS);
    EXPECT_EQ(phrase, v::kMnemonics[d]) << "data set " << d;
    EXPECT_EQ(CheckPhrase(v::kMnemonics[d]), 1u);
    for (unsigned a = 0; a < v::kAccountCount; ++a) {
      SCOPED_TRACE("data set " + std::to_string(d) + ", account " + std::to_string(a));
      const unsigned row = v::kAccountCount * d + a;
      Path p = kAccount0;
      p.level[4] = a;
      Bytes key, address, sig;
      ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, p, &key), TEE_SUCCESS);
      EXPECT_EQ(key, Bytes(v::kPrivateKeys[row], v::kPrivateKeys[row] + 32));
      ASSERT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, p, &address), TEE_SUCCESS);
      EXPECT_EQ(address, Bytes(v::kAddresses[row], v::kAddresses[row] + 20));
      ASSERT_EQ(Sign(p, Bytes(v::kApiTestDigest, v::kApiTestDigest + 32), &sig), TEE_SUCCESS);
      Bytes expected(v::kSignatureR[row], v::kSignatureR[row] + 32);
      expected.insert(expected.end(), v::kSignatureS[row], v::kSignatureS[row] + 32);
      expected.push_back(v::kSignatureV[row]);
      EXPECT_EQ(Hex(sig), Hex(expected));
    }
  }
  for (unsigned i = 0; i < v::kPinCount; ++i) {
    const std::string pin(v::kPins[i]);
    ASSERT_EQ(SavePin(pin), TEE_SUCCESS);
    unsigned verdict = 0;
    ASSERT_EQ(CheckPin(pin, &verdict), TEE_SUCCESS);
    EXPECT_EQ(verdict, KEYSTORE_PIN_MATCH) << pin;
  }
}

TEST_F(KeystoreTest, ConsoleSpecialTransactionsAreAllSignedByTheSpecialSeed) {
  namespace v = test::vectors;
  ASSERT_EQ(Restore(Bytes(v::kSpecialSeed, v::kSpecialSeed + 16)), TEE_SUCCESS);
  Bytes key;
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &key), TEE_SUCCESS);
  secp256k1_context* ctx = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  secp256k1_pubkey expected;
  ASSERT_EQ(secp256k1_ec_pubkey_create(ctx, &expected, key.data()), 1);
  for (unsigned i = 0; i < v::kSpecialTransactionCount; ++i) {
    const Bytes digest(v::kSpecialTransactions[i], v::kSpecialTransactions[i] + 32);
    Bytes sig;
    ASSERT_EQ(Sign(kAccount0, digest, &sig), TEE_SUCCESS) << "transaction " << i;
    ASSERT_EQ(sig.size(), 65u);
    secp256k1_ecdsa_recoverable_signature rsig;
    ASSERT_EQ(secp256k1_ecdsa_recoverable_signature_parse_compact(ctx, &rsig, sig.data(), sig[64]), 1);
    secp256k1_pubkey recovered;
    // libsecp256k1 reduces a digest modulo n both when signing and recovering.
    ASSERT_EQ(secp256k1_ecdsa_recover(ctx, &recovered, &rsig, digest.data()), 1) << "transaction " << i;
    EXPECT_EQ(secp256k1_ec_pubkey_cmp(ctx, &recovered, &expected), 0) << "transaction " << i;
  }
  secp256k1_context_destroy(ctx);
}

}  // namespace
