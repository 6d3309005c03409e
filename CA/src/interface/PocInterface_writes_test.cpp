// The keystore API's write discipline, seen through a serializer that
// records every write: all fields of a request are written even after one of
// them has failed, and only then is the combined result tested.
#include "PocInterface.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapturedLog.h"
#include "FakeTeec.h"
#include "RecordingTzfr.h"
#include "TEEClient.h"

namespace {

using fake_teec::Fn;

class PocWritesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client::TEEClient::getInstance().Close();
    fake_teec::Reset();
    captured_log::Clear();
    recording_tzfr::Reset();
    ASSERT_EQ(ss_init_credential(&cred_, 1, 2, 3, 4, 5, 1, 0), 0);
  }
  void TearDown() override { EXPECT_TRUE(fake_teec::Misuse().empty()); }
  credential cred_;
};

std::vector<std::string> Kinds() {
  std::vector<std::string> kinds;
  for (const auto& p : recording_tzfr::Puts()) kinds.push_back(p.kind);
  return kinds;
}

const hd_path_param kPath = {static_cast<int32_t>(0x8000002Cu), static_cast<int32_t>(0x8000003Cu),
                             static_cast<int32_t>(0x80000000u), 0, 0};
const unsigned char kData[32] = {1};

TEST_F(PocWritesTest, EveryFieldOfTheRequestIsWrittenAfterTheFirstFails) {
  recording_tzfr::FailPut(0);  // the credential
  unsigned char* out = nullptr;
  unsigned len = 0;
  EXPECT_EQ(poc_signTransaction(cred_, 1, 84, kPath, kData, 32, &out, &len), -2);
  EXPECT_EQ(Kinds(), (std::vector<std::string>{"blob", "uint", "blob", "uint", "blob"}));
  EXPECT_EQ(recording_tzfr::Puts()[3].value, 32u);
  EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 0u) << "the command is not sent";
  EXPECT_TRUE(captured_log::Contains("poc_signTransaction("));
  EXPECT_TRUE(captured_log::Contains(") > Put data error!"));
  EXPECT_EQ(out, nullptr);
}

TEST_F(PocWritesTest, AFailureInTheMiddleStillWritesTheRest) {
  const unsigned char pin[6] = {'0', '0', '0', '0', '0', '0'};
  recording_tzfr::FailPut(1);  // the selector word
  EXPECT_EQ(poc_save_pin(cred_, 1, 84, pin, 6), -2);
  EXPECT_EQ(Kinds(), (std::vector<std::string>{"blob", "uint", "uint", "blob"}));
  recording_tzfr::Reset();
  recording_tzfr::FailPut(0);
  unsigned verdict = 0;
  EXPECT_EQ(poc_check_mnemonic("abandon", 7, &verdict), -2);
  EXPECT_EQ(Kinds(), (std::vector<std::string>{"uint", "blob"}));
  recording_tzfr::Reset();
  recording_tzfr::FailPut(0);
  EXPECT_EQ(poc_restore_seed(cred_, 1, 84, kData, 16), -2);
  EXPECT_EQ(Kinds(), (std::vector<std::string>{"blob", "uint", "uint", "blob"}));
  recording_tzfr::Reset();
  recording_tzfr::FailPut(0);
  EXPECT_EQ(poc_generate_seed(cred_, 1, 84), -2);
  EXPECT_EQ(Kinds(), (std::vector<std::string>{"blob", "uint"}));
  EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 0u);
}

TEST_F(PocWritesTest, EveryWriteOfEveryFunctionCanFailTheCall) {
  // Fail each position in turn: the call must give -2 and send nothing.
  unsigned char* out = nullptr;
  char* text = nullptr;
  unsigned len = 0, verdict = 0;
  const unsigned char pin[4] = {1, 2, 3, 4};
  struct Case {
    std::size_t writes;
    std::function<int32_t()> call;
  };
  const std::vector<Case> cases = {
      {4, [&] { return poc_restore_seed(cred_, 1, 84, kData, 16); }},
      {2, [&] { return poc_delete_seed(cred_, 1, 84); }},
      {4, [&] { return poc_save_pin(cred_, 1, 84, pin, 4); }},
      {4, [&] { return poc_check_pin(cred_, 1, 84, pin, 4, &verdict); }},
      {2, [&] { return poc_getMnemonic(cred_, 1, 84, &text, &len); }},
      {2, [&] { return poc_check_mnemonic("abc", 3, &verdict); }},
      {3, [&] { return poc_getAddress(cred_, 1, 84, kPath, &out, &len); }},
      {5, [&] { return poc_signTransaction(cred_, 1, 84, kPath, kData, 32, &out, &len); }},
      {2, [&] { return poc_generate_seed(cred_, 1, 84); }},
      {3, [&] { return poc_getPrivateKey(cred_, 1, 84, kPath, &out, &len); }},
  };
  for (std::size_t c = 0; c < cases.size(); ++c) {
    for (std::size_t failing = 0; failing < cases[c].writes; ++failing) {
      SCOPED_TRACE("case " + std::to_string(c) + ", failing write " + std::to_string(failing));
      recording_tzfr::Reset();
      recording_tzfr::FailPut(failing);
      EXPECT_EQ(cases[c].call(), -2);
      EXPECT_EQ(recording_tzfr::Puts().size(), cases[c].writes);
    }
  }
  EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 0u);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(text, nullptr);
}

}  // namespace
