// Real cases against a TA played on the scriptable GP Client API: a
// keystore that answers as the vectors say passes, and each kind of wrong
// answer fails the case with the right reason. The end-to-end tests
// (integration/check_e2e_test.py) do the same against real keystore TAs.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "CTzfrWsm.h"
#include "FakeTeec.h"
#include "TEEClient.h"
#include "TestDataTables.h"
#include "cases/CaseRegistry.h"
#include "cases/RecordingListener.h"
#include "keystore_ta.h"
#include "securestorage.h"

namespace check {
namespace {

namespace v = test::vectors;
using Bytes = std::vector<unsigned char>;

const CaseInfo& Find(int id) {
  for (const CaseInfo& c : AllCases()) {
    if (c.id == id) return c;
  }
  ADD_FAILURE() << "no case " << id;
  return AllCases().front();
}

struct Ran {
  std::vector<CheckRecord> checks;
  std::string firstFailure;
  unsigned failed = 0;
  bool stopped = false;
};

Ran RunOne(int id) {
  RecordingListener listener;
  credential cred{};
  CaseContext ctx(listener, cred, nullptr);
  Ran ran;
  try {
    Find(id).run(ctx);
  } catch (const CaseStopped&) {
    ran.stopped = true;
  }
  for (CaseContext::Deferred& later : ctx.TakeDeferred()) later(ctx);  // as the verifier does
  ran.checks = listener.checks;
  ran.firstFailure = ctx.firstFailure();
  ran.failed = ctx.failedChecks();
  return ran;
}

Bytes Of(const unsigned char* p, std::size_t n) { return Bytes(p, p + n); }

// A keystore holding data set 0 as the vectors say; `answers` overrides the
// data answer of a command.
void PlayDataSetZero(std::map<uint32_t, Bytes> answers = {}) {
  const char* phrase = v::kMnemonics[0];
  Bytes sig = Of(v::kSignatureR[0], 32);
  const Bytes s = Of(v::kSignatureS[0], 32);
  sig.insert(sig.end(), s.begin(), s.end());
  sig.push_back(v::kSignatureV[0]);
  std::map<uint32_t, Bytes> data = {
      {KEYSTORE_CMD_GET_MNEMONIC, Bytes(phrase, phrase + std::strlen(phrase))},
      {KEYSTORE_CMD_GET_PRIVATE_KEY, Of(v::kPrivateKeys[0], 32)},
      {KEYSTORE_CMD_GET_ADDRESS, Of(v::kAddresses[0], 20)},
      {KEYSTORE_CMD_SIGN, sig},
  };
  for (auto& a : answers) data[a.first] = a.second;
  fake_teec::SetHandler([data](uint32_t command, TEEC_SharedMemory& shm, uint32_t* origin) {
    *origin = TEEC_ORIGIN_TRUSTED_APP;
    CTzfrWsm answer(&shm);
    EXPECT_TRUE(answer.PrepareReset(0));
    const auto it = data.find(command);
    if (it != data.end()) {
      EXPECT_TRUE(answer.PutUint(static_cast<unsigned>(it->second.size())));
      EXPECT_TRUE(answer.PutBlob(it->second.data(), static_cast<unsigned>(it->second.size())));
    }
    return static_cast<TEEC_Result>(TEEC_SUCCESS);
  });
}

class CasesOnAFakeTa : public ::testing::Test {
 protected:
  void SetUp() override {
    client::TEEClient::getInstance().Close();
    fake_teec::Reset();
  }
  void TearDown() override { client::TEEClient::getInstance().Close(); }
};

TEST_F(CasesOnAFakeTa, AKeystoreThatAnswersAsTheVectorsSayPasses) {
  PlayDataSetZero();
  for (int id : {1001, 1101, 4002}) {
    const Ran ran = RunOne(id);
    EXPECT_EQ(ran.failed, 0u) << id << ": " << ran.firstFailure;
    EXPECT_FALSE(ran.stopped) << id;
    EXPECT_GE(ran.checks.size(), 3u) << id;
  }
}

TEST_F(CasesOnAFakeTa, AWrongAddressFailsBothAddressChecksAndNothingElse) {
  Bytes wrong = Of(v::kAddresses[0], 20);
  wrong[19] ^= 1;
  PlayDataSetZero({{KEYSTORE_CMD_GET_ADDRESS, wrong}});
  const Ran ran = RunOne(1001);
  EXPECT_EQ(ran.failed, 2u);
  EXPECT_EQ(ran.firstFailure, "address at m/44'/60'/0'/0/0: got 9858effd232b4033e47d90003d41ec34ecaeda95, "
                              "expected 9858effd232b4033e47d90003d41ec34ecaeda94");
  EXPECT_EQ(RunOne(1101).failed, 0u);
}

TEST_F(CasesOnAFakeTa, AHighSSignatureStillRecoversButFailsItsFormAndTheExactValues) {
  // s' = n - s with v flipped is the same signature in its other form.
  static const unsigned char n[32] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                                      0xff, 0xff, 0xff, 0xff, 0xfe, 0xba, 0xae, 0xdc, 0xe6, 0xaf, 0x48,
                                      0xa0, 0x3b, 0xbf, 0xd2, 0x5e, 0x8c, 0xd0, 0x36, 0x41, 0x41};
  Bytes sig = Of(v::kSignatureR[0], 32);
  unsigned borrow = 0;
  unsigned char high[32];
  for (int i = 31; i >= 0; --i) {
    const int d = n[i] - v::kSignatureS[0][i] - static_cast<int>(borrow);
    high[i] = static_cast<unsigned char>(d & 0xff);
    borrow = d < 0 ? 1 : 0;
  }
  sig.insert(sig.end(), high, high + 32);
  sig.push_back(static_cast<unsigned char>(v::kSignatureV[0] ^ 1));
  PlayDataSetZero({{KEYSTORE_CMD_SIGN, sig}});
  const Ran keys = RunOne(1001);
  EXPECT_EQ(keys.failed, 1u) << keys.firstFailure;
  EXPECT_EQ(keys.firstFailure.rfind("signature at m/44'/60'/0'/0/0: low S: got ", 0), 0u)
      << keys.firstFailure;
  const Ran exact = RunOne(1101);
  EXPECT_EQ(exact.failed, 2u);
  EXPECT_EQ(exact.firstFailure.rfind("s of the signature at m/44'/60'/0'/0/0: got ", 0), 0u);
}

TEST_F(CasesOnAFakeTa, ATaFailureStopsTheCaseWithTheResultByNameAndOrigin) {
  fake_teec::SetHandler([](uint32_t, TEEC_SharedMemory&, uint32_t* origin) {
    *origin = TEEC_ORIGIN_TRUSTED_APP;
    return static_cast<TEEC_Result>(TEEC_ERROR_ACCESS_DENIED);
  });
  const Ran ran = RunOne(1001);
  EXPECT_TRUE(ran.stopped);
  EXPECT_EQ(ran.firstFailure,
            "restore data set 0: poc_restore_seed: 0xFFFF0001 TEEC_ERROR_ACCESS_DENIED from the "
            "trusted application");
  EXPECT_EQ(fake_teec::CountOf(fake_teec::Fn::kInvokeCommand), 1u);
}

TEST_F(CasesOnAFakeTa, AWronglySizedAnswerIsNeverRead) {
  PlayDataSetZero({{KEYSTORE_CMD_GET_ADDRESS, Bytes(19, 0x11)}});
  const Ran ran = RunOne(1001);
  EXPECT_TRUE(ran.stopped);
  EXPECT_EQ(ran.firstFailure,
            "read the address at m/44'/60'/0'/0/0: answer size: got 19 bytes, expected 20 bytes");
}

TEST_F(CasesOnAFakeTa, AVerdictMissingFromTheAnswerIsAFailureNotAVerdict) {
  PlayDataSetZero();  // CHECK_MNEMONIC answers an empty message
  const Ran ran = RunOne(5001);
  EXPECT_TRUE(ran.stopped);
  EXPECT_EQ(ran.firstFailure,
            "check \"abandon abandon abandon abandon abandon ...\" (93 bytes): answer holds a verdict: "
            "got none, expected a verdict");
}

TEST_F(CasesOnAFakeTa, ArgumentCasesPassWithoutAnyCommandReachingTheTa) {
  PlayDataSetZero();
  for (int id = 7001; id <= 7008; ++id) {
    const Ran ran = RunOne(id);
    EXPECT_EQ(ran.failed, 0u) << id << ": " << ran.firstFailure;
    EXPECT_GE(ran.checks.size(), 6u) << id;
  }
  EXPECT_EQ(fake_teec::CountOf(fake_teec::Fn::kInvokeCommand), 0u);
  EXPECT_EQ(fake_teec::CountOf(fake_teec::Fn::kInitializeContext), 0u)
      << "a refused call does not even open the connection";
}

TEST_F(CasesOnAFakeTa, TheOwnSeedCasesNeedASeed) {
  const Ran ran = RunOne(8001);
  EXPECT_TRUE(ran.stopped);
  EXPECT_EQ(ran.firstFailure, "the operator's seed is given: run with --seed HEX");
}

}  // namespace
}  // namespace check
