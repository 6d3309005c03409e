/* When things break: TAs that panic or crash, a daemon that is killed or
 * stopped, clients that die or speak garbage, broken TA installations. Each
 * failure must stay with whoever failed. */
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support.h"
#include "teesim/channel.h"
#include "teesim/uuid.h"
#include "teesim/wire.h"

namespace conformance {
namespace {

namespace w = teesim::wire;
using teesim::UniqueFd;

TEEC_Result panic(TEEC_Session* s, uint32_t code, uint32_t* origin) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].value.a = code;
  return TEEC_InvokeCommand(s, TEST_CMD_PANIC, &op, origin);
}

using Failures = WithDaemon;

TEST_F(Failures, APanickingTaEndsOnlyItsOwnSessions) {
  Client a, b, other;
  ASSERT_RESULT(a.open(kTestTa), TEEC_SUCCESS);
  ASSERT_RESULT(b.open(kTestTa), TEEC_SUCCESS);
  ASSERT_RESULT(other.open(kMultiInstanceTa), TEEC_SUCCESS);
  uint32_t before[4];
  ASSERT_TRUE(a.info(before));

  uint32_t origin = 0;
  EXPECT_OUTCOME(panic(a.session(), 0xBAD, &origin), origin, TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE);
  EXPECT_OUTCOME(TEEC_InvokeCommand(a.session(), TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE)
      << "a dead session stays dead";
  EXPECT_OUTCOME(TEEC_InvokeCommand(b.session(), TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE)
      << "every session of the instance ends with it";
  uint32_t info[4];
  EXPECT_TRUE(other.info(info)) << "another TA lives on";
  EXPECT_TRUE(daemon().Running()) << "the daemon lives on";

  Client fresh;
  ASSERT_RESULT(fresh.open(kTestTa), TEEC_SUCCESS);
  ASSERT_TRUE(fresh.info(info));
  EXPECT_NE(info[0], before[0]) << "the next open starts the TA afresh";
  EXPECT_EQ(info[3], 1u);
  EXPECT_TRUE(eventually([&] { return daemon().LogText().find("ended by TEE_Panic") != std::string::npos; }));
  EXPECT_NE(daemon().LogText().find("panicked with code 0x00000bad"), std::string::npos);
}

TEST_F(Failures, ACrashingTaIsReportedDeadAndRestarted) {
  Client a;
  ASSERT_RESULT(a.open(kTestTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(a.session(), TEST_CMD_CRASH, nullptr, &origin), origin,
                 TEEC_ERROR_TARGET_DEAD, TEEC_ORIGIN_TEE);
#ifdef TESSERA_SANITIZE
  const char* how = "exited with status 1"; /* the sanitizer reports the fault, then exits */
#else
  const char* how = "killed by signal 11 (SIGSEGV)";
#endif
  EXPECT_TRUE(eventually([&] { return daemon().LogText().find(how) != std::string::npos; }))
      << daemon().LogText();
  Client again;
  EXPECT_RESULT(again.open(kTestTa), TEEC_SUCCESS);
}

TEST(DaemonGone, AKilledDaemonIsReportedAsACommunicationFailure) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  use_daemon(d);
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  d.Kill();
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_COMMS);
  TEEC_Session s{};
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_COMMS);
  TEEC_Context fresh{};
  EXPECT_RESULT(TEEC_InitializeContext(nullptr, &fresh), TEEC_ERROR_COMMUNICATION);
  /* closing what is left neither hangs nor crashes (end of scope) */
}

TEST(DaemonGone, SigtermClosesSessionsAndStopsCleanly) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start({"--log-level", "debug"})) << d.Error(); /* the TA traces its end at debug */
  use_daemon(d);
  Client c;
  ASSERT_RESULT(c.open(kKeepAliveTa), TEEC_SUCCESS);
  EXPECT_EQ(d.Stop(), 0);
  std::string log = d.LogText();
  EXPECT_NE(log.find("received SIGTERM"), std::string::npos) << log;
  EXPECT_NE(log.find("[test-keep-alive] destroyed"), std::string::npos) << "TA_DestroyEntryPoint ran";
  EXPECT_NE(log.find("teesim stopped"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(d.Socket())) << "the socket is removed";
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_COMMS);
}

TEST_F(Failures, AClientThatDiesMidCommandLosesOnlyItsSession) {
  Client mine;
  ASSERT_RESULT(mine.open(kTestTa), TEEC_SUCCESS);
  int ready[2], go[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(go), 0);
  pid_t kid = ::fork();
  if (kid == 0) {
    TEEC_Context ctx{};
    TEEC_Session s{};
    uint32_t origin;
    if (TEEC_InitializeContext(nullptr, &ctx) != TEEC_SUCCESS ||
        TEEC_OpenSession(&ctx, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin) != TEEC_SUCCESS)
      ::_exit(1);
    (void)!::write(ready[1], "r", 1);
    char g;
    if (::read(go[0], &g, 1) != 1) ::_exit(1);
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].value.a = 1000;
    TEEC_InvokeCommand(&s, TEST_CMD_SLEEP, &op, &origin);
    ::_exit(0);
  }
  char r;
  ASSERT_EQ(::read(ready[0], &r, 1), 1);
  uint32_t info[4];
  ASSERT_TRUE(mine.info(info));
  EXPECT_EQ(info[1], 2u) << "the child's session is open";
  /* The TA traces the start of the command (the shared daemon logs at
   * debug): the kill lands while it runs, however slow the machine. */
  const std::string started = "[test] sleeping for 1000 ms";
  auto count = [&] {
    std::string log = daemon().LogText();
    size_t n = 0;
    for (size_t at = log.find(started); at != std::string::npos; at = log.find(started, at + 1)) ++n;
    return n;
  };
  const size_t before = count();
  ASSERT_EQ(::write(go[1], "g", 1), 1);
  ASSERT_TRUE(eventually([&] { return count() > before; })) << "the child's command never started";
  ::kill(kid, SIGKILL);
  ::waitpid(kid, nullptr, 0);
  EXPECT_TRUE(eventually([&] { return mine.info(info) && info[1] == 1; }))
      << "the dead client's session was closed";
  EXPECT_TRUE(mine.info(info)) << "ours works throughout";
  for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
}

/* ---- raw protocol --------------------------------------------------------------- */

UniqueFd raw_connect(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd.reset();
  return fd;
}

template <typename M>
bool raw_send(int fd, const M& msg, uint32_t tag = 1) {
  std::vector<uint8_t> frame;
  return w::encode(frame, tag, msg) == w::Status::Ok &&
         teesim::send_frame(fd, frame.data(), frame.size()) == 0;
}

/* True when the peer closes the connection. The 60 s bound only guards
 * against a hang: a healthy daemon closes it within milliseconds. */
bool closed_by_peer(int fd) {
  pollfd p{fd, POLLIN, 0};
  std::vector<uint8_t> buf(w::kMaxFrameSize);
  for (int i = 0; i < 600; ++i) {
    if (::poll(&p, 1, 100) <= 0) continue;
    teesim::FdList fds;
    ssize_t n = teesim::recv_frame(fd, buf.data(), buf.size(), &fds);
    if (n <= 0) return true;
  }
  return false;
}

bool raw_open(int fd, const TEEC_UUID& ta, UniqueFd* channel) {
  w::OpenSession open;
  open.ta = teesim::uuid_from_fields(ta.timeLow, ta.timeMid, ta.timeHiAndVersion, ta.clockSeqAndNode);
  if (!raw_send(fd, w::Hello{}) || !raw_send(fd, open, 2)) return false;
  std::vector<uint8_t> buf(w::kMaxFrameSize);
  teesim::FdList fds;
  for (int i = 0; i < 2; ++i) {
    ssize_t n = teesim::recv_frame(fd, buf.data(), buf.size(), &fds);
    if (n <= 0) return false;
  }
  if (fds.count != 1) return false;
  channel->reset(fds.fds[0].release());
  return true;
}

TEST_F(Failures, GarbageToTheDaemonCostsOnlyThatConnection) {
  Client before;
  ASSERT_RESULT(before.open(kTestTa), TEEC_SUCCESS);
  const std::vector<std::vector<uint8_t>> attacks = {
      {1, 2, 3},                                     /* shorter than a header */
      std::vector<uint8_t>(100, 0xFF),               /* bad magic */
  };
  for (const auto& bytes : attacks) {
    UniqueFd raw = raw_connect(daemon().Socket());
    ASSERT_TRUE(raw.valid());
    ASSERT_EQ(teesim::send_frame(raw.get(), bytes.data(), bytes.size()), 0);
    EXPECT_TRUE(closed_by_peer(raw.get()));
  }
  {
    /* A well-formed frame, but not a greeting first. */
    UniqueFd raw = raw_connect(daemon().Socket());
    ASSERT_TRUE(raw_send(raw.get(), w::OpenSession{}));
    EXPECT_TRUE(closed_by_peer(raw.get()));
  }
  {
    /* A truncated open request: the header promises more than comes. */
    UniqueFd raw = raw_connect(daemon().Socket());
    ASSERT_TRUE(raw_send(raw.get(), w::Hello{}));
    std::vector<uint8_t> frame;
    w::OpenSession open;
    ASSERT_EQ(w::encode(frame, 2, open), w::Status::Ok);
    frame.resize(frame.size() - 5);
    ASSERT_EQ(teesim::send_frame(raw.get(), frame.data(), frame.size()), 0);
    EXPECT_TRUE(closed_by_peer(raw.get()));
  }
  uint32_t info[4];
  EXPECT_TRUE(before.info(info)) << "an existing session is untouched";
  Client after;
  EXPECT_RESULT(after.open(kTestTa), TEEC_SUCCESS) << "new clients are served";
}

TEST_F(Failures, GarbageOnASessionChannelEndsOnlyThatSession) {
  Client mine;
  ASSERT_RESULT(mine.open(kTestTa), TEEC_SUCCESS);
  UniqueFd conn = raw_connect(daemon().Socket());
  UniqueFd channel;
  ASSERT_TRUE(raw_open(conn.get(), kTestTa, &channel));
  uint32_t info[4];
  ASSERT_TRUE(mine.info(info));
  EXPECT_EQ(info[1], 2u) << "both sessions live in one instance";
  std::vector<uint8_t> frame;
  w::Invoke inv;
  ASSERT_EQ(w::encode(frame, 1, inv), w::Status::Ok);
  frame[frame.size() - 1] = 0x44; /* a parameter kind that does not exist */
  ASSERT_EQ(teesim::send_frame(channel.get(), frame.data(), frame.size()), 0);
  EXPECT_TRUE(closed_by_peer(channel.get()));
  EXPECT_TRUE(eventually([&] { return mine.info(info) && info[1] == 1; }));
  EXPECT_TRUE(mine.info(info)) << "the other session goes on";
}

/* ---- broken installations ------------------------------------------------------ */

class BrokenTa : public ::testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) {
    std::ofstream(d_.TaDir() + "/" + name) << text;
  }
  TEEC_Result open(const TEEC_UUID& ta, uint32_t* origin) {
    if (!d_.Running()) {
      EXPECT_TRUE(d_.Start()) << d_.Error();
      use_daemon(d_);
    }
    Client c;
    return c.open(ta, origin);
  }
  PrivateDaemon d_{with_own_tas()}; /* the tests write into its TA folder */
};

TEST_F(BrokenTa, AFileThatIsNoTaIsRefusedWithTheReason) {
  write("0badf11e-0000-0000-0000-000000000000.ta", "not an ELF file at all");
  const TEEC_UUID bad = {0x0badf11e, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
  uint32_t origin = 0;
  EXPECT_OUTCOME(open(bad, &origin), origin, TEEC_ERROR_BAD_FORMAT, TEEC_ORIGIN_TEE);
  EXPECT_NE(d_.LogText().find("cannot load the TA"), std::string::npos) << d_.LogText();
}

TEST_F(BrokenTa, ATaUnderAnotherUuidsNameIsRefused) {
  std::filesystem::copy_file(d_.TaDir() + "/" TEST_TA_UUID_TEXT ".ta",
                             d_.TaDir() + "/0badf11e-0000-0000-0000-000000000001.ta");
  const TEEC_UUID bad = {0x0badf11e, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};
  uint32_t origin = 0;
  EXPECT_OUTCOME(open(bad, &origin), origin, TEEC_ERROR_BAD_FORMAT, TEEC_ORIGIN_TEE);
  EXPECT_NE(d_.LogText().find("declares UUID " TEST_TA_UUID_TEXT), std::string::npos) << d_.LogText();
}

TEST_F(BrokenTa, ABadPropertiesFileIsRefusedWithItsLine) {
  write(TEST_TA_UUID_TEXT ".props", "# fine\nthis line has no equals sign\n");
  uint32_t origin = 0;
  EXPECT_OUTCOME(open(kTestTa, &origin), origin, TEEC_ERROR_BAD_FORMAT, TEEC_ORIGIN_TEE);
  EXPECT_NE(d_.LogText().find("line 2"), std::string::npos) << d_.LogText();
}

TEST_F(BrokenTa, ACreateEntryPointThatFailsFailsTheOpen) {
  write(TEST_TA_UUID_TEXT ".props", std::string(TEST_TA_PROP_CREATE_RESULT) + " = 0xFFFF000C\n");
  uint32_t origin = 0;
  EXPECT_OUTCOME(open(kTestTa, &origin), origin, TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_OUTCOME(open(kKeepAliveTa, &origin), origin, TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP)
      << "other TAs are not affected";
}

}  // namespace
}  // namespace conformance
