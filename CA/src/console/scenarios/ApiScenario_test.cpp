// launchApiInterface on link-time doubles of the keystore API and of
// ss_init_credential: the calls it makes, every line it prints, its result,
// its timing, and what becomes of every buffer the keystore hands over.
#include "ApiScenario.h"

#include "ScenarioTesting.h"

#include <climits>
#include <cstring>

namespace {

using keystore_doubles::Answer;
using keystore_doubles::Calls;
using keystore_doubles::Failure;
using keystore_doubles::Fn;
using keystore_doubles::Queue;
using keystore_doubles::Success;
using keystore_doubles::Verdict;
using scenario_testing::AccountPath;
using scenario_testing::Bytes;
using scenario_testing::Hex;
using scenario_testing::Pattern;
using test::launchApiInterface;
using test::testData;

// The failure codes a keystore function can return.
const int32_t kFailureCodes[] = {-1, -2, -3, -4, -99};

// A signature answer: r, s and v as given.
std::vector<unsigned char> Signature(const unsigned char* r, const unsigned char* s,
                                     unsigned char v) {
  std::vector<unsigned char> bytes(r, r + 32);
  bytes.insert(bytes.end(), s, s + 32);
  bytes.push_back(v);
  return bytes;
}

// The keystore's signature for the current row: the table's expected one,
// which an independent implementation made.
std::vector<unsigned char> ExpectedSignature() {
  return Signature(testData.ex_sig_r(), testData.ex_sig_s(), testData.ex_sig_v());
}

std::string ExpectedRows(const std::string& restoredAddressHex, const unsigned char* r,
                         const unsigned char* s, unsigned char v) {
  const unsigned char ev = testData.ex_sig_v();
  return "Received:\n"
         " sig_r: [" + Hex(r, 32) + "]\n"
         " sig_s: [" + Hex(s, 32) + "]\n"
         " sig_v: [" + Hex(&v, 1) + "]\n"
         " Restored address: [" + restoredAddressHex + "]\n"
         "Expected:\n"
         " sig_r: [" + Hex(testData.ex_sig_r(), 32) + "]\n"
         " sig_s: [" + Hex(testData.ex_sig_s(), 32) + "]\n"
         " sig_v: [" + Hex(&ev, 1) + "]\n"
         " Original address: [" + Hex(testData.ex_address(), 20) + "]\n";
}

// The address of the all-zero public key: what a failed recovery gives.
constexpr const char* kZeroKeyAddress = "3f17f1962b36e491b30a40b2405849e597ba5fb5";

class ApiScenarioTest : public scenario_testing::ScenarioTest {};

// ---- the credential and the selection -------------------------------------

TEST_F(ApiScenarioTest, EverySelectionMakesTheCredentialFirstWithTheDeploymentWords) {
  for (int selection : {99, 100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110}) {
    keystore_doubles::Reset();
    (void)launchApiInterface(selection);
    ExpectOneCredentialSetUp();
    ExpectCredentialAndSelectors();
    output();
  }
}

TEST_F(ApiScenarioTest, FailedCredentialPrintsItsLineAndCallsNothing) {
  for (int selection : {99, 100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110}) {
    keystore_doubles::Reset();
    keystore_doubles::SetCredentialResult(-1);
    EXPECT_FALSE(launchApiInterface(selection)) << selection;
    EXPECT_EQ(output(), "ss_init_credential: FAIL\n") << selection;
    EXPECT_TRUE(Calls().empty()) << selection;
    EXPECT_EQ(keystore_doubles::CredentialCalls().size(), 1u);
  }
}

TEST_F(ApiScenarioTest, SelectionsOutsideTheRangeAreSilentAndFalse) {
  test::TimeTracker::getInstance().setMode(1);
  for (int selection : {99, 110, 0, -1, 1, 200, INT_MIN, INT_MAX}) {
    keystore_doubles::Reset();
    EXPECT_FALSE(launchApiInterface(selection)) << selection;
    EXPECT_EQ(output(), "") << selection;
    EXPECT_TRUE(Calls().empty()) << selection;
    // Only the credential was made.
    EXPECT_EQ(keystore_doubles::CredentialCalls().size(), 1u) << selection;
    EXPECT_FALSE(test::TimeTracker::getInstance().isMeasured()) << selection;
  }
}

// ---- 100 generate ------------------------------------------------------------

TEST_F(ApiScenarioTest, GenerateSeedSucceeds) {
  EXPECT_TRUE(launchApiInterface(100));
  EXPECT_EQ(output(), "Seed successfully generated\n");
  ASSERT_EQ(keystore_doubles::CalledFunctions(), std::vector<Fn>{Fn::kGenerateSeed});
  ExpectCredentialAndSelectors();
}

TEST_F(ApiScenarioTest, GenerateSeedFailsWithEveryCode) {
  for (int32_t code : kFailureCodes) {
    Queue(Fn::kGenerateSeed, Failure(code));
    EXPECT_FALSE(launchApiInterface(100)) << code;
    EXPECT_EQ(output(), "Failed to generate seed\n") << code;
  }
}

// ---- 101 delete --------------------------------------------------------------

TEST_F(ApiScenarioTest, DeleteSeedAlwaysFailsWithoutCallingTheKeystore) {
  test::TimeTracker::getInstance().setMode(1);
  EXPECT_FALSE(launchApiInterface(101));
  EXPECT_EQ(output(), "Failed to delete seed\n");
  EXPECT_TRUE(Calls().empty());
  EXPECT_FALSE(test::TimeTracker::getInstance().isMeasured());
}

// ---- 102 restore -------------------------------------------------------------

TEST_F(ApiScenarioTest, RestoreSeedSendsTheCurrentDataSetsSeed) {
  for (unsigned int d = 0; d < 5; ++d) {
    keystore_doubles::Reset();
    testData.setDataIndex(d);
    EXPECT_TRUE(launchApiInterface(102));
    EXPECT_EQ(output(), "Seed successfully restored: \n"
                        " seed: [" + Hex(testData.seed(), 16) + "]\n");
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].fn, Fn::kRestoreSeed);
    EXPECT_EQ(Calls()[0].input, Bytes(testData.seed(), testData.seedSize()));
    EXPECT_EQ(Calls()[0].input.size(), 16u);
    ExpectCredentialAndSelectors();
  }
}

TEST_F(ApiScenarioTest, RestoreSeedFailure) {
  for (int32_t code : kFailureCodes) {
    Queue(Fn::kRestoreSeed, Failure(code));
    EXPECT_FALSE(launchApiInterface(102));
    EXPECT_EQ(output(), "Failed to restore seed\n");
  }
}

// ---- 103 mnemonic ------------------------------------------------------------

TEST_F(ApiScenarioTest, MnemonicPrintsExactlyTheReturnedBytesBesideTheExpectedPhrase) {
  testData.setDataIndex(3);
  // No terminator: the buffer holds exactly the phrase (ASan would see a
  // read past its end).
  const std::string phrase = "legal winner thank year wave sausage worth useful legal winner "
                             "thank yellow";
  Queue(Fn::kGetMnemonic, Success(Bytes(phrase)));
  EXPECT_TRUE(launchApiInterface(103));
  EXPECT_EQ(output(), "Received mnemonic: [" + phrase + "]\n"
                      "Expected mnemonic: [" + std::string(testData.ex_mnemonic()) + "]\n");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_TRUE(Calls()[0].out_was_null);
  EXPECT_TRUE(Calls()[0].out_len_was_zero);
  ExpectCredentialAndSelectors();
  // A phrase is a secret: wiped before it is freed.
  ExpectAllBuffersWiped();
}

TEST_F(ApiScenarioTest, MnemonicWithAReportedLengthShorterThanTheBufferPrintsThatMany) {
  Answer answer = Success(Bytes("abandon about"));
  answer.length = 7;
  Queue(Fn::kGetMnemonic, answer);
  EXPECT_TRUE(launchApiInterface(103));
  EXPECT_EQ(output(), "Received mnemonic: [abandon]\n"
                      "Expected mnemonic: [" + std::string(testData.ex_mnemonic()) + "]\n");
}

TEST_F(ApiScenarioTest, MnemonicSuccessWithANullBufferIsAFailure) {
  Answer answer;  // result 0, nothing handed out
  answer.length = 12;
  Queue(Fn::kGetMnemonic, answer);
  EXPECT_FALSE(launchApiInterface(103));
  EXPECT_EQ(output(), "Failed to get mnemonic\n");
  // free ran on the null pointer, harmlessly.
  EXPECT_GE(keystore_doubles::NullFrees(), 1u);
}

TEST_F(ApiScenarioTest, MnemonicSuccessWithLengthZeroAndABufferIsPrintedEmpty) {
  Answer answer = Success(Bytes("x"));
  answer.length = 0;
  Queue(Fn::kGetMnemonic, answer);
  EXPECT_TRUE(launchApiInterface(103));
  EXPECT_EQ(output(), "Received mnemonic: []\n"
                      "Expected mnemonic: [" + std::string(testData.ex_mnemonic()) + "]\n");
}

TEST_F(ApiScenarioTest, MnemonicFailureFreesWhateverWasHandedOver) {
  for (int32_t code : kFailureCodes) {
    Answer answer = Failure(code);
    answer.hands_out = true;
    answer.buffer = Bytes("abandon");
    Queue(Fn::kGetMnemonic, answer);
    EXPECT_FALSE(launchApiInterface(103));
    EXPECT_EQ(output(), "Failed to get mnemonic\n");
  }
  ExpectAllBuffersWiped();
}

// ---- 104 sign ----------------------------------------------------------------

TEST_F(ApiScenarioTest, SignRecoversTheSignerForEveryDataSetAndAccount) {
  for (unsigned int d = 0; d < 5; ++d) {
    for (unsigned int a = 0; a < 5; ++a) {
      keystore_doubles::Reset();
      testData.setDataIndex(d);
      testData.setAccountIndex(a);
      Queue(Fn::kSignTransaction, Success(ExpectedSignature()));
      EXPECT_TRUE(launchApiInterface(104));
      // The table's signature recovers to the table's address.
      EXPECT_EQ(output(), ExpectedRows(Hex(testData.ex_address(), 20), testData.ex_sig_r(),
                                       testData.ex_sig_s(), testData.ex_sig_v()))
          << "data set " << d << ", account " << a;
      ASSERT_EQ(Calls().size(), 1u);
      EXPECT_EQ(Calls()[0].path, AccountPath(a));
      EXPECT_EQ(Calls()[0].input, Bytes(test::api_test_digest(), 32));
      EXPECT_TRUE(Calls()[0].out_was_null);
      EXPECT_TRUE(Calls()[0].out_len_was_zero);
      ExpectCredentialAndSelectors();
    }
  }
}

TEST_F(ApiScenarioTest, SignWithTheOtherParityRecoversAnotherAddress) {
  const auto r = testData.ex_sig_r();
  const auto s = testData.ex_sig_s();
  const unsigned char v = static_cast<unsigned char>(testData.ex_sig_v() ^ 1);
  Queue(Fn::kSignTransaction, Success(Signature(r, s, v)));
  EXPECT_TRUE(launchApiInterface(104));
  const std::string text = output();
  const std::string restoredLabel = " Restored address: [";
  const std::size_t at = text.find(restoredLabel);
  ASSERT_NE(at, std::string::npos);
  const std::string restored = text.substr(at + restoredLabel.size(), 40);
  EXPECT_NE(restored, Hex(testData.ex_address(), 20));
  EXPECT_NE(restored, kZeroKeyAddress);
  EXPECT_EQ(text, ExpectedRows(restored, r, s, v));
}

TEST_F(ApiScenarioTest, SignWithVOf27ShowsTheFailedRecovery) {
  const auto r = testData.ex_sig_r();
  const auto s = testData.ex_sig_s();
  Queue(Fn::kSignTransaction, Success(Signature(r, s, 27)));
  EXPECT_TRUE(launchApiInterface(104));
  EXPECT_EQ(output(), ExpectedRows(kZeroKeyAddress, r, s, 27));
}

TEST_F(ApiScenarioTest, SignUsesOnlyTheFirst65Bytes) {
  std::vector<unsigned char> answer = ExpectedSignature();
  answer.insert(answer.end(), {0xAA, 0xBB, 0xCC});
  Queue(Fn::kSignTransaction, Success(answer));
  EXPECT_TRUE(launchApiInterface(104));
  EXPECT_EQ(output(), ExpectedRows(Hex(testData.ex_address(), 20), testData.ex_sig_r(),
                                   testData.ex_sig_s(), testData.ex_sig_v()));
}

TEST_F(ApiScenarioTest, SignWithAShortAnswerReadsNothingPastIt) {
  // 40 bytes: r whole, s cut after 8 bytes. What is missing reads as zero;
  // nothing past the buffer is touched (ASan checks in its build).
  const std::vector<unsigned char> answer = Pattern(40, 0x10);
  Queue(Fn::kSignTransaction, Success(answer));
  EXPECT_TRUE(launchApiInterface(104));
  std::vector<unsigned char> s(answer.begin() + 32, answer.end());
  s.resize(32, 0);
  const std::string text = output();
  EXPECT_NE(text.find(" sig_r: [" + Hex(answer.data(), 32) + "]\n"), std::string::npos);
  EXPECT_NE(text.find(" sig_s: [" + Hex(s) + "]\n sig_v: [00]\n"), std::string::npos);
}

TEST_F(ApiScenarioTest, SignSuccessWithANullBufferIsAFailure) {
  Answer answer;
  answer.length = 65;
  Queue(Fn::kSignTransaction, answer);
  EXPECT_FALSE(launchApiInterface(104));
  EXPECT_EQ(output(), "Failed to sign transaction\n");
  EXPECT_GE(keystore_doubles::NullFrees(), 1u);
}

TEST_F(ApiScenarioTest, SignSuccessWithLengthZeroIsAFailureAndTheBufferIsFreed) {
  Answer answer = Success(ExpectedSignature());
  answer.length = 0;
  Queue(Fn::kSignTransaction, answer);
  EXPECT_FALSE(launchApiInterface(104));
  EXPECT_EQ(output(), "Failed to sign transaction\n");
  ASSERT_EQ(keystore_doubles::Buffers().size(), 1u);
  EXPECT_TRUE(keystore_doubles::Buffers()[0].freed);
}

TEST_F(ApiScenarioTest, SignFailure) {
  for (int32_t code : kFailureCodes) {
    Queue(Fn::kSignTransaction, Failure(code));
    EXPECT_FALSE(launchApiInterface(104));
    EXPECT_EQ(output(), "Failed to sign transaction\n");
  }
}

// ---- 105 address ---------------------------------------------------------------

TEST_F(ApiScenarioTest, AddressPrintsTheReturnedBytesBesideTheExpectedOne) {
  testData.setDataIndex(2);
  testData.setAccountIndex(4);
  const std::vector<unsigned char> address = Pattern(20, 0xE0);
  Queue(Fn::kGetAddress, Success(address));
  EXPECT_TRUE(launchApiInterface(105));
  EXPECT_EQ(output(), "Received address: [" + Hex(address) + "]\n"
                      "Expected address: [" + Hex(testData.ex_address(), 20) + "]\n");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_EQ(Calls()[0].path, AccountPath(4));
  ExpectCredentialAndSelectors();
}

TEST_F(ApiScenarioTest, AddressOfAnotherLengthIsPrintedWhole) {
  const std::vector<unsigned char> address = Pattern(3, 0x01);
  Queue(Fn::kGetAddress, Success(address));
  EXPECT_TRUE(launchApiInterface(105));
  EXPECT_EQ(output(), "Received address: [010203]\n"
                      "Expected address: [" + Hex(testData.ex_address(), 20) + "]\n");
}

TEST_F(ApiScenarioTest, AddressFailures) {
  Answer nullBuffer;
  nullBuffer.length = 20;
  Answer emptyLength = Success(Pattern(20, 1));
  emptyLength.length = 0;
  for (const Answer& answer : {nullBuffer, emptyLength, Failure(-4), Failure(-99)}) {
    Queue(Fn::kGetAddress, answer);
    EXPECT_FALSE(launchApiInterface(105));
    EXPECT_EQ(output(), "Failed to get address\n");
  }
}

// ---- 106 private key -------------------------------------------------------------

TEST_F(ApiScenarioTest, PrivateKeyIsPrintedAndWipedBeforeItIsFreed) {
  testData.setDataIndex(1);
  testData.setAccountIndex(2);
  const std::vector<unsigned char> key = Pattern(32, 0x41);
  Queue(Fn::kGetPrivateKey, Success(key));
  EXPECT_TRUE(launchApiInterface(106));
  EXPECT_EQ(output(), "Received private key: [" + Hex(key) + "]\n"
                      "Expected private key: [" + Hex(testData.ex_pkey(), 32) + "]\n");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_EQ(Calls()[0].path, AccountPath(2));
  ExpectCredentialAndSelectors();
  ExpectAllBuffersWiped();
}

TEST_F(ApiScenarioTest, PrivateKeyFailures) {
  Answer nullBuffer;
  nullBuffer.length = 32;
  Answer emptyLength = Success(Pattern(32, 1));
  emptyLength.length = 0;
  Answer failedWithKey = Failure(-4);
  failedWithKey.hands_out = true;
  failedWithKey.buffer = Pattern(32, 0x41);
  for (const Answer& answer : {nullBuffer, emptyLength, Failure(-3), Failure(-99), failedWithKey}) {
    Queue(Fn::kGetPrivateKey, answer);
    EXPECT_FALSE(launchApiInterface(106));
    EXPECT_EQ(output(), "Failed to get private key\n");
  }
  // Both buffers came back; the one whose length was reported was wiped
  // (with length 0 reported there is nothing known to wipe).
  const auto& buffers = keystore_doubles::Buffers();
  ASSERT_EQ(buffers.size(), 2u);
  EXPECT_TRUE(buffers[0].freed);
  EXPECT_TRUE(buffers[1].freed);
  EXPECT_TRUE(buffers[1].wiped);
}

// ---- 107 / 108 PIN -----------------------------------------------------------------

TEST_F(ApiScenarioTest, SavePinSendsTheSixDigitsWithoutTerminator) {
  testData.setPinIndex(2);
  EXPECT_TRUE(launchApiInterface(107));
  const std::string pin = testData.pin();
  EXPECT_EQ(output(), "Pin successfully saved: \n pin: [" + pin + "]\n");
  ASSERT_EQ(Calls().size(), 1u);
  EXPECT_EQ(Calls()[0].fn, Fn::kSavePin);
  EXPECT_EQ(Calls()[0].input, Bytes(pin));
  EXPECT_EQ(Calls()[0].input.size(), 6u);
  ExpectCredentialAndSelectors();
}

TEST_F(ApiScenarioTest, SavePinFailure) {
  Queue(Fn::kSavePin, Failure(-99));
  EXPECT_FALSE(launchApiInterface(107));
  EXPECT_EQ(output(), "Failed to save pin\n");
}

TEST_F(ApiScenarioTest, CheckPinPrintsTheKeystoresVerdict) {
  testData.setPinIndex(3);
  const std::string line = " pin: [" + std::string(testData.pin()) + "] is ";
  const struct {
    unsigned int verdict;
    const char* text;
  } cases[] = {{1, "CORRECT"}, {0, "INCORRECT"}, {2, "INCORRECT"}, {0xFFFFFFFFu, "INCORRECT"}};
  for (const auto& c : cases) {
    keystore_doubles::Reset();
    Queue(Fn::kCheckPin, Verdict(c.verdict));
    // A wrong PIN that the keystore judged is still a successful run.
    EXPECT_TRUE(launchApiInterface(108)) << c.verdict;
    EXPECT_EQ(output(), "Pin successfully checked: \n" + line + c.text + "\n") << c.verdict;
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].input, Bytes(std::string(testData.pin())));
    ExpectCredentialAndSelectors();
  }
}

TEST_F(ApiScenarioTest, CheckPinFailure) {
  Queue(Fn::kCheckPin, Failure(-99));
  EXPECT_FALSE(launchApiInterface(108));
  EXPECT_EQ(output(), "Failed to check pin\n");
}

// ---- 109 check mnemonic --------------------------------------------------------------

TEST_F(ApiScenarioTest, CheckMnemonicSendsThePhraseWithoutACredential) {
  for (unsigned int d = 0; d < 5; ++d) {
    keystore_doubles::Reset();
    testData.setDataIndex(d);
    const std::string phrase = testData.ex_mnemonic();
    EXPECT_TRUE(launchApiInterface(109));
    EXPECT_EQ(output(), "Mnemonic successfully checked: \n"
                        " mnemonic: [" + phrase + "] is CORRECT\n");
    ASSERT_EQ(Calls().size(), 1u);
    EXPECT_EQ(Calls()[0].fn, Fn::kCheckMnemonic);
    EXPECT_FALSE(Calls()[0].has_credential);
    EXPECT_EQ(Calls()[0].input, Bytes(phrase));
  }
}

TEST_F(ApiScenarioTest, CheckMnemonicVerdictOtherThanOneIsIncorrect) {
  Queue(Fn::kCheckMnemonic, Verdict(0));
  EXPECT_TRUE(launchApiInterface(109));
  EXPECT_EQ(output(), "Mnemonic successfully checked: \n"
                      " mnemonic: [" + std::string(testData.ex_mnemonic()) + "] is INCORRECT\n");
}

TEST_F(ApiScenarioTest, CheckMnemonicFailure) {
  Queue(Fn::kCheckMnemonic, Failure(-3));
  EXPECT_FALSE(launchApiInterface(109));
  EXPECT_EQ(output(), "Failed to check mnemonic\n");
}

// ---- indices -----------------------------------------------------------------------

TEST_F(ApiScenarioTest, AccountIndexMovesThePathAndTheExpectedRows) {
  for (unsigned int a = 0; a < 5; ++a) {
    keystore_doubles::Reset();
    testData.setAccountIndex(a);
    Queue(Fn::kSignTransaction, Success(ExpectedSignature()));
    Queue(Fn::kGetAddress, Success(Pattern(20, 1)));
    Queue(Fn::kGetPrivateKey, Success(Pattern(32, 1)));
    for (int selection : {104, 105, 106}) {
      EXPECT_TRUE(launchApiInterface(selection));
    }
    const std::string text = output();
    EXPECT_NE(text.find(" Original address: [" + Hex(testData.ex_address(), 20) + "]"),
              std::string::npos);
    EXPECT_NE(text.find(" sig_r: [" + Hex(testData.ex_sig_r(), 32) + "]"), std::string::npos);
    ASSERT_EQ(Calls().size(), 3u);
    for (const auto& call : Calls()) {
      EXPECT_EQ(call.path, AccountPath(a));
    }
    EXPECT_NE(text.find("Expected address: [" + Hex(testData.ex_address(), 20) + "]"),
              std::string::npos);
    EXPECT_NE(text.find("Expected private key: [" + Hex(testData.ex_pkey(), 32) + "]"),
              std::string::npos);
  }
}

TEST_F(ApiScenarioTest, DataSetChangesTheExpectedRowsButNotThePath) {
  keystore_doubles::SetDefault(Fn::kGetAddress, Success(Pattern(20, 0x70)));
  testData.setAccountIndex(1);
  std::vector<std::string> outputs;
  for (unsigned int d = 0; d < 5; ++d) {
    testData.setDataIndex(d);
    EXPECT_TRUE(launchApiInterface(105));
    outputs.push_back(output());
    EXPECT_EQ(outputs.back(), "Received address: [" + Hex(Pattern(20, 0x70)) + "]\n"
                              "Expected address: [" + Hex(testData.ex_address(), 20) + "]\n");
  }
  for (const auto& call : Calls()) {
    EXPECT_EQ(call.path, AccountPath(1));
  }
  for (unsigned int d = 1; d < 5; ++d) {
    EXPECT_NE(outputs[d], outputs[0]);
  }
}

TEST_F(ApiScenarioTest, NoSelectionChangesTheIndices) {
  testData.setDataIndex(4);
  testData.setAccountIndex(3);
  testData.setPinIndex(2);
  keystore_doubles::SetDefault(Fn::kGetMnemonic, Success(Bytes("a")));
  keystore_doubles::SetDefault(Fn::kSignTransaction, Success(ExpectedSignature()));
  keystore_doubles::SetDefault(Fn::kGetAddress, Success(Pattern(20, 1)));
  keystore_doubles::SetDefault(Fn::kGetPrivateKey, Success(Pattern(32, 1)));
  for (int selection = 99; selection <= 110; ++selection) {
    (void)launchApiInterface(selection);
  }
  output();
  EXPECT_EQ(testData.getDataIndex(), 4u);
  EXPECT_EQ(testData.getAccountIndex(), 3u);
  EXPECT_EQ(testData.getPinIndex(), 2u);
}

// ---- timing --------------------------------------------------------------------------

TEST_F(ApiScenarioTest, TheKeystoreCallIsInsideTheTimingBracket) {
  test::TimeTracker& tracker = test::TimeTracker::getInstance();
  tracker.setMode(1);
  Answer slow = Success(Pattern(20, 1));
  slow.delay = std::chrono::milliseconds(25);
  Queue(Fn::kGetAddress, slow);
  EXPECT_TRUE(launchApiInterface(105));
  output();
  ASSERT_EQ(Calls().size(), 1u);
  // Running, not yet stopped, while the keystore works; stopped afterwards
  // with the call's time in it.
  EXPECT_FALSE(Calls()[0].measured_at_call);
  EXPECT_TRUE(tracker.isMeasured());
  EXPECT_GE(tracker.getElapsedTime(), 25u);
}

TEST_F(ApiScenarioTest, EveryCallingSelectionStopsTheMeasurementOnBothPaths) {
  test::TimeTracker& tracker = test::TimeTracker::getInstance();
  tracker.setMode(1);
  keystore_doubles::SetDefault(Fn::kGetMnemonic, Success(Bytes("a")));
  keystore_doubles::SetDefault(Fn::kSignTransaction, Success(ExpectedSignature()));
  keystore_doubles::SetDefault(Fn::kGetAddress, Success(Pattern(20, 1)));
  keystore_doubles::SetDefault(Fn::kGetPrivateKey, Success(Pattern(32, 1)));
  for (int selection : {100, 102, 103, 104, 105, 106, 107, 108, 109}) {
    tracker.reset();
    EXPECT_TRUE(launchApiInterface(selection)) << selection;
    EXPECT_TRUE(tracker.isMeasured()) << selection;
  }
  for (Fn fn : {Fn::kGenerateSeed, Fn::kRestoreSeed, Fn::kGetMnemonic, Fn::kSignTransaction,
                Fn::kGetAddress, Fn::kGetPrivateKey, Fn::kSavePin, Fn::kCheckPin,
                Fn::kCheckMnemonic}) {
    Queue(fn, Failure(-99));
  }
  for (int selection : {100, 102, 103, 104, 105, 106, 107, 108, 109}) {
    tracker.reset();
    EXPECT_FALSE(launchApiInterface(selection)) << selection;
    EXPECT_TRUE(tracker.isMeasured()) << selection;
  }
  output();
}

TEST_F(ApiScenarioTest, NothingIsMeasuredWhenTimingIsOff) {
  Answer slow = Success(Pattern(20, 1));
  slow.delay = std::chrono::milliseconds(5);
  Queue(Fn::kGetAddress, slow);
  EXPECT_TRUE(launchApiInterface(105));
  output();
  EXPECT_EQ(test::TimeTracker::getInstance().getElapsedTime(), 0u);
}

}  // namespace
