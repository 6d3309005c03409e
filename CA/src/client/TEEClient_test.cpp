// Tests of the TEE connection on the scriptable GP Client API: every step,
// every failure and its log line.
#include "TEEClient.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "CapturedLog.h"
#include "FakeTeec.h"
#include "dlog.h"

namespace {

using fake_teec::Fn;
using Names = std::vector<std::string>;

class TEEClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client::TEEClient::getInstance().Close();
    fake_teec::Reset();
    captured_log::Clear();
  }
  void TearDown() override {
    EXPECT_EQ(fake_teec::Misuse(), std::vector<std::string>{}) << "the client misused the API";
  }
};

// The whole line as __dlog_print formatted it, checked against the
// convention "<file>: <function>(<line>) > <message>".
void ExpectLine(const captured_log::Line& line, int priority, const std::string& function,
                const std::string& message) {
  EXPECT_EQ(line.log_id, LOG_ID_SYSTEM);
  EXPECT_EQ(line.priority, priority);
  EXPECT_EQ(line.tag, "TESSERA");
  const std::string prefix = "TEEClient.cpp: " + function + "(";
  ASSERT_EQ(line.text.compare(0, prefix.size(), prefix), 0) << line.text;
  const std::string rest = line.text.substr(prefix.size());
  EXPECT_TRUE(std::regex_match(rest, std::regex("[1-9][0-9]*\\) > .*"))) << line.text;
  EXPECT_EQ(rest.substr(rest.find(") > ") + 4), message) << line.text;
}

TEST_F(TEEClientTest, OpenAcquiresContextSessionMemoryInOrderWithFixedSettings) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "OpenSession", "AllocateSharedMemory"}));

  const auto& calls = fake_teec::Calls();
  EXPECT_FALSE(calls[0].name_given) << "the default TEE";
  const TEEC_UUID want = {0x58d50001, 0x1105, 0x000b, {0xaf, 0x0c, 0xc1, 0x2f, 0xb6, 0xed, 0xec, 0xca}};
  EXPECT_EQ(calls[1].uuid.timeLow, want.timeLow);
  EXPECT_EQ(calls[1].uuid.timeMid, want.timeMid);
  EXPECT_EQ(calls[1].uuid.timeHiAndVersion, want.timeHiAndVersion);
  EXPECT_EQ(std::memcmp(calls[1].uuid.clockSeqAndNode, want.clockSeqAndNode, 8), 0);
  EXPECT_EQ(calls[1].login, TEEC_LOGIN_PUBLIC);
  EXPECT_FALSE(calls[1].connection_data_given);
  EXPECT_FALSE(calls[1].operation_given);
  EXPECT_EQ(calls[2].size, 8192u);
  EXPECT_EQ(calls[2].flags, 3u);

  ASSERT_EQ(captured_log::Lines().size(), 1u);
  ExpectLine(captured_log::Lines()[0], DLOG_INFO, "Open", "TEE connection has been set");
}

TEST_F(TEEClientTest, SecondOpenMakesNoLibraryCallAndLogsAgain) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  const std::size_t calls = fake_teec::Calls().size();
  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(fake_teec::Calls().size(), calls);
  EXPECT_EQ(captured_log::Texts().size(), 2u);
  ExpectLine(captured_log::Lines()[1], DLOG_INFO, "Open", "TEE connection has been set");
}

TEST_F(TEEClientTest, OpenNoticeCanBeTurnedOffAndOnWhileFailuresAreAlwaysLogged) {
  client::TEEClient tee;
  tee.setOpenNotice(false);
  fake_teec::FailNext(Fn::kOpenSession, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE);
  EXPECT_FALSE(tee.Open());
  ASSERT_EQ(captured_log::Lines().size(), 1u);
  ExpectLine(captured_log::Lines()[0], DLOG_ERROR, "OpenSession",
             "Failed to open TEE session, result = 4294901773, retOrigin = 3");
  ASSERT_TRUE(tee.Open());
  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(captured_log::Lines().size(), 1u) << "no notice while it is off";
  tee.setOpenNotice(true);
  ASSERT_TRUE(tee.Open());
  ASSERT_EQ(captured_log::Lines().size(), 2u);
  ExpectLine(captured_log::Lines()[1], DLOG_INFO, "Open", "TEE connection has been set");
}

TEST_F(TEEClientTest, ContextFailureIsLoggedAndTheNextOpenRetriesIt) {
  client::TEEClient tee;
  fake_teec::FailNext(Fn::kInitializeContext, TEEC_ERROR_COMMUNICATION);
  EXPECT_FALSE(tee.Open());
  EXPECT_EQ(fake_teec::CallNames(), Names{"InitializeContext"});
  ASSERT_EQ(captured_log::Lines().size(), 1u);
  ExpectLine(captured_log::Lines()[0], DLOG_ERROR, "OpenContext",
             "Failed to initialize TEE context, result = 4294901774");

  EXPECT_TRUE(tee.Open());
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "InitializeContext", "OpenSession",
                                           "AllocateSharedMemory"}));
}

TEST_F(TEEClientTest, SessionFailureKeepsTheContextAndTheNextOpenResumes) {
  client::TEEClient tee;
  fake_teec::FailNext(Fn::kOpenSession, TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE);
  EXPECT_FALSE(tee.Open());
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "OpenSession"}));
  ASSERT_EQ(captured_log::Lines().size(), 1u) << "Open adds no message of its own";
  ExpectLine(captured_log::Lines()[0], DLOG_ERROR, "OpenSession",
             "Failed to open TEE session, result = 4294901768, retOrigin = 3");

  EXPECT_TRUE(tee.Open());
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "OpenSession", "OpenSession",
                                           "AllocateSharedMemory"}));
}

TEST_F(TEEClientTest, MemoryFailureKeepsContextAndSession) {
  client::TEEClient tee;
  fake_teec::FailNext(Fn::kAllocateSharedMemory, TEEC_ERROR_OUT_OF_MEMORY);
  EXPECT_FALSE(tee.Open());
  ASSERT_EQ(captured_log::Lines().size(), 1u);
  ExpectLine(captured_log::Lines()[0], DLOG_ERROR, "AllocateMemory",
             "Failed to allocate shared memory, result = 4294901772");
  EXPECT_TRUE(tee.Open());
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "OpenSession", "AllocateSharedMemory",
                                           "AllocateSharedMemory"}));
}

TEST_F(TEEClientTest, CloseOnAFreshInstanceAndTwiceMakesNoCall) {
  client::TEEClient tee;
  tee.Close();
  tee.Close();
  EXPECT_TRUE(fake_teec::Calls().empty());
  EXPECT_TRUE(captured_log::Lines().empty());
}

TEST_F(TEEClientTest, CloseReleasesInReverseOrderOnceAndAfterAPartialOpen) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  tee.Close();
  tee.Close();
  EXPECT_EQ(fake_teec::CallNames(),
            (Names{"InitializeContext", "OpenSession", "AllocateSharedMemory", "ReleaseSharedMemory",
                   "CloseSession", "FinalizeContext"}));

  fake_teec::Reset();
  fake_teec::FailNext(Fn::kOpenSession, TEEC_ERROR_BUSY);
  EXPECT_FALSE(tee.Open());
  tee.Close();
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "OpenSession", "FinalizeContext"}));
}

TEST_F(TEEClientTest, DestructorCloses) {
  {
    client::TEEClient tee;
    ASSERT_TRUE(tee.Open());
  }
  EXPECT_EQ(fake_teec::CountOf(Fn::kReleaseSharedMemory), 1u);
  EXPECT_EQ(fake_teec::CountOf(Fn::kCloseSession), 1u);
  EXPECT_EQ(fake_teec::CountOf(Fn::kFinalizeContext), 1u);
}

TEST_F(TEEClientTest, SingleStepsAreIdempotentAndTheirClosersGuarded) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.OpenContext());
  ASSERT_TRUE(tee.OpenContext());
  tee.CloseSession();
  tee.FreeMemory();
  EXPECT_EQ(fake_teec::CallNames(), Names{"InitializeContext"});
  tee.CloseContext();
  tee.CloseContext();
  EXPECT_EQ(fake_teec::CallNames(), (Names{"InitializeContext", "FinalizeContext"}));
}

TEST_F(TEEClientTest, SharedMemoryDescriptorIsStableAndSizedAfterOpen) {
  client::TEEClient tee;
  TEEC_SharedMemory* before = tee.getSHMPtr();
  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(tee.getSHMPtr(), before);
  EXPECT_EQ(tee.getSHMPtr(), tee.getSHMPtr());
  EXPECT_EQ(tee.getSHMPtr()->size, 8192u);
  EXPECT_EQ(tee.getSHMPtr()->flags, 3u);
  EXPECT_NE(tee.getSHMPtr()->buffer, nullptr);
}

TEST_F(TEEClientTest, InvokeCommandPassesTheWholeSharedMemoryAsParameterZero) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  uint32_t seen = 0;
  fake_teec::SetHandler([&](uint32_t cmd, TEEC_SharedMemory& shm, uint32_t*) {
    seen = cmd;
    static_cast<unsigned char*>(shm.buffer)[0] = 0x42;  // the answer lands in the same memory
    return TEEC_SUCCESS;
  });
  ASSERT_TRUE(tee.InvokeCommand(10));
  EXPECT_EQ(seen, 10u);
  const fake_teec::Call& call = fake_teec::LastInvoke();
  EXPECT_EQ(call.command, 10u);
  EXPECT_EQ(call.operation.paramTypes, 0x0000000Fu);
  EXPECT_EQ(call.operation.params[0].memref.parent, tee.getSHMPtr());
  EXPECT_EQ(call.operation.params[0].memref.size, 8192u);
  EXPECT_EQ(call.operation.params[0].memref.offset, 0u);
  EXPECT_EQ(static_cast<unsigned char*>(tee.getSHMPtr()->buffer)[0], 0x42);
  EXPECT_EQ(captured_log::Lines().size(), 1u) << "a successful command logs nothing";
}

TEST_F(TEEClientTest, RecoverableCommsErrorLogsTwoLinesAndKeepsTheSession) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  captured_log::Clear();
  fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_GENERIC, TEEC_ORIGIN_COMMS);
  EXPECT_FALSE(tee.InvokeCommand(3));
  ASSERT_EQ(captured_log::Lines().size(), 2u);
  ExpectLine(captured_log::Lines()[0], DLOG_ERROR, "InvokeCommand",
             "TEEC_InvokeCommand() failed for cmd 3, result = 4294901760, retOrigin = 2");
  ExpectLine(captured_log::Lines()[1], DLOG_ERROR, "InvokeCommand",
             "TZ reported recoverable error, session should be restarted");

  // Nothing is closed or reopened: the next command goes to the same session.
  EXPECT_TRUE(tee.InvokeCommand(3));
  EXPECT_EQ(fake_teec::CountOf(Fn::kCloseSession), 0u);
  EXPECT_EQ(fake_teec::CountOf(Fn::kOpenSession), 1u);
}

TEST_F(TEEClientTest, OtherCommandFailuresLogOneLine) {
  struct Case {
    TEEC_Result result;
    uint32_t origin;
    const char* message;
  };
  const Case cases[] = {
      {TEEC_ERROR_GENERIC, TEEC_ORIGIN_TRUSTED_APP,
       "TEEC_InvokeCommand() failed for cmd 7, result = 4294901760, retOrigin = 4"},
      {TEEC_ERROR_GENERIC, TEEC_ORIGIN_TEE,
       "TEEC_InvokeCommand() failed for cmd 7, result = 4294901760, retOrigin = 3"},
      {TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_COMMS,
       "TEEC_InvokeCommand() failed for cmd 7, result = 4294901774, retOrigin = 2"},
      {TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE,
       "TEEC_InvokeCommand() failed for cmd 7, result = 4294914084, retOrigin = 3"},
  };
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  for (const Case& c : cases) {
    captured_log::Clear();
    fake_teec::FailNext(Fn::kInvokeCommand, c.result, c.origin);
    EXPECT_FALSE(tee.InvokeCommand(7));
    ASSERT_EQ(captured_log::Lines().size(), 1u) << c.message;
    ExpectLine(captured_log::Lines()[0], DLOG_ERROR, "InvokeCommand", c.message);
  }
}

TEST_F(TEEClientTest, LastOutcomeFollowsEachLibraryCall) {
  client::TEEClient tee;
  EXPECT_EQ(tee.lastOutcome().result, TEEC_SUCCESS);
  EXPECT_EQ(tee.lastOutcome().origin, 0u);

  fake_teec::FailNext(Fn::kInitializeContext, TEEC_ERROR_COMMUNICATION);
  EXPECT_FALSE(tee.Open());
  EXPECT_EQ(tee.lastOutcome().result, TEEC_ERROR_COMMUNICATION);
  EXPECT_EQ(tee.lastOutcome().origin, static_cast<uint32_t>(TEEC_ORIGIN_API));

  fake_teec::FailNext(Fn::kOpenSession, TEEC_ERROR_ACCESS_DENIED, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_FALSE(tee.Open());
  EXPECT_EQ(tee.lastOutcome().result, TEEC_ERROR_ACCESS_DENIED);
  EXPECT_EQ(tee.lastOutcome().origin, static_cast<uint32_t>(TEEC_ORIGIN_TRUSTED_APP));

  fake_teec::FailNext(Fn::kAllocateSharedMemory, TEEC_ERROR_OUT_OF_MEMORY);
  EXPECT_FALSE(tee.Open());
  EXPECT_EQ(tee.lastOutcome().result, TEEC_ERROR_OUT_OF_MEMORY);
  EXPECT_EQ(tee.lastOutcome().origin, static_cast<uint32_t>(TEEC_ORIGIN_API));

  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(tee.lastOutcome().result, TEEC_SUCCESS);

  fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_FALSE(tee.InvokeCommand(6));
  EXPECT_EQ(tee.lastOutcome().result, TEEC_ERROR_ITEM_NOT_FOUND);
  EXPECT_EQ(tee.lastOutcome().origin, static_cast<uint32_t>(TEEC_ORIGIN_TRUSTED_APP));

  // An Open that finds everything held calls nothing and changes nothing.
  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(tee.lastOutcome().result, TEEC_ERROR_ITEM_NOT_FOUND);

  EXPECT_TRUE(tee.InvokeCommand(6));
  EXPECT_EQ(tee.lastOutcome().result, TEEC_SUCCESS);
  EXPECT_EQ(tee.lastOutcome().origin, static_cast<uint32_t>(TEEC_ORIGIN_TRUSTED_APP));
}

TEST_F(TEEClientTest, InvokeCountCountsEveryCommandAndNothingElse) {
  client::TEEClient tee;
  EXPECT_EQ(tee.invokeCount(), 0u);
  ASSERT_TRUE(tee.Open());
  EXPECT_EQ(tee.invokeCount(), 0u);
  EXPECT_TRUE(tee.InvokeCommand(6));
  fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_GENERIC, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_FALSE(tee.InvokeCommand(6));
  EXPECT_EQ(tee.invokeCount(), 2u);
  EXPECT_EQ(tee.invokeCount(), fake_teec::CountOf(Fn::kInvokeCommand));
}

TEST_F(TEEClientTest, RequestCancellationReachesOnlyTheCommandInFlight) {
  client::TEEClient tee;
  ASSERT_TRUE(tee.Open());
  tee.RequestCancellation();  // nothing runs: no library call
  EXPECT_EQ(fake_teec::CountOf(Fn::kRequestCancellation), 0u);

  // The handler plays a TA that is still working when the watchdog fires.
  fake_teec::SetHandler([&tee](uint32_t, TEEC_SharedMemory&, uint32_t* origin) {
    tee.RequestCancellation();
    *origin = TEEC_ORIGIN_TEE;
    return static_cast<TEEC_Result>(TEEC_ERROR_CANCEL);
  });
  EXPECT_FALSE(tee.InvokeCommand(5));
  ASSERT_EQ(fake_teec::CountOf(Fn::kRequestCancellation), 1u);
  EXPECT_TRUE(fake_teec::Calls().back().in_flight);
  EXPECT_EQ(tee.lastOutcome().result, static_cast<TEEC_Result>(TEEC_ERROR_CANCEL));
  EXPECT_EQ(tee.lastOutcome().origin, static_cast<uint32_t>(TEEC_ORIGIN_TEE));

  // Once the command has returned there is nothing left to cancel.
  fake_teec::SetHandler(nullptr);
  tee.RequestCancellation();
  EXPECT_EQ(fake_teec::CountOf(Fn::kRequestCancellation), 1u);
}

TEST_F(TEEClientTest, GetInstanceIsOneObject) {
  client::TEEClient& a = client::TEEClient::getInstance();
  client::TEEClient& b = client::TEEClient::getInstance();
  EXPECT_EQ(&a, &b);
  ASSERT_TRUE(a.Open());
  EXPECT_TRUE(b.Open());
  EXPECT_EQ(fake_teec::CountOf(Fn::kInitializeContext), 1u);
  a.Close();
}

}  // namespace
