// Unit tests of the keystore API on the scriptable GP Client API: requests
// are decoded from the shared memory as the client left it, answers are
// written by a handler that plays the TA.
#include "PocInterface.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "CTzfrWsm.h"
#include "CapturedLog.h"
#include "FakeTeec.h"
#include "MallocHook.h"
#include "TEEClient.h"
#include "dlog.h"

namespace {

using Bytes = std::vector<unsigned char>;
using fake_teec::Fn;

// ---- Reading a request as the documented byte format lays it out --------

struct Field {
  bool blob;
  unsigned value;  // a value field
  Bytes bytes;     // a blob field
};

uint32_t Le32(const Bytes& b, std::size_t at) {
  return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 |
         static_cast<uint32_t>(b[at + 2]) << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

// Decodes every field of a message; an ill-formed message fails the test.
std::vector<Field> Decode(const Bytes& msg) {
  std::vector<Field> fields;
  EXPECT_GE(msg.size(), 8u);
  EXPECT_EQ(std::string(msg.begin(), msg.begin() + 4), "TZW1");
  const std::size_t end = 8 + Le32(msg, 4);
  std::size_t at = 8;
  while (at < end) {
    const uint32_t kind = Le32(msg, at);
    const uint32_t len = Le32(msg, at + 4);
    at += 8;
    if (kind == 1) {
      EXPECT_EQ(len, 4u);
      fields.push_back({false, Le32(msg, at), {}});
    } else {
      EXPECT_EQ(kind, 2u);
      fields.push_back({true, 0, Bytes(msg.begin() + at, msg.begin() + at + len)});
    }
    at += (len + 3u) & ~3u;
  }
  EXPECT_EQ(at, end);
  return fields;
}

std::vector<Field> LastRequest() { return Decode(fake_teec::LastInvoke().request); }

// ---- Playing the TA ----------------------------------------------------------

// Answers every command with the fields that `write` puts (after an empty
// message has been started), with TEEC_SUCCESS.
void AnswerWith(std::function<void(CTzfrWsm&)> write) {
  fake_teec::SetHandler([write](uint32_t, TEEC_SharedMemory& shm, uint32_t*) {
    CTzfrWsm answer(&shm);
    EXPECT_TRUE(answer.PrepareReset(0));
    write(answer);
    return TEEC_SUCCESS;
  });
}

void AnswerData(const Bytes& data) {
  AnswerWith([data](CTzfrWsm& w) {
    EXPECT_TRUE(w.PutUint(static_cast<unsigned>(data.size())));
    EXPECT_TRUE(w.PutBlob(data.data(), static_cast<unsigned>(data.size())));
  });
}

void AnswerVerdict(unsigned verdict) {
  AnswerWith([verdict](CTzfrWsm& w) { EXPECT_TRUE(w.PutUint(verdict)); });
}

// ---- Fixture -----------------------------------------------------------------

credential TestCredential() {
  credential c;
  EXPECT_EQ(ss_init_credential(&c, 11, 22, 33, 44, 55, 1, 0), 0);
  return c;
}

const hd_path_param kPath = {static_cast<int32_t>(0x8000002Cu), static_cast<int32_t>(0x8000003Cu),
                             static_cast<int32_t>(0x80000000u), 0, 3};
const unsigned char kDigest[32] = {0xde, 0xad, 0xbe, 0xef, 1,  2,  3,  4,  5,  6,  7,
                                   8,    9,    10,   11,   12, 13, 14, 15, 16, 17, 18,
                                   19,   20,   21,   22,   23, 24, 25, 26, 27, 28};
const unsigned char kPin[6] = {'1', '2', '3', '4', '5', '6'};
const char kPhrase[] = "legal winner thank year wave sausage worth useful legal winner thank yellow";

class PocTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client::TEEClient::getInstance().Close();
    fake_teec::Reset();
    captured_log::Clear();
    malloc_hook::Disarm();
    cred_ = TestCredential();
  }
  void TearDown() override {
    malloc_hook::Disarm();
    EXPECT_EQ(fake_teec::Misuse(), std::vector<std::string>{}) << "the client misused the API";
  }

  // The lines that are not the connection's "TEE connection has been set".
  static std::vector<captured_log::Line> FailureLines() {
    std::vector<captured_log::Line> lines;
    for (const auto& l : captured_log::Lines()) {
      if (l.text.find("TEE connection has been set") == std::string::npos) lines.push_back(l);
    }
    return lines;
  }

  // Exactly one failure line of the keystore API, logged by `function`.
  static void ExpectOneFailure(const std::string& function, int priority, const std::string& message) {
    std::vector<captured_log::Line> mine;
    for (const auto& l : FailureLines()) {
      if (l.text.rfind("PocInterface.cpp: ", 0) == 0) mine.push_back(l);
    }
    ASSERT_EQ(mine.size(), 1u);
    EXPECT_EQ(mine[0].log_id, LOG_ID_SYSTEM);
    EXPECT_EQ(mine[0].tag, "TESSERA");
    EXPECT_EQ(mine[0].priority, priority);
    const std::string prefix = "PocInterface.cpp: " + function + "(";
    EXPECT_EQ(mine[0].text.rfind(prefix, 0), 0u) << mine[0].text;
    const std::string suffix = ") > " + message;
    ASSERT_GE(mine[0].text.size(), suffix.size());
    EXPECT_EQ(mine[0].text.substr(mine[0].text.size() - suffix.size()), suffix) << mine[0].text;
  }

  credential cred_;
};

// ---- Every function, described once for the table-driven tests -------------

struct Api {
  const char* name;
  unsigned command;
  bool data_answer;                  // answers with a length and a blob
  std::function<int32_t(const credential&)> call;
};

unsigned char* g_out = nullptr;
char* g_text = nullptr;
unsigned int g_len = 0;
unsigned int g_verdict = 0;

std::vector<Api> AllApis() {
  return {
      {"poc_restore_seed", 1, false,
       [](const credential& c) { return poc_restore_seed(c, 1, 84, kDigest, 16); }},
      {"poc_delete_seed", 3, false, [](const credential& c) { return poc_delete_seed(c, 1, 84); }},
      {"poc_save_pin", 4, false,
       [](const credential& c) { return poc_save_pin(c, 1, 84, kPin, 6); }},
      {"poc_check_pin", 5, false,
       [](const credential& c) { return poc_check_pin(c, 1, 84, kPin, 6, &g_verdict); }},
      {"poc_getMnemonic", 6, true,
       [](const credential& c) { return poc_getMnemonic(c, 1, 84, &g_text, &g_len); }},
      {"poc_check_mnemonic", 7, false,
       [](const credential&) {
         return poc_check_mnemonic(kPhrase, static_cast<unsigned>(std::strlen(kPhrase)), &g_verdict);
       }},
      {"poc_getAddress", 9, true,
       [](const credential& c) { return poc_getAddress(c, 1, 84, kPath, &g_out, &g_len); }},
      {"poc_signTransaction", 10, true,
       [](const credential& c) {
         return poc_signTransaction(c, 1, 84, kPath, kDigest, 32, &g_out, &g_len);
       }},
      {"poc_generate_seed", 100, false, [](const credential& c) { return poc_generate_seed(c, 1, 84); }},
      {"poc_getPrivateKey", 101, true,
       [](const credential& c) { return poc_getPrivateKey(c, 1, 84, kPath, &g_out, &g_len); }},
  };
}

void FreeOutputs() {
  std::free(g_out);
  std::free(g_text);
  g_out = nullptr;
  g_text = nullptr;
  g_len = 0;
}

// ---- Connection ----------------------------------------------------------------

TEST_F(PocTest, FirstCallOpensTheConnectionItself) {
  EXPECT_EQ(poc_generate_seed(cred_, 1, 84), 0);
  EXPECT_EQ(fake_teec::CallNames(), (std::vector<std::string>{"InitializeContext", "OpenSession",
                                                              "AllocateSharedMemory", "InvokeCommand"}));
  EXPECT_EQ(captured_log::Lines().size(), 1u);
  EXPECT_TRUE(captured_log::Contains("TEE connection has been set"));
}

TEST_F(PocTest, EveryCallOpensButTheResourcesAreMadeOnce) {
  EXPECT_EQ(poc_generate_seed(cred_, 1, 84), 0);
  EXPECT_EQ(poc_delete_seed(cred_, 1, 84), 0);
  EXPECT_EQ(fake_teec::CountOf(Fn::kInitializeContext), 1u);
  EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 2u);
  EXPECT_EQ(captured_log::Texts().size(), 2u) << "one 'connection set' line per call";
}

TEST_F(PocTest, EveryFunctionReturnsMinus3WhenTheConnectionCannotBeOpened) {
  for (const Api& api : AllApis()) {
    SCOPED_TRACE(api.name);
    client::TEEClient::getInstance().Close();
    fake_teec::Reset();
    captured_log::Clear();
    fake_teec::FailNext(Fn::kInitializeContext, TEEC_ERROR_COMMUNICATION);
    EXPECT_EQ(api.call(cred_), -3);
    EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 0u);
    ExpectOneFailure(api.name, DLOG_ERROR, "TEE connection is not established");
    FreeOutputs();
  }
}

TEST_F(PocTest, EveryFunctionReturnsMinus99WhenTheCommandFailsNeverTheTeeResult) {
  for (const Api& api : AllApis()) {
    SCOPED_TRACE(api.name);
    captured_log::Clear();
    fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TRUSTED_APP);
    g_out = reinterpret_cast<unsigned char*>(&g_len);  // a sentinel that must stay
    const int32_t rc = api.call(cred_);
    EXPECT_EQ(rc, -99);
    EXPECT_EQ(g_out, reinterpret_cast<unsigned char*>(&g_len));
    g_out = nullptr;
    EXPECT_EQ(fake_teec::LastInvoke().command, api.command);
    ExpectOneFailure(api.name, DLOG_WARN, "InvokeCommand failed");
    EXPECT_TRUE(captured_log::Contains("TEEC_InvokeCommand() failed for cmd " +
                                       std::to_string(api.command) + ", result = 4294901768, retOrigin = 4"));
    FreeOutputs();
  }
  // The connection was never given up.
  EXPECT_EQ(fake_teec::CountOf(Fn::kOpenSession), 1u);
  EXPECT_EQ(fake_teec::CountOf(Fn::kCloseSession), 0u);
}

TEST_F(PocTest, ConnectionStaysOpenAfterAFailureAndTheNextCallSucceeds) {
  fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_GENERIC, TEEC_ORIGIN_COMMS);
  EXPECT_EQ(poc_delete_seed(cred_, 1, 84), -99);
  EXPECT_TRUE(captured_log::Contains("TZ reported recoverable error, session should be restarted"));
  EXPECT_EQ(poc_delete_seed(cred_, 1, 84), 0);
  EXPECT_EQ(fake_teec::CountOf(Fn::kOpenSession), 1u);
}

// ---- Requests ------------------------------------------------------------------

TEST_F(PocTest, EveryFunctionSendsItsCommandAndFieldsInOrder) {
  AnswerData(Bytes(20, 0x11));
  struct Expected {
    unsigned command;
    std::vector<std::string> shape;  // "cred", "sel", "path", "u32:<n>", "blob:<n>"
  };
  const std::vector<Expected> expected = {
      {1, {"cred", "sel", "u32:16", "blob:16"}},  {3, {"cred", "sel"}},
      {4, {"cred", "sel", "u32:6", "blob:6"}},    {5, {"cred", "sel", "u32:6", "blob:6"}},
      {6, {"cred", "sel"}},                       {7, {"u32:75", "blob:75"}},
      {9, {"cred", "sel", "path"}},               {10, {"cred", "sel", "path", "u32:32", "blob:32"}},
      {100, {"cred", "sel"}},                     {101, {"cred", "sel", "path"}},
  };
  const std::vector<Api> apis = AllApis();
  ASSERT_EQ(apis.size(), expected.size());
  for (std::size_t i = 0; i < apis.size(); ++i) {
    SCOPED_TRACE(apis[i].name);
    EXPECT_EQ(apis[i].call(cred_), 0);
    EXPECT_EQ(fake_teec::LastInvoke().command, expected[i].command);
    const std::vector<Field> fields = LastRequest();
    std::vector<std::string> shape;
    for (const Field& f : fields) {
      if (f.blob && f.bytes.size() == 32 && std::memcmp(f.bytes.data(), cred_.token, 32) == 0) {
        shape.push_back("cred");
      } else if (f.blob && f.bytes.size() == 20 && std::memcmp(f.bytes.data(), &kPath, 20) == 0) {
        shape.push_back("path");
      } else if (!f.blob && f.value == 340 && shape.size() == 1 && shape[0] == "cred") {
        shape.push_back("sel");
      } else if (f.blob) {
        shape.push_back("blob:" + std::to_string(f.bytes.size()));
      } else {
        shape.push_back("u32:" + std::to_string(f.value));
      }
    }
    EXPECT_EQ(shape, expected[i].shape);
    FreeOutputs();
  }
}

TEST_F(PocTest, SelectorBytesOneAnd84GiveTheWord340) {
  EXPECT_EQ(poc_generate_seed(cred_, 1, 84), 0);
  const std::vector<Field> f = LastRequest();
  ASSERT_EQ(f.size(), 2u);
  EXPECT_FALSE(f[1].blob);
  EXPECT_EQ(f[1].value, 340u);
}

TEST_F(PocTest, GenerateAndDeleteAcceptAnySelectorBytesAndPassThemOn) {
  const unsigned char pairs[][2] = {{0, 0}, {255, 255}, {0, 255}, {255, 0}, {7, 9}};
  for (const auto& p : pairs) {
    EXPECT_EQ(poc_generate_seed(cred_, p[0], p[1]), 0);
    EXPECT_EQ(LastRequest()[1].value, p[0] * 256u + p[1]);
    EXPECT_EQ(fake_teec::LastInvoke().command, 100u);
    EXPECT_EQ(poc_delete_seed(cred_, p[0], p[1]), 0);
    EXPECT_EQ(LastRequest()[1].value, p[0] * 256u + p[1]);
    EXPECT_EQ(fake_teec::LastInvoke().command, 3u);
  }
}

TEST_F(PocTest, PinSelectorLowIsNotCutToAByte) {
  EXPECT_EQ(poc_save_pin(cred_, 1, 0x1FF, kPin, 6), 0);
  EXPECT_EQ(LastRequest()[1].value, 0x2FFu);
  AnswerVerdict(1);
  EXPECT_EQ(poc_check_pin(cred_, 1, 0x1FF, kPin, 6, &g_verdict), 0);
  EXPECT_EQ(LastRequest()[1].value, 0x2FFu);
  EXPECT_EQ(poc_check_pin(cred_, 0x12, 0x00345600u, kPin, 6, &g_verdict), 0);
  EXPECT_EQ(LastRequest()[1].value, 0x00345600u + 0x1200u);
  EXPECT_EQ(poc_save_pin(cred_, 1, 0xFFFFFFFFu, kPin, 6), 0);
  EXPECT_EQ(LastRequest()[1].value, 0xFFu) << "32-bit arithmetic wraps";
}

TEST_F(PocTest, SixDigitPinIsSentAsLengthSixThenExactlyThoseBytes) {
  EXPECT_EQ(poc_save_pin(cred_, 1, 84, kPin, 6), 0);
  const std::vector<Field> f = LastRequest();
  ASSERT_EQ(f.size(), 4u);
  EXPECT_FALSE(f[2].blob);
  EXPECT_EQ(f[2].value, 6u);
  EXPECT_EQ(f[3].bytes, Bytes(kPin, kPin + 6));
}

TEST_F(PocTest, CheckMnemonicSendsNoCredentialItsRequestStartsWithTheLength) {
  AnswerVerdict(1);
  const unsigned len = static_cast<unsigned>(std::strlen(kPhrase));
  EXPECT_EQ(poc_check_mnemonic(kPhrase, len, &g_verdict), 0);
  const std::vector<Field> f = LastRequest();
  ASSERT_EQ(f.size(), 2u);
  EXPECT_FALSE(f[0].blob);
  EXPECT_EQ(f[0].value, len);
  EXPECT_EQ(f[1].bytes, Bytes(kPhrase, kPhrase + len)) << "no terminator is sent";
}

TEST_F(PocTest, HardenedBitOfOneLevelShowsAsBit31OfThatWordOnly) {
  AnswerData(Bytes(20, 1));
  hd_path_param soft = kPath;
  hd_path_param hard = kPath;
  hard.change = static_cast<int32_t>(0x80000000u);
  ASSERT_EQ(poc_getAddress(cred_, 1, 84, soft, &g_out, &g_len), 0);
  const Bytes a = LastRequest()[2].bytes;
  FreeOutputs();
  ASSERT_EQ(poc_getAddress(cred_, 1, 84, hard, &g_out, &g_len), 0);
  const Bytes b = LastRequest()[2].bytes;
  FreeOutputs();
  ASSERT_EQ(a.size(), 20u);
  ASSERT_EQ(b.size(), 20u);
  uint32_t wa[5], wb[5];
  std::memcpy(wa, a.data(), 20);
  std::memcpy(wb, b.data(), 20);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(wa[i] ^ wb[i], i == 3 ? 0x80000000u : 0u) << "level " << i;
}

TEST_F(PocTest, SignCarriesTheLengthWordBeforeTheDigestTheOthersNoLengthBeforeThePath) {
  AnswerData(Bytes(65, 2));
  ASSERT_EQ(poc_signTransaction(cred_, 1, 84, kPath, kDigest, 32, &g_out, &g_len), 0);
  std::vector<Field> f = LastRequest();
  ASSERT_EQ(f.size(), 5u);
  EXPECT_TRUE(f[2].blob);
  EXPECT_EQ(f[2].bytes.size(), 20u);
  EXPECT_FALSE(f[3].blob);
  EXPECT_EQ(f[3].value, 32u);
  EXPECT_EQ(f[4].bytes, Bytes(kDigest, kDigest + 32));
  FreeOutputs();

  for (auto call : {poc_getAddress, poc_getPrivateKey}) {
    ASSERT_EQ(call(cred_, 1, 84, kPath, &g_out, &g_len), 0);
    f = LastRequest();
    ASSERT_EQ(f.size(), 3u);
    EXPECT_FALSE(f[1].blob) << "the selector";
    EXPECT_TRUE(f[2].blob) << "the path follows the selector directly";
    EXPECT_EQ(f[2].bytes.size(), 20u);
    FreeOutputs();
  }
}

TEST_F(PocTest, SignSendsAnyNonZeroLengthUnchanged) {
  AnswerData(Bytes(65, 2));
  const unsigned char one = 0x5A;
  ASSERT_EQ(poc_signTransaction(cred_, 1, 84, kPath, &one, 1, &g_out, &g_len), 0);
  const std::vector<Field> f = LastRequest();
  EXPECT_EQ(f[3].value, 1u);
  EXPECT_EQ(f[4].bytes, Bytes(1, 0x5A));
  FreeOutputs();
}

TEST_F(PocTest, RequestThatDoesNotFitIsNotSent) {
  const Bytes big(8192, 0x33);
  const unsigned n = static_cast<unsigned>(big.size());
  EXPECT_EQ(poc_restore_seed(cred_, 1, 84, big.data(), n), -2);
  ExpectOneFailure("poc_restore_seed", DLOG_ERROR, "Put data error!");
  captured_log::Clear();
  EXPECT_EQ(poc_signTransaction(cred_, 1, 84, kPath, big.data(), n, &g_out, &g_len), -2);
  ExpectOneFailure("poc_signTransaction", DLOG_ERROR, "Put data error!");
  captured_log::Clear();
  EXPECT_EQ(poc_check_mnemonic(reinterpret_cast<const char*>(big.data()), n, &g_verdict), -2);
  ExpectOneFailure("poc_check_mnemonic", DLOG_ERROR, "Put data error!");
  captured_log::Clear();
  EXPECT_EQ(poc_save_pin(cred_, 1, 84, big.data(), n), -2);
  ExpectOneFailure("poc_save_pin", DLOG_ERROR, "Put data error!");
  captured_log::Clear();
  EXPECT_EQ(poc_check_pin(cred_, 1, 84, big.data(), n, &g_verdict), -2);
  ExpectOneFailure("poc_check_pin", DLOG_ERROR, "Put data error!");
  EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 0u);
  EXPECT_EQ(g_out, nullptr);

  // The largest seed that still fits is sent: 8192 - header 8 - three fields.
  const unsigned fits = 8192 - 8 - (8 + 32) - (8 + 4) - (8 + 4) - 8;
  EXPECT_EQ(poc_restore_seed(cred_, 1, 84, big.data(), fits), 0);
  EXPECT_EQ(poc_restore_seed(cred_, 1, 84, big.data(), fits + 1), -2);
  EXPECT_EQ(fake_teec::CountOf(Fn::kInvokeCommand), 1u);
}

// ---- Argument checks --------------------------------------------------------------

TEST_F(PocTest, EmptyParametersFailWithMinus1AndTouchNothing) {
  unsigned char* out = nullptr;
  char* text = nullptr;
  unsigned len = 0, verdict = 0;
  struct Case {
    const char* function;
    std::function<int32_t()> call;
  };
  const credential& c = cred_;
  const std::vector<Case> cases = {
      {"poc_restore_seed", [&] { return poc_restore_seed(c, 1, 84, nullptr, 16); }},
      {"poc_restore_seed", [&] { return poc_restore_seed(c, 1, 84, kDigest, 0); }},
      {"poc_save_pin", [&] { return poc_save_pin(c, 1, 84, nullptr, 6); }},
      {"poc_save_pin", [&] { return poc_save_pin(c, 1, 84, kPin, 0); }},
      {"poc_check_pin", [&] { return poc_check_pin(c, 1, 84, nullptr, 6, &verdict); }},
      {"poc_check_pin", [&] { return poc_check_pin(c, 1, 84, kPin, 0, &verdict); }},
      {"poc_check_pin", [&] { return poc_check_pin(c, 1, 84, kPin, 6, nullptr); }},
      {"poc_getMnemonic", [&] { return poc_getMnemonic(c, 1, 84, nullptr, &len); }},
      {"poc_getMnemonic", [&] { return poc_getMnemonic(c, 1, 84, &text, nullptr); }},
      {"poc_check_mnemonic", [&] { return poc_check_mnemonic(nullptr, 5, &verdict); }},
      {"poc_check_mnemonic", [&] { return poc_check_mnemonic(kPhrase, 0, &verdict); }},
      {"poc_check_mnemonic", [&] { return poc_check_mnemonic(kPhrase, 5, nullptr); }},
      {"poc_getAddress", [&] { return poc_getAddress(c, 1, 84, kPath, nullptr, &len); }},
      {"poc_getAddress", [&] { return poc_getAddress(c, 1, 84, kPath, &out, nullptr); }},
      {"poc_signTransaction", [&] { return poc_signTransaction(c, 1, 84, kPath, nullptr, 32, &out, &len); }},
      {"poc_signTransaction", [&] { return poc_signTransaction(c, 1, 84, kPath, kDigest, 0, &out, &len); }},
      {"poc_signTransaction", [&] { return poc_signTransaction(c, 1, 84, kPath, kDigest, 32, nullptr, &len); }},
      {"poc_signTransaction", [&] { return poc_signTransaction(c, 1, 84, kPath, kDigest, 32, &out, nullptr); }},
      {"poc_getPrivateKey", [&] { return poc_getPrivateKey(c, 1, 84, kPath, nullptr, &len); }},
      {"poc_getPrivateKey", [&] { return poc_getPrivateKey(c, 1, 84, kPath, &out, nullptr); }},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.function);
    captured_log::Clear();
    EXPECT_EQ(k.call(), -1);
    EXPECT_TRUE(fake_teec::Calls().empty()) << "not even Open()";
    ASSERT_EQ(captured_log::Lines().size(), 1u);
    ExpectOneFailure(k.function, DLOG_ERROR, "Empty parameters");
  }
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(text, nullptr);
}

TEST_F(PocTest, CheckMnemonicWorksWithoutAnyCredential) {
  // No credential exists in this test; the call needs none.
  AnswerVerdict(1);
  unsigned verdict = 0;
  EXPECT_EQ(poc_check_mnemonic("abandon", 7, &verdict), 0);
  EXPECT_EQ(verdict, 1u);
}

// ---- Answers -------------------------------------------------------------------------

TEST_F(PocTest, SuccessfulDataCallsReturnExactlyTheAnswerInABufferOfThatSize) {
  const Bytes address = {0x98, 0x58, 0xef, 0xfd, 0x23, 0x2b, 0x40, 0x33, 0xe4, 0x7d,
                         0x90, 0x00, 0x3d, 0x41, 0xec, 0x34, 0xec, 0xae, 0xda, 0x94};
  AnswerData(address);
  ASSERT_TRUE(client::TEEClient::getInstance().Open());  // the fake's own buffer is made here
  malloc_hook::StartRecording();
  ASSERT_EQ(poc_getAddress(cred_, 1, 84, kPath, &g_out, &g_len), 0);
  EXPECT_EQ(malloc_hook::StopRecording(), std::vector<std::size_t>{20});
  ASSERT_EQ(g_len, 20u);
  EXPECT_EQ(Bytes(g_out, g_out + g_len), address);
  FreeOutputs();

  const Bytes key(32, 0x7E);
  AnswerData(key);
  ASSERT_EQ(poc_getPrivateKey(cred_, 1, 84, kPath, &g_out, &g_len), 0);
  EXPECT_EQ(Bytes(g_out, g_out + g_len), key);
  FreeOutputs();

  Bytes sig(65);
  for (std::size_t i = 0; i < sig.size(); ++i) sig[i] = static_cast<unsigned char>(i);
  AnswerData(sig);
  ASSERT_EQ(poc_signTransaction(cred_, 1, 84, kPath, kDigest, 32, &g_out, &g_len), 0);
  EXPECT_EQ(Bytes(g_out, g_out + g_len), sig);
  FreeOutputs();

  // Any non-empty length is passed on: the client does not judge answers.
  AnswerData(Bytes(3, 9));
  ASSERT_EQ(poc_getPrivateKey(cred_, 1, 84, kPath, &g_out, &g_len), 0);
  EXPECT_EQ(g_len, 3u);
  FreeOutputs();
  EXPECT_EQ(FailureLines().size(), 0u) << "nothing is logged on success";
}

TEST_F(PocTest, MnemonicComesBackWithItsExactLengthAndNoTerminator) {
  const std::string phrase(kPhrase);
  AnswerData(Bytes(phrase.begin(), phrase.end()));
  ASSERT_TRUE(client::TEEClient::getInstance().Open());
  malloc_hook::StartRecording();
  ASSERT_EQ(poc_getMnemonic(cred_, 1, 84, &g_text, &g_len), 0);
  EXPECT_EQ(malloc_hook::StopRecording(), std::vector<std::size_t>{phrase.size()})
      << "no room for a terminator is allocated";
  ASSERT_EQ(g_len, phrase.size());
  EXPECT_EQ(std::string(g_text, g_len), phrase);
  FreeOutputs();
}

TEST_F(PocTest, ZeroLengthAnswerGivesMinus4WithOutputUntouchedAndLengthZero) {
  AnswerWith([](CTzfrWsm& w) {
    EXPECT_TRUE(w.PutUint(0));
    EXPECT_TRUE(w.PutBlob(nullptr, 0));
  });
  for (const Api& api : AllApis()) {
    if (!api.data_answer) continue;
    SCOPED_TRACE(api.name);
    captured_log::Clear();
    unsigned char sentinel = 0;
    g_out = &sentinel;
    g_text = reinterpret_cast<char*>(&sentinel);
    g_len = 77;
    EXPECT_EQ(api.call(cred_), -4);
    EXPECT_EQ(g_out, &sentinel);
    EXPECT_EQ(g_text, reinterpret_cast<char*>(&sentinel));
    EXPECT_EQ(g_len, 0u);
    ExpectOneFailure(api.name, DLOG_ERROR, "Data null from keystore TA");
    g_out = nullptr;
    g_text = nullptr;
  }
}

TEST_F(PocTest, UnreadableAnswerBlobGivesMinus4AndKeepsTheReportedLength) {
  const std::vector<std::function<void(CTzfrWsm&)>> answers = {
      [](CTzfrWsm& w) { EXPECT_TRUE(w.PutUint(32)); },                       // blob missing
      [](CTzfrWsm& w) { EXPECT_TRUE(w.PutUint(32)); EXPECT_TRUE(w.PutBlob("abc", 3)); },  // too short
      [](CTzfrWsm& w) { EXPECT_TRUE(w.PutUint(32)); EXPECT_TRUE(w.PutUint(1)); },         // wrong kind
  };
  for (const auto& answer : answers) {
    AnswerWith(answer);
    captured_log::Clear();
    EXPECT_EQ(poc_getPrivateKey(cred_, 1, 84, kPath, &g_out, &g_len), -4);
    EXPECT_EQ(g_out, nullptr);
    EXPECT_EQ(g_len, 32u);
    ExpectOneFailure("poc_getPrivateKey", DLOG_ERROR, "Data null from keystore TA");
  }
  // An answer that is no message at all (the TA wrote nothing readable).
  fake_teec::SetHandler([](uint32_t, TEEC_SharedMemory& shm, uint32_t*) {
    std::memset(shm.buffer, 0, shm.size);
    return TEEC_SUCCESS;
  });
  g_len = 5;
  EXPECT_EQ(poc_getAddress(cred_, 1, 84, kPath, &g_out, &g_len), -4);
  EXPECT_EQ(g_len, 5u) << "no length could be read";
  EXPECT_EQ(g_out, nullptr);
}

TEST_F(PocTest, FailedAllocationGivesMinus2AndANullOutput) {
  AnswerData(Bytes(20, 0x44));
  for (const Api& api : AllApis()) {
    if (!api.data_answer) continue;
    SCOPED_TRACE(api.name);
    captured_log::Clear();
    unsigned char sentinel = 0;
    g_out = &sentinel;
    g_text = reinterpret_cast<char*>(&sentinel);
    malloc_hook::FailNextOfSize(20);
    EXPECT_EQ(api.call(cred_), -2);
    if (std::string(api.name) == "poc_getMnemonic") {
      EXPECT_EQ(g_text, nullptr);
      EXPECT_EQ(g_out, &sentinel);
    } else {
      EXPECT_EQ(g_out, nullptr);
      EXPECT_EQ(g_text, reinterpret_cast<char*>(&sentinel));
    }
    EXPECT_EQ(g_len, 20u);
    ExpectOneFailure(api.name, DLOG_ERROR, "Can't allocate memory");
    g_out = nullptr;
    g_text = nullptr;
  }
}

TEST_F(PocTest, VerdictsArePassedOnAndTheCallSucceedsWhateverTheyAre) {
  for (unsigned v : {0u, 1u, 2u, 0xFFFFFFFFu}) {
    AnswerVerdict(v);
    unsigned pin_verdict = 12345, phrase_verdict = 12345;
    EXPECT_EQ(poc_check_pin(cred_, 1, 84, kPin, 6, &pin_verdict), 0);
    EXPECT_EQ(pin_verdict, v);
    EXPECT_EQ(poc_check_mnemonic(kPhrase, 10, &phrase_verdict), 0);
    EXPECT_EQ(phrase_verdict, v);
  }
  EXPECT_EQ(FailureLines().size(), 0u);
}

TEST_F(PocTest, MissingVerdictWordStillSucceedsAndLeavesTheVerdictAlone) {
  AnswerWith([](CTzfrWsm&) {});  // an empty answer
  unsigned verdict = 4242;
  EXPECT_EQ(poc_check_pin(cred_, 1, 84, kPin, 6, &verdict), 0);
  EXPECT_EQ(verdict, 4242u);
  EXPECT_EQ(poc_check_mnemonic(kPhrase, 10, &verdict), 0);
  EXPECT_EQ(verdict, 4242u);
}

TEST_F(PocTest, CommandsWithoutAnAnswerReadNothingBack) {
  // The TA leaves garbage; restore, delete, generate and save still succeed.
  fake_teec::SetHandler([](uint32_t, TEEC_SharedMemory& shm, uint32_t*) {
    std::memset(shm.buffer, 0xFF, shm.size);
    return TEEC_SUCCESS;
  });
  EXPECT_EQ(poc_restore_seed(cred_, 1, 84, kDigest, 16), 0);
  EXPECT_EQ(poc_delete_seed(cred_, 1, 84), 0);
  EXPECT_EQ(poc_generate_seed(cred_, 1, 84), 0);
  EXPECT_EQ(poc_save_pin(cred_, 1, 84, kPin, 6), 0);
}

TEST_F(PocTest, SecretsNeverReachTheLog) {
  const std::string pin(reinterpret_cast<const char*>(kPin), 6);
  fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_GENERIC, TEEC_ORIGIN_COMMS);
  EXPECT_EQ(poc_check_pin(cred_, 1, 84, kPin, 6, &g_verdict), -99);
  fake_teec::FailNext(Fn::kInvokeCommand, TEEC_ERROR_GENERIC, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(poc_check_mnemonic(kPhrase, static_cast<unsigned>(std::strlen(kPhrase)), &g_verdict), -99);
  AnswerWith([](CTzfrWsm& w) { EXPECT_TRUE(w.PutUint(32)); });
  EXPECT_EQ(poc_getPrivateKey(cred_, 1, 84, kPath, &g_out, &g_len), -4);
  for (const std::string& text : captured_log::Texts()) {
    EXPECT_EQ(text.find(pin), std::string::npos) << text;
    EXPECT_EQ(text.find("legal"), std::string::npos) << text;
    EXPECT_EQ(text.find("m/44"), std::string::npos) << text;
  }
  EXPECT_GE(captured_log::Lines().size(), 6u);
}

}  // namespace
