// specialTransactionTest on link-time doubles of the keystore API and of
// ss_init_credential: the sequence of calls, every line, the result, the
// account index put back on every path, and the buffers.
#include "SpecialTransactionScenario.h"

#include "ScenarioTesting.h"

#include <climits>

namespace {

using keystore_doubles::Answer;
using keystore_doubles::Calls;
using keystore_doubles::Failure;
using keystore_doubles::Fn;
using keystore_doubles::Queue;
using keystore_doubles::Success;
using scenario_testing::AccountPath;
using scenario_testing::Bytes;
using scenario_testing::Hex;
using scenario_testing::Pattern;
using test::specialTransactionTest;
using test::testData;

constexpr unsigned int kTransactions = 11;

// A distinct 65-byte signature for transaction i.
std::vector<unsigned char> SignatureFor(unsigned int i) {
  std::vector<unsigned char> bytes = Pattern(64, static_cast<unsigned char>(0x20 + 3 * i));
  bytes.push_back(static_cast<unsigned char>(i % 2));
  return bytes;
}

const std::vector<unsigned char> kKey = Pattern(32, 0x90);

std::string SeedLines() {
  return "Seed successfully restored: \n"
         " seed: [" + Hex(testData.special_seed(), 16) + "]\n";
}

std::string KeyLine() { return "Received private key: [" + Hex(kKey) + "]\n"; }

std::string SignatureLines(unsigned int i) {
  const std::vector<unsigned char> sig = SignatureFor(i);
  return "Received:\n"
         " sig_r: [" + Hex(sig.data(), 32) + "]\n"
         " sig_s: [" + Hex(sig.data() + 32, 32) + "]\n"
         " sig_v: [" + Hex(sig.data() + 64, 1) + "]\n";
}

class SpecialTransactionScenarioTest : public scenario_testing::ScenarioTest {
 protected:
  // A keystore that answers every call well.
  static void ScriptHealthyKeystore(unsigned int signatures = kTransactions) {
    Queue(Fn::kGetPrivateKey, Success(kKey));
    for (unsigned int i = 0; i < signatures; ++i) {
      Queue(Fn::kSignTransaction, Success(SignatureFor(i)));
    }
  }

  static std::string FullOutput() {
    std::string text = SeedLines() + KeyLine();
    for (unsigned int i = 0; i < kTransactions; ++i) {
      text += SignatureLines(i);
    }
    return text;
  }
};

TEST_F(SpecialTransactionScenarioTest, RestoresSignsElevenAndPrintsEverything) {
  ScriptHealthyKeystore();
  EXPECT_TRUE(specialTransactionTest(0));
  EXPECT_EQ(output(), FullOutput());

  ExpectOneCredentialSetUp();
  ExpectCredentialAndSelectors();
  const auto& calls = Calls();
  ASSERT_EQ(calls.size(), 2u + kTransactions);
  EXPECT_EQ(calls[0].fn, Fn::kRestoreSeed);
  EXPECT_EQ(calls[0].input, Bytes(testData.special_seed(), 16));
  EXPECT_EQ(calls[1].fn, Fn::kGetPrivateKey);
  EXPECT_EQ(calls[1].path, AccountPath(0));
  for (unsigned int i = 0; i < kTransactions; ++i) {
    const auto& call = calls[2 + i];
    EXPECT_EQ(call.fn, Fn::kSignTransaction) << i;
    EXPECT_EQ(call.path, AccountPath(0)) << i;
    EXPECT_EQ(call.input, Bytes(testData.get_special_transaction(i), 32)) << i;
    EXPECT_TRUE(call.out_was_null) << i;
  }
  // The key and every signature were wiped before being freed.
  EXPECT_EQ(keystore_doubles::Buffers().size(), 1u + kTransactions);
  ExpectAllBuffersWiped();
}

TEST_F(SpecialTransactionScenarioTest, TheArgumentMakesNoDifference) {
  ScriptHealthyKeystore();
  EXPECT_TRUE(specialTransactionTest(0));
  const std::string reference = output();
  const std::vector<keystore_doubles::Call> referenceCalls = Calls();
  for (int option : {1, -1, 104, INT_MAX, INT_MIN}) {
    keystore_doubles::Reset();
    ScriptHealthyKeystore();
    EXPECT_TRUE(specialTransactionTest(option)) << option;
    EXPECT_EQ(output(), reference) << option;
    ASSERT_EQ(Calls().size(), referenceCalls.size()) << option;
    for (std::size_t i = 0; i < referenceCalls.size(); ++i) {
      EXPECT_EQ(Calls()[i].fn, referenceCalls[i].fn);
      EXPECT_EQ(Calls()[i].input, referenceCalls[i].input);
      EXPECT_EQ(Calls()[i].path, referenceCalls[i].path);
    }
  }
}

TEST_F(SpecialTransactionScenarioTest, SignsWithAccountZeroAndPutsTheIndexBack) {
  testData.setAccountIndex(3);
  testData.setDataIndex(2);
  testData.setPinIndex(1);
  ScriptHealthyKeystore();
  EXPECT_TRUE(specialTransactionTest(0));
  EXPECT_EQ(output(), FullOutput());
  for (std::size_t i = 1; i < Calls().size(); ++i) {
    EXPECT_EQ(Calls()[i].path, AccountPath(0));
  }
  EXPECT_EQ(testData.getAccountIndex(), 3u);
  EXPECT_EQ(testData.getDataIndex(), 2u);
  EXPECT_EQ(testData.getPinIndex(), 1u);
}

TEST_F(SpecialTransactionScenarioTest, FailureAtTransactionFiveStopsThereAndPutsTheIndexBack) {
  testData.setAccountIndex(3);
  ScriptHealthyKeystore(5);
  Queue(Fn::kSignTransaction, Failure(-99));
  // Would be used if the run went on.
  Queue(Fn::kSignTransaction, Success(SignatureFor(6)));

  EXPECT_FALSE(specialTransactionTest(0));
  std::string expected = SeedLines() + KeyLine();
  for (unsigned int i = 0; i < 5; ++i) {
    expected += SignatureLines(i);
  }
  expected += "Failed to sign transaction\n";
  EXPECT_EQ(output(), expected);
  // Restore, key, transactions 0 to 5; nothing after the failing one.
  ASSERT_EQ(Calls().size(), 2u + 6u);
  EXPECT_EQ(Calls().back().input, Bytes(testData.get_special_transaction(5), 32));
  EXPECT_EQ(testData.getAccountIndex(), 3u);
}

TEST_F(SpecialTransactionScenarioTest, SignatureWithoutBufferOrLengthIsAFailure) {
  Answer nullBuffer;
  nullBuffer.length = 65;
  Answer emptyLength = Success(SignatureFor(0));
  emptyLength.length = 0;
  for (const Answer& bad : {nullBuffer, emptyLength}) {
    keystore_doubles::Reset();
    testData.setAccountIndex(4);
    Queue(Fn::kGetPrivateKey, Success(kKey));
    Queue(Fn::kSignTransaction, bad);
    EXPECT_FALSE(specialTransactionTest(0));
    EXPECT_EQ(output(), SeedLines() + KeyLine() + "Failed to sign transaction\n");
    EXPECT_EQ(testData.getAccountIndex(), 4u);
  }
}

TEST_F(SpecialTransactionScenarioTest, RestoreFailureEndsTheRunBeforeAnythingElse) {
  testData.setAccountIndex(2);
  for (int32_t code : {-1, -2, -3, -99}) {
    keystore_doubles::Reset();
    Queue(Fn::kRestoreSeed, Failure(code));
    EXPECT_FALSE(specialTransactionTest(0));
    EXPECT_EQ(output(), "Failed to restore seed\n");
    EXPECT_EQ(keystore_doubles::CalledFunctions(), std::vector<Fn>{Fn::kRestoreSeed});
    EXPECT_EQ(testData.getAccountIndex(), 2u);
  }
}

TEST_F(SpecialTransactionScenarioTest, PrivateKeyFailuresEndTheRunAndPutTheIndexBack) {
  Answer nullBuffer;
  nullBuffer.length = 32;
  Answer emptyLength = Success(kKey);
  emptyLength.length = 0;
  Answer failedWithBuffer = Failure(-4);
  failedWithBuffer.hands_out = true;
  failedWithBuffer.buffer = kKey;
  for (const Answer& bad : {nullBuffer, emptyLength, Failure(-99), failedWithBuffer}) {
    keystore_doubles::Reset();
    testData.setAccountIndex(1);
    Queue(Fn::kGetPrivateKey, bad);
    EXPECT_FALSE(specialTransactionTest(0));
    EXPECT_EQ(output(), SeedLines() + "Failed to get private key\n");
    EXPECT_EQ(keystore_doubles::CalledFunctions(),
              (std::vector<Fn>{Fn::kRestoreSeed, Fn::kGetPrivateKey}));
    EXPECT_EQ(testData.getAccountIndex(), 1u);
    for (const keystore_doubles::Buffer& b : keystore_doubles::Buffers()) {
      EXPECT_TRUE(b.freed);
    }
  }
}

TEST_F(SpecialTransactionScenarioTest, FailedCredentialPrintsItsLineAndCallsNothing) {
  testData.setAccountIndex(2);
  keystore_doubles::SetCredentialResult(-3);
  EXPECT_FALSE(specialTransactionTest(0));
  EXPECT_EQ(output(), "ss_init_credential: FAIL\n");
  EXPECT_TRUE(Calls().empty());
  EXPECT_EQ(testData.getAccountIndex(), 2u);
}

TEST_F(SpecialTransactionScenarioTest, ShortSignatureIsReadOnlyAsFarAsItGoes) {
  Queue(Fn::kGetPrivateKey, Success(kKey));
  Queue(Fn::kSignTransaction, Success(Pattern(33, 0x01)));  // r and one byte of s
  for (unsigned int i = 1; i < kTransactions; ++i) {
    Queue(Fn::kSignTransaction, Success(SignatureFor(i)));
  }
  EXPECT_TRUE(specialTransactionTest(0));
  std::vector<unsigned char> s(32, 0);
  s[0] = 0x21;
  std::string expected = SeedLines() + KeyLine() + "Received:\n sig_r: [" +
                         Hex(Pattern(32, 0x01)) + "]\n sig_s: [" + Hex(s) + "]\n sig_v: [00]\n";
  for (unsigned int i = 1; i < kTransactions; ++i) {
    expected += SignatureLines(i);
  }
  EXPECT_EQ(output(), expected);
}

TEST_F(SpecialTransactionScenarioTest, EveryKeystoreCallIsTimedAndTheTimesAddUp) {
  test::TimeTracker& tracker = test::TimeTracker::getInstance();
  tracker.setMode(1);
  Answer restore;
  restore.delay = std::chrono::milliseconds(3);
  Queue(Fn::kRestoreSeed, restore);
  Answer key = Success(kKey);
  key.delay = std::chrono::milliseconds(3);
  Queue(Fn::kGetPrivateKey, key);
  for (unsigned int i = 0; i < kTransactions; ++i) {
    Answer sig = Success(SignatureFor(i));
    sig.delay = std::chrono::milliseconds(3);
    Queue(Fn::kSignTransaction, sig);
  }
  EXPECT_TRUE(specialTransactionTest(0));
  output();
  EXPECT_TRUE(tracker.isMeasured());
  // Thirteen intervals of at least 3 ms each; each is truncated on its own.
  EXPECT_GE(tracker.getElapsedTime(), 13u * 3u);
  // Each later call found the earlier intervals already added.
  const auto& calls = Calls();
  for (std::size_t i = 1; i < calls.size(); ++i) {
    EXPECT_GE(calls[i].elapsed_at_call, 3u * i) << i;
  }
}

}  // namespace
