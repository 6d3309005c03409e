// The keystore TA's command handler, driven through Invoke() exactly as the
// TA entry point drives it, on the in-memory Internal API.
#include "Keystore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Bip39.h"
#include "CTzfrWsm.h"
#include "FakeInternalApi.h"
#include "KeystoreHarness.h"
#include "tessera/testing/vector_file.h"
#include "keystore_ta.h"


namespace {

using namespace keystore_test;

// ---- Creation and the allow-list ------------------------------------------------------

TEST_F(KeystoreTest, AllowListFormats) {
  struct Case {
    std::string value;
    TEE_Result create;
    bool alice, bob;
  };
  std::string upper = TokenHex(kBob);
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  const std::vector<Case> cases = {
      {TokenHex(kAlice), TEE_SUCCESS, true, false},
      {" " + TokenHex(kAlice) + " ,\t" + upper + " ", TEE_SUCCESS, true, true},
      {"", TEE_SUCCESS, false, false},
      {TokenHex(kAlice) + ",", TEE_ERROR_BAD_FORMAT, false, false},
      {TokenHex(kAlice) + ",," + TokenHex(kBob), TEE_ERROR_BAD_FORMAT, false, false},
      {TokenHex(kAlice).substr(1), TEE_ERROR_BAD_FORMAT, false, false},
      {TokenHex(kAlice) + "0", TEE_ERROR_BAD_FORMAT, false, false},
      {"zz" + TokenHex(kAlice).substr(2), TEE_ERROR_BAD_FORMAT, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("'" + c.value + "'");
    fake_tee::Reset();
    fake_tee::SetProperty(KEYSTORE_PROP_ALLOWED_CREDENTIALS, c.value);
    std::unique_ptr<Keystore> ks;
    ASSERT_EQ(Keystore::Create(&ks), c.create);
    if (c.create != TEE_SUCCESS) continue;
    ks_ = std::move(ks);
    EXPECT_EQ(Restore(kZeroEntropy, kAlice) == TEE_SUCCESS, c.alice);
    EXPECT_EQ(Restore(kZeroEntropy, kBob) == TEE_SUCCESS, c.bob);
  }
}

TEST_F(KeystoreTest, MissingAllowListServesNobodyButPhraseChecks) {
  fake_tee::Reset();
  Restart();
  EXPECT_EQ(Restore(kZeroEntropy), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(CheckPhrase(kZeroPhrase), 1u);
  EXPECT_FALSE(fake_tee::Traces().empty()) << "the missing list is reported";
}

TEST_F(KeystoreTest, LongAllowListIsReadWhole) {
  std::string list;
  for (int i = 0; i < 100; ++i) list += TokenHex(MakeToken(static_cast<unsigned char>(i))) + ",";
  list += TokenHex(kAlice);
  fake_tee::SetProperty(KEYSTORE_PROP_ALLOWED_CREDENTIALS, list);
  Restart();
  EXPECT_EQ(Restore(kZeroEntropy, kAlice), TEE_SUCCESS);
  EXPECT_EQ(Restore(kZeroEntropy, MakeToken(99)), TEE_SUCCESS);
  EXPECT_EQ(Restore(kZeroEntropy, kMallory), TEE_ERROR_ACCESS_DENIED);
}

// ---- The door: parameters, unknown commands, malformed requests --------------------

TEST_F(KeystoreTest, UnknownCommandsAreNotSupported) {
  for (uint32_t cmd : {0u, 2u, 8u, 11u, 12u, 50u, 99u, 102u, 1000u, 0xFFFFFFFFu}) {
    Request r;
    r.Cred(kAlice);
    EXPECT_EQ(Call(cmd, r).rc, TEE_ERROR_NOT_SUPPORTED) << cmd;
  }
}

TEST_F(KeystoreTest, WrongParameterTypesAreRefused) {
  Request r;
  r.Cred(kAlice).Sized(kZeroEntropy);
  for (uint32_t types : {0u, TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INPUT, 0, 0, 0),
                         TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_OUTPUT, 0, 0, 0),
                         TEE_PARAM_TYPES(TEE_PARAM_TYPE_VALUE_INOUT, 0, 0, 0),
                         TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INOUT, TEE_PARAM_TYPE_VALUE_INPUT, 0, 0),
                         TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INOUT, 0, 0, TEE_PARAM_TYPE_MEMREF_INOUT)}) {
    EXPECT_EQ(Exchange(*ks_, KEYSTORE_CMD_RESTORE_SEED, r.bytes(), types).rc, TEE_ERROR_BAD_PARAMETERS) << types;
  }
  EXPECT_TRUE(fake_tee::Objects().empty());
  EXPECT_EQ(ks_->Invoke(KEYSTORE_CMD_RESTORE_SEED, kInOut, nullptr), TEE_ERROR_BAD_PARAMETERS);
  TEE_Param params[4] = {};
  params[0].memref.buffer = nullptr;
  params[0].memref.size = 8192;
  EXPECT_EQ(ks_->Invoke(KEYSTORE_CMD_RESTORE_SEED, kInOut, params), TEE_ERROR_BAD_PARAMETERS);
  unsigned char tiny[7] = {};
  params[0].memref.buffer = tiny;
  params[0].memref.size = sizeof tiny;
  EXPECT_EQ(ks_->Invoke(KEYSTORE_CMD_DELETE_SEED, kInOut, params), TEE_ERROR_BAD_PARAMETERS);
}

TEST_F(KeystoreTest, BufferTooSmallForTheAnswerGetsShortBufferWithTheSizeNeeded) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  Request r;
  r.Cred(kAlice);
  Bytes small(r.bytes().begin(), r.bytes().begin() + 64);  // holds the 60-byte request
  Reply reply = Exchange(*ks_, KEYSTORE_CMD_GET_MNEMONIC, small);
  EXPECT_EQ(reply.rc, TEE_ERROR_SHORT_BUFFER);
  EXPECT_EQ(reply.size, 8u + 12u + 8u + 216u);
  Bytes enough(r.bytes().begin(), r.bytes().begin() + reply.size);
  reply = Exchange(*ks_, KEYSTORE_CMD_GET_MNEMONIC, enough);
  EXPECT_EQ(reply.rc, TEE_SUCCESS);
  Bytes phrase;
  ASSERT_TRUE(reply.Data(&phrase));
  EXPECT_EQ(std::string(phrase.begin(), phrase.end()), kZeroPhrase);
}

TEST_F(KeystoreTest, MalformedRequestsAreRefusedWithBadParameters) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  const Bytes before = OnlyObject();
  struct Case {
    const char* what;
    uint32_t cmd;
    std::function<void(Request&)> build;
  };
  const Bytes digest(32, 1);
  const std::vector<Case> cases = {
      {"empty message", KEYSTORE_CMD_GET_MNEMONIC, [](Request&) {}},
      {"credential of 31 bytes", KEYSTORE_CMD_DELETE_SEED,
       [](Request& r) { r.Blob(kAlice.data(), 31).Uint(kSel); }},
      {"credential of 33 bytes", KEYSTORE_CMD_GET_MNEMONIC,
       [](Request& r) { r.Blob(Bytes(33, 0xA1)).Uint(kSel); }},
      {"selector as a blob", KEYSTORE_CMD_GET_MNEMONIC,
       [](Request& r) { r.Blob(kAlice.data(), 32).Blob(Bytes(4, 0)); }},
      {"credential as a value", KEYSTORE_CMD_GENERATE_SEED, [](Request& r) { r.Uint(1).Uint(kSel); }},
      {"selector missing", KEYSTORE_CMD_GENERATE_SEED, [](Request& r) { r.Blob(kAlice.data(), 32); }},
      {"trailing field", KEYSTORE_CMD_DELETE_SEED, [](Request& r) { r.Cred(kAlice).Uint(0); }},
      {"seed length without seed", KEYSTORE_CMD_RESTORE_SEED,
       [](Request& r) { r.Cred(kAlice).Uint(16); }},
      {"seed length disagrees", KEYSTORE_CMD_RESTORE_SEED,
       [](Request& r) { r.Cred(kAlice).Uint(16).Blob(Bytes(20, 1)); }},
      {"seed length beyond the buffer", KEYSTORE_CMD_RESTORE_SEED,
       [](Request& r) { r.Cred(kAlice).Uint(9000).Blob(Bytes(16, 1)); }},
      {"seed of 15 bytes", KEYSTORE_CMD_RESTORE_SEED, [](Request& r) { r.Cred(kAlice).Sized(Bytes(15, 1)); }},
      {"seed of 17 bytes", KEYSTORE_CMD_RESTORE_SEED, [](Request& r) { r.Cred(kAlice).Sized(Bytes(17, 1)); }},
      {"seed of 33 bytes", KEYSTORE_CMD_RESTORE_SEED, [](Request& r) { r.Cred(kAlice).Sized(Bytes(33, 1)); }},
      {"seed of 64 bytes", KEYSTORE_CMD_RESTORE_SEED, [](Request& r) { r.Cred(kAlice).Sized(Bytes(64, 1)); }},
      {"empty seed", KEYSTORE_CMD_RESTORE_SEED, [](Request& r) { r.Cred(kAlice).Sized(Bytes()); }},
      {"path of 19 bytes", KEYSTORE_CMD_GET_ADDRESS,
       [](Request& r) { r.Cred(kAlice).Blob(Bytes(19, 0)); }},
      {"path of 21 bytes", KEYSTORE_CMD_GET_PRIVATE_KEY,
       [](Request& r) { r.Cred(kAlice).Blob(Bytes(21, 0)); }},
      {"path missing", KEYSTORE_CMD_GET_PRIVATE_KEY, [](Request& r) { r.Cred(kAlice); }},
      {"path with a length before it", KEYSTORE_CMD_GET_ADDRESS,
       [](Request& r) { r.Cred(kAlice).Uint(20).PathBlob(kAccount0); }},
      {"digest of 31 bytes", KEYSTORE_CMD_SIGN,
       [](Request& r) { r.Cred(kAlice).PathBlob(kAccount0).Sized(Bytes(31, 1)); }},
      {"digest of 33 bytes", KEYSTORE_CMD_SIGN,
       [](Request& r) { r.Cred(kAlice).PathBlob(kAccount0).Sized(Bytes(33, 1)); }},
      {"digest missing", KEYSTORE_CMD_SIGN, [](Request& r) { r.Cred(kAlice).PathBlob(kAccount0); }},
      {"digest without length", KEYSTORE_CMD_SIGN,
       [&](Request& r) { r.Cred(kAlice).PathBlob(kAccount0).Blob(digest); }},
      {"empty PIN", KEYSTORE_CMD_SAVE_PIN, [](Request& r) { r.Cred(kAlice).Sized(Bytes()); }},
      {"PIN of 129 bytes", KEYSTORE_CMD_SAVE_PIN, [](Request& r) { r.Cred(kAlice).Sized(Bytes(129, '1')); }},
      {"PIN to check of 129 bytes", KEYSTORE_CMD_CHECK_PIN,
       [](Request& r) { r.Cred(kAlice).Sized(Bytes(129, '1')); }},
      {"phrase without length", KEYSTORE_CMD_CHECK_MNEMONIC, [](Request& r) { r.Blob(Bytes(5, 'a')); }},
      {"phrase check with a credential", KEYSTORE_CMD_CHECK_MNEMONIC,
       [](Request& r) { r.Cred(kAlice).Sized(Bytes(5, 'a')); }},
  };
  for (const Case& c : cases) {
    Request r;
    c.build(r);
    EXPECT_EQ(Call(c.cmd, r).rc, TEE_ERROR_BAD_PARAMETERS) << c.what;
  }
  // Not a message at all.
  Bytes garbage(8192, 0x5A);
  EXPECT_EQ(Exchange(*ks_, KEYSTORE_CMD_GET_MNEMONIC, garbage).rc, TEE_ERROR_BAD_PARAMETERS);
  EXPECT_EQ(OnlyObject(), before) << "no malformed request changed the wallet";
}

TEST_F(KeystoreTest, MalformedRequestFromAnUnknownCallerIsStillBadParameters) {
  Request r;
  r.Cred(kMallory).Sized(Bytes(15, 1));
  EXPECT_EQ(Call(KEYSTORE_CMD_RESTORE_SEED, r).rc, TEE_ERROR_BAD_PARAMETERS);
}

// ---- Credentials and wallets ------------------------------------------------------------

TEST_F(KeystoreTest, UnknownCredentialIsDeniedOnEveryCommandThatTakesOne) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  Bytes out;
  EXPECT_EQ(Restore(kZeroEntropy, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(Simple(KEYSTORE_CMD_GENERATE_SEED, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(Simple(KEYSTORE_CMD_DELETE_SEED, kMallory), TEE_ERROR_ACCESS_DENIED);
  std::string phrase;
  EXPECT_EQ(Mnemonic(&phrase, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &out, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, kAccount0, &out, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(Sign(kAccount0, Bytes(32, 1), &out, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(SavePin("123456", kMallory), TEE_ERROR_ACCESS_DENIED);
  unsigned v = 0;
  EXPECT_EQ(CheckPin("123456", &v, kMallory), TEE_ERROR_ACCESS_DENIED);
  EXPECT_EQ(fake_tee::Objects().size(), 1u);
}

TEST_F(KeystoreTest, CommandsOnAWalletWithoutSeedFindNothing) {
  Bytes out;
  std::string phrase;
  unsigned v = 0;
  EXPECT_EQ(Mnemonic(&phrase), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &out), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, kAccount0, &out), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(Sign(kAccount0, Bytes(32, 1), &out), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(SavePin("123456"), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(CheckPin("123456", &v), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(Simple(KEYSTORE_CMD_DELETE_SEED), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_TRUE(fake_tee::Objects().empty()) << "nothing is created by a refused command";
}

TEST_F(KeystoreTest, WalletsAreKeyedByCredentialAndSelector) {
  const Bytes other(16, 0x7F);
  ASSERT_EQ(Restore(kZeroEntropy, kAlice, 340), TEE_SUCCESS);
  ASSERT_EQ(Restore(other, kAlice, 341), TEE_SUCCESS);
  ASSERT_EQ(Restore(other, kBob, 340), TEE_SUCCESS);
  std::string a, b, c;
  ASSERT_EQ(Mnemonic(&a, kAlice, 340), TEE_SUCCESS);
  ASSERT_EQ(Mnemonic(&b, kAlice, 341), TEE_SUCCESS);
  ASSERT_EQ(Mnemonic(&c, kBob, 340), TEE_SUCCESS);
  EXPECT_EQ(a, kZeroPhrase);
  EXPECT_EQ(b, "legal winner thank year wave sausage worth useful legal winner thank yellow");
  EXPECT_EQ(c, b);
  EXPECT_EQ(Simple(KEYSTORE_CMD_DELETE_SEED, kAlice, 341), TEE_SUCCESS);
  EXPECT_EQ(Mnemonic(&b, kAlice, 341), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(Mnemonic(&a, kAlice, 340), TEE_SUCCESS);
  EXPECT_EQ(Mnemonic(&c, kBob, 340), TEE_SUCCESS);
  std::string d;
  EXPECT_EQ(Mnemonic(&d, kBob, 0x10000 + 340), TEE_ERROR_ITEM_NOT_FOUND) << "all 32 bits count";
  for (const auto& o : fake_tee::Objects()) {
    EXPECT_EQ(o.first.find(TokenHex(kAlice).substr(0, 16)), std::string::npos) << "names hide the token";
  }
}

// ---- Seeds ---------------------------------------------------------------------------

TEST_F(KeystoreTest, PublishedPhrasesComeBackForEveryVector) {
  int n = 0;
  for (const auto& line :
       tessera::testing::ReadVectorFile(KEYSTORE_TESTDATA "/bip39_english_trezor.txt", '|')) {
    ASSERT_EQ(line.fields.size(), 3u) << "bad line " << line.number;
    const std::string& entropy = line.fields[0];
    const std::string& phrase = line.fields[1];
    ASSERT_EQ(Restore(Unhex(entropy)), TEE_SUCCESS) << entropy;
    std::string got;
    ASSERT_EQ(Mnemonic(&got), TEE_SUCCESS);
    EXPECT_EQ(got, phrase);
    EXPECT_EQ(CheckPhrase(phrase), 1u);
    ++n;
  }
  EXPECT_EQ(n, 24);
}

TEST_F(KeystoreTest, KeysAddressesAndSignaturesMatchTheIndependentVectors) {
  // Made with python3-mnemonic, -bip32utils, -ecdsa and pycryptodome
  // (testdata/make_wallet_vectors.py), BIP-39 seed with the empty passphrase.
  int wallets = 0, keys = 0, signatures = 0;
  for (const auto& line : tessera::testing::ReadVectorFile(KEYSTORE_TESTDATA "/wallet_vectors.txt")) {
    const std::vector<std::string>& f = line.fields;
    const std::string& kind = f[0];
    if (kind == "wallet") {
      ASSERT_EQ(f.size(), 2u) << "bad line " << line.number;
      ASSERT_EQ(Restore(Unhex(f[1])), TEE_SUCCESS);
      ++wallets;
    } else if (kind == "phrase") {
      std::string expected;
      for (std::size_t i = 1; i < f.size(); ++i) expected += (i > 1 ? " " : "") + f[i];
      std::string got;
      ASSERT_EQ(Mnemonic(&got), TEE_SUCCESS);
      EXPECT_EQ(got, expected);
    } else if (kind == "key") {
      ASSERT_EQ(f.size(), 4u) << "bad line " << line.number;
      const std::string &path = f[1], &key = f[2], &address = f[3];
      SCOPED_TRACE(path);
      Bytes out;
      ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, ParsePath(path), &out), TEE_SUCCESS);
      EXPECT_EQ(Hex(out), key);
      ASSERT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, ParsePath(path), &out), TEE_SUCCESS);
      EXPECT_EQ(Hex(out), address);
      ++keys;
    } else if (kind == "sign") {
      ASSERT_EQ(f.size(), 4u) << "bad line " << line.number;
      const std::string &path = f[1], &digest = f[2], &sig = f[3];
      Bytes out;
      ASSERT_EQ(Sign(ParsePath(path), Unhex(digest), &out), TEE_SUCCESS);
      EXPECT_EQ(Hex(out), sig) << "digest " << digest;
      ++signatures;
    }
  }
  EXPECT_EQ(wallets, 8);
  EXPECT_EQ(keys, 8 * 7);
  EXPECT_EQ(signatures, 8 * 8);
}

TEST_F(KeystoreTest, AllZeroEntropyGivesThePublishedAccountZeroAddress) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  Bytes address;
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, kAccount0, &address), TEE_SUCCESS);
  EXPECT_EQ(Hex(address), "9858effd232b4033e47d90003d41ec34ecaeda94");
}

TEST_F(KeystoreTest, RestoreReplacesTheSeedAndForgetsItsKeys) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  Bytes first, second;
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &first), TEE_SUCCESS);
  EXPECT_EQ(ks_->CachedNodes(), 6u) << "master and the five levels";
  ASSERT_EQ(Restore(Bytes(32, 0x80)), TEE_SUCCESS);
  EXPECT_EQ(ks_->CachedNodes(), 1u) << "the old seed's nodes are gone, the new master is ready";
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &second), TEE_SUCCESS);
  EXPECT_NE(first, second);
  std::string phrase;
  ASSERT_EQ(Mnemonic(&phrase), TEE_SUCCESS);
  EXPECT_EQ(phrase,
            "letter advice cage absurd amount doctor acoustic avoid letter advice cage absurd amount "
            "doctor acoustic avoid letter advice cage absurd amount doctor acoustic bless");
}

TEST_F(KeystoreTest, GenerateMakesAFreshSixteenByteSeed) {
  ASSERT_EQ(Simple(KEYSTORE_CMD_GENERATE_SEED), TEE_SUCCESS);
  std::string a, b;
  ASSERT_EQ(Mnemonic(&a), TEE_SUCCESS);
  EXPECT_EQ(std::count(a.begin(), a.end(), ' '), 11) << "12 words";
  EXPECT_EQ(CheckPhrase(a), 1u);
  ASSERT_EQ(Simple(KEYSTORE_CMD_GENERATE_SEED), TEE_SUCCESS);
  ASSERT_EQ(Mnemonic(&b), TEE_SUCCESS);
  EXPECT_NE(a, b) << "replaced by new random bytes";
  EXPECT_EQ(OnlyObject()[5], 16) << "entropy length in the record";
  // The seed survives a restart of the TA.
  Restart();
  std::string c;
  ASSERT_EQ(Mnemonic(&c), TEE_SUCCESS);
  EXPECT_EQ(c, b);
}

TEST_F(KeystoreTest, DeleteRemovesSeedAndPin) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  ASSERT_EQ(Simple(KEYSTORE_CMD_DELETE_SEED), TEE_SUCCESS);
  EXPECT_TRUE(fake_tee::Objects().empty());
  EXPECT_EQ(ks_->CachedWallets(), 0u);
  std::string phrase;
  EXPECT_EQ(Mnemonic(&phrase), TEE_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(Simple(KEYSTORE_CMD_DELETE_SEED), TEE_ERROR_ITEM_NOT_FOUND);
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  unsigned v = 0;
  EXPECT_EQ(CheckPin("123456", &v), TEE_ERROR_ITEM_NOT_FOUND) << "the PIN went with the seed";
}

// ---- Mnemonic check --------------------------------------------------------------

TEST_F(KeystoreTest, CheckMnemonicAnswersOneForValidAndZeroOtherwise) {
  EXPECT_EQ(CheckPhrase(kZeroPhrase), 1u);
  EXPECT_EQ(CheckPhrase("abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon"), 0u);
  EXPECT_EQ(CheckPhrase("hello world"), 0u);
  EXPECT_EQ(CheckPhrase(""), 0u);
  EXPECT_EQ(CheckPhrase(std::string(8000, 'a')), 0u);
  EXPECT_EQ(CheckPhrase(kZeroPhrase + " "), 0u);
}

// ---- PINs ----------------------------------------------------------------------------

TEST_F(KeystoreTest, PinMatchesAndMismatches) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  unsigned v = 99;
  EXPECT_EQ(CheckPin("123456", &v), TEE_ERROR_ITEM_NOT_FOUND) << "no PIN saved yet";
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
  ASSERT_EQ(CheckPin("123457", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MISMATCH);
  ASSERT_EQ(CheckPin("12345", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MISMATCH);
  ASSERT_EQ(CheckPin("1234567", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MISMATCH);
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
  ASSERT_EQ(SavePin(std::string(128, '7')), TEE_SUCCESS);
  ASSERT_EQ(CheckPin(std::string(128, '7'), &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MISMATCH) << "the new PIN replaced the old";
}

TEST_F(KeystoreTest, FiveConsecutiveMismatchesLockUntilANewPinIsSaved) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  unsigned v = 99;
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(CheckPin("000000", &v), TEE_SUCCESS);
    EXPECT_EQ(v, KEYSTORE_PIN_MISMATCH) << "attempt " << i + 1;
  }
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_LOCKED) << "even the right PIN";
  ASSERT_EQ(CheckPin("000000", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_LOCKED);
  Restart();
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_LOCKED) << "the lock is stored";
  ASSERT_EQ(SavePin("654321"), TEE_SUCCESS);
  ASSERT_EQ(CheckPin("654321", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
}

TEST_F(KeystoreTest, ReplacingTheSeedLiftsTheLock) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  unsigned v = 0;
  for (int i = 0; i < 6; ++i) ASSERT_EQ(CheckPin("000000", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_LOCKED);
  ASSERT_EQ(Simple(KEYSTORE_CMD_GENERATE_SEED), TEE_SUCCESS);
  EXPECT_EQ(CheckPin("123456", &v), TEE_ERROR_ITEM_NOT_FOUND) << "a new seed starts without PIN";
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
}

TEST_F(KeystoreTest, AMatchResetsTheCount) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  unsigned v = 0;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 4; ++i) ASSERT_EQ(CheckPin("999999", &v), TEE_SUCCESS);
    ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
    EXPECT_EQ(v, KEYSTORE_PIN_MATCH) << "round " << round;
  }
  EXPECT_EQ(OnlyObject()[7], 0) << "failures stored as 0";
}

TEST_F(KeystoreTest, ThePinIsStoredOnlyAsASaltedKeyedHash) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("314159"), TEE_SUCCESS);
  const Bytes first = OnlyObject();
  const std::string pin = "314159";
  EXPECT_EQ(std::search(first.begin(), first.end(), pin.begin(), pin.end()), first.end());
  ASSERT_EQ(SavePin("314159"), TEE_SUCCESS);
  const Bytes second = OnlyObject();
  EXPECT_NE(Bytes(first.begin() + 40, first.begin() + 56), Bytes(second.begin() + 40, second.begin() + 56))
      << "a fresh salt per save";
  EXPECT_NE(Bytes(first.begin() + 56, first.end()), Bytes(second.begin() + 56, second.end()));
}

TEST_F(KeystoreTest, KillingTheTaDuringACheckNeverGivesAFreeAttempt) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  // Each check dies right after its first storage write; had the comparison
  // come first, or the count been written after it, the right PIN would
  // reset the count every time.
  for (int i = 1; i <= 5; ++i) {
    fake_tee::CrashAfter(Op::kCreate, 1);
    Request r;
    r.Cred(kAlice).Sized(Bytes{'1', '2', '3', '4', '5', '6'});
    EXPECT_NE(Call(KEYSTORE_CMD_CHECK_PIN, r).rc, TEE_SUCCESS);
    EXPECT_EQ(OnlyObject()[7], i) << "the attempt was counted before anything else";
    Restart();
  }
  unsigned v = 0;
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_LOCKED);
}

TEST_F(KeystoreTest, CheckThatCannotCountTheAttemptDoesNotCompare) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  const Bytes before = OnlyObject();
  fake_tee::FailNext(Op::kCreate, TEE_ERROR_STORAGE_NO_SPACE);
  Request r;
  r.Cred(kAlice).Sized(Bytes{'1', '2', '3', '4', '5', '6'});
  Reply reply = Call(KEYSTORE_CMD_CHECK_PIN, r);
  EXPECT_EQ(reply.rc, TEE_ERROR_STORAGE_NO_SPACE);
  unsigned v = 77;
  EXPECT_FALSE(reply.Verdict(&v)) << "no verdict without a counted attempt";
  EXPECT_EQ(OnlyObject(), before);
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
}

// ---- Storage failures ----------------------------------------------------------------

TEST_F(KeystoreTest, PassingReadFailureFailsTheCommandAndKeepsTheSeed) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("123456"), TEE_SUCCESS);
  const Bytes before = OnlyObject();
  for (TEE_Result failure : {TEE_ERROR_STORAGE_NOT_AVAILABLE, TEE_ERROR_BUSY, TEE_ERROR_STORAGE_NOT_AVAILABLE_2}) {
    for (Op op : {Op::kOpen, Op::kRead}) {
      Restart();  // an empty cache: the next command must read storage
      fake_tee::FailNext(op, failure);
      std::string phrase;
      EXPECT_EQ(Mnemonic(&phrase), failure);
      Restart();
      fake_tee::FailNext(op, failure);
      EXPECT_EQ(SavePin("999999"), failure) << "no record is written without its seed";
      Restart();
      fake_tee::FailNext(op, failure);
      Bytes key;
      EXPECT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &key), failure);
      EXPECT_EQ(OnlyObject(), before);
    }
  }
  std::string phrase;
  ASSERT_EQ(Mnemonic(&phrase), TEE_SUCCESS);
  EXPECT_EQ(phrase, kZeroPhrase);
  unsigned v = 0;
  ASSERT_EQ(CheckPin("123456", &v), TEE_SUCCESS);
  EXPECT_EQ(v, KEYSTORE_PIN_MATCH);
}

TEST_F(KeystoreTest, CorruptRecordIsReportedAndNeverReplacedImplicitly) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  OnlyObject()[4] = 9;  // an unknown version
  const Bytes corrupt = OnlyObject();
  Restart();
  std::string phrase;
  EXPECT_EQ(Mnemonic(&phrase), TEE_ERROR_CORRUPT_OBJECT);
  EXPECT_EQ(SavePin("123456"), TEE_ERROR_CORRUPT_OBJECT);
  EXPECT_EQ(OnlyObject(), corrupt);
  for (auto mutate : std::vector<std::function<void(Bytes&)>>{
           [](Bytes& b) { b.pop_back(); }, [](Bytes& b) { b.push_back(0); },
           [](Bytes& b) { b[0] = 'X'; }, [](Bytes& b) { b[5] = 17; }, [](Bytes& b) { b[6] = 2; },
           [](Bytes& b) { b[7] = 6; }, [](Bytes& b) { b[30] = 1; }}) {
    ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
    mutate(OnlyObject());
    Restart();
    EXPECT_EQ(Mnemonic(&phrase), TEE_ERROR_CORRUPT_OBJECT);
  }
  // An explicit restore does replace it.
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(Mnemonic(&phrase), TEE_SUCCESS);
}

TEST_F(KeystoreTest, FailedWriteKeepsTheOldSeed) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  fake_tee::FailNext(Op::kCreate, TEE_ERROR_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(Restore(Bytes(16, 0x7F)), TEE_ERROR_STORAGE_NOT_AVAILABLE);
  fake_tee::FailNext(Op::kCreate, TEE_ERROR_STORAGE_NO_SPACE);
  EXPECT_EQ(Simple(KEYSTORE_CMD_GENERATE_SEED), TEE_ERROR_STORAGE_NO_SPACE);
  std::string phrase;
  ASSERT_EQ(Mnemonic(&phrase), TEE_SUCCESS);
  EXPECT_EQ(phrase, kZeroPhrase);
  fake_tee::FailNext(Op::kDelete, TEE_ERROR_STORAGE_NOT_AVAILABLE);
  EXPECT_EQ(Simple(KEYSTORE_CMD_DELETE_SEED), TEE_ERROR_STORAGE_NOT_AVAILABLE);
  ASSERT_EQ(Mnemonic(&phrase), TEE_SUCCESS);
  EXPECT_EQ(phrase, kZeroPhrase);
}

// ---- The node cache -----------------------------------------------------------------

TEST_F(KeystoreTest, RepeatedKeyCommandsNeitherReadStorageNorDerive) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  Bytes a, b, sig;
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &a), TEE_SUCCESS);
  const int opens = fake_tee::Count(Op::kOpen);
  const std::size_t nodes = ks_->CachedNodes();
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &b), TEE_SUCCESS);
    ASSERT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, kAccount0, &b), TEE_SUCCESS);
    ASSERT_EQ(Sign(kAccount0, Bytes(32, 9), &sig), TEE_SUCCESS);
  }
  EXPECT_EQ(fake_tee::Count(Op::kOpen), opens);
  EXPECT_EQ(ks_->CachedNodes(), nodes);
  // A sibling account derives one level only.
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, ParsePath("44H/60H/0H/0/3"), &b), TEE_SUCCESS);
  EXPECT_EQ(ks_->CachedNodes(), nodes + 1);
}

TEST_F(KeystoreTest, CacheIsBoundedAndEvictedWalletsStillWork) {
  for (uint32_t sel = 0; sel < 10; ++sel) {
    ASSERT_EQ(Restore(Bytes(16, static_cast<unsigned char>(sel)), kAlice, sel), TEE_SUCCESS);
  }
  EXPECT_LE(ks_->CachedWallets(), Keystore::kMaxWallets);
  for (uint32_t i = 0; i < 40; ++i) {
    Path p = kAccount0;
    p.level[4] = i;
    Bytes key;
    ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, p, &key, kAlice, 9), TEE_SUCCESS);
  }
  EXPECT_LE(ks_->CachedNodes(), Keystore::kMaxWallets * (1 + Keystore::kNodesPerWallet));
  std::string phrase;
  ASSERT_EQ(Mnemonic(&phrase, kAlice, 0), TEE_SUCCESS);
  EXPECT_EQ(phrase, kZeroPhrase);
  Bytes key, again;
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &key, kAlice, 9), TEE_SUCCESS);
  Restart();
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &again, kAlice, 9), TEE_SUCCESS);
  EXPECT_EQ(key, again) << "cache and storage agree";
}

// ---- Answers and secrets ---------------------------------------------------------------

TEST_F(KeystoreTest, AnswerReplacesTheRequestAndNothingOfTheRequestRemains) {
  const Bytes entropy(32, 0xEE);
  Request r;
  r.Cred(kAlice).Sized(entropy);
  Reply reply = Call(KEYSTORE_CMD_RESTORE_SEED, r);
  ASSERT_EQ(reply.rc, TEE_SUCCESS);
  CTzfrWsm answer(reply.shared.data(), reply.shared.size());
  ASSERT_TRUE(answer.PrepareReset(1));
  EXPECT_TRUE(answer.AtEnd()) << "an empty answer";
  const std::size_t request_size = 8 + 40 + 12 + 12 + 40;
  EXPECT_EQ(reply.size, request_size);
  EXPECT_EQ(Bytes(reply.shared.begin() + 8, reply.shared.begin() + request_size), Bytes(request_size - 8, 0))
      << "the seed does not linger in the caller's buffer";

  Request m;
  m.Cred(kAlice);
  reply = Call(KEYSTORE_CMD_GET_MNEMONIC, m);
  ASSERT_EQ(reply.rc, TEE_SUCCESS);
  Bytes phrase;
  ASSERT_TRUE(reply.Data(&phrase));
  EXPECT_EQ(reply.size, 8 + 12 + 8 + ((phrase.size() + 3) & ~3u));
}

TEST_F(KeystoreTest, NothingSecretIsTraced) {
  ASSERT_EQ(Restore(kZeroEntropy), TEE_SUCCESS);
  ASSERT_EQ(SavePin("271828"), TEE_SUCCESS);
  unsigned v = 0;
  ASSERT_EQ(CheckPin("864209", &v), TEE_SUCCESS);
  Bytes key, address, sig;
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_PRIVATE_KEY, kAccount0, &key), TEE_SUCCESS);
  ASSERT_EQ(PathData(KEYSTORE_CMD_GET_ADDRESS, kAccount0, &address), TEE_SUCCESS);
  ASSERT_EQ(Sign(kAccount0, Bytes(32, 3), &sig), TEE_SUCCESS);
  fake_tee::FailNext(Op::kOpen, TEE_ERROR_STORAGE_NOT_AVAILABLE);
  Restart();
  std::string phrase;
  EXPECT_NE(Mnemonic(&phrase), TEE_SUCCESS);
  EXPECT_EQ(Restore(kZeroEntropy, kMallory), TEE_ERROR_ACCESS_DENIED);
  ASSERT_FALSE(fake_tee::Traces().empty());
  for (const std::string& t : fake_tee::Traces()) {
    EXPECT_EQ(t.find("271828"), std::string::npos) << t;
    EXPECT_EQ(t.find("864209"), std::string::npos) << t;
    EXPECT_EQ(t.find("abandon"), std::string::npos) << t;
    EXPECT_EQ(t.find(Hex(key).substr(0, 8)), std::string::npos) << t;
    EXPECT_EQ(t.find(TokenHex(kMallory).substr(0, 8)), std::string::npos) << t;
  }
}

}  // namespace
