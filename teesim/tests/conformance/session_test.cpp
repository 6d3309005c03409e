/* Sessions: opening (arguments, logins, operations), instance policies,
 * handles, cancellation, concurrency, properties, traces. */
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support.h"

namespace conformance {
namespace {

using Sessions = WithDaemon;

/* TEST_CMD_PROPERTY: the property's string value (NUL dropped), or "" on failure. */
TEEC_Result property(TEEC_Session* s, uint32_t set, const std::string& name, std::string* value,
                     uint32_t* origin, size_t room = 256) {
  std::vector<char> buf(room + 1, '\0');
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_VALUE_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(name.data()), name.size()};
  op.params[1].value.a = set;
  op.params[2].tmpref = {buf.data(), room};
  TEEC_Result r = TEEC_InvokeCommand(s, TEST_CMD_PROPERTY, &op, origin);
  if (r == TEEC_SUCCESS) {
    *value = std::string(buf.data());
  } else if (r == TEEC_ERROR_SHORT_BUFFER) {
    *value = std::to_string(op.params[2].tmpref.size);
  }
  return r;
}

TEST_F(Sessions, AnUninstalledTaIsNotFound) {
  Client c;
  const TEEC_UUID missing = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
  uint32_t origin = 0;
  EXPECT_OUTCOME(c.open(missing, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TEE);
  EXPECT_NE(daemon().LogText().find("12345678-9abc-def0-0102-030405060708, which is not installed"),
            std::string::npos);
}

TEST_F(Sessions, BadOpenArgumentsAreRefusedByTheLibrary) {
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  TEEC_Session s{};
  uint32_t origin = 0, gid = static_cast<uint32_t>(::getegid());
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), nullptr, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), &s, nullptr, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), &s, &kTestTa, 0x77, nullptr, nullptr, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), &s, &kTestTa, TEEC_LOGIN_GROUP, nullptr, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), &s, &kTestTa, TEEC_LOGIN_PUBLIC, &gid, nullptr, &origin),
                 origin, TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  EXPECT_EQ(s.imp, nullptr);
  TEEC_CloseSession(&s);
  EXPECT_RESULT(TEEC_OpenSession(c.ctx(), &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, nullptr),
                TEEC_SUCCESS)
      << "a null origin pointer is allowed";
  TEEC_CloseSession(&s);
}

TEST_F(Sessions, LoginMethodsGiveTheTaAClientIdentity) {
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  auto identity = [&](uint32_t method, const void* data, std::string* id) {
    TEEC_Session s{};
    uint32_t origin = 0;
    TEEC_Result r = TEEC_OpenSession(c.ctx(), &s, &kTestTa, method, data, nullptr, &origin);
    if (r != TEEC_SUCCESS) return r;
    r = property(&s, 1, "gpd.client.identity", id, &origin);
    TEEC_CloseSession(&s);
    return r;
  };
  std::string pub, user, user2, group, app;
  ASSERT_RESULT(identity(TEEC_LOGIN_PUBLIC, nullptr, &pub), TEEC_SUCCESS);
  EXPECT_EQ(pub, "00000000:00000000-0000-0000-0000-000000000000");
  ASSERT_RESULT(identity(TEEC_LOGIN_USER, nullptr, &user), TEEC_SUCCESS);
  ASSERT_RESULT(identity(TEEC_LOGIN_USER, nullptr, &user2), TEEC_SUCCESS);
  EXPECT_EQ(user.substr(0, 9), "00000001:");
  EXPECT_EQ(user, user2) << "one user, one identity";
  uint32_t gid = static_cast<uint32_t>(::getegid());
  ASSERT_RESULT(identity(TEEC_LOGIN_GROUP, &gid, &group), TEEC_SUCCESS);
  ASSERT_RESULT(identity(TEEC_LOGIN_APPLICATION, nullptr, &app), TEEC_SUCCESS);
  EXPECT_NE(user, group);
  EXPECT_NE(user, app);
  EXPECT_NE(group, app);
  TEEC_Session s{};
  uint32_t not_mine = 4242424, origin = 0;
  EXPECT_OUTCOME(TEEC_OpenSession(c.ctx(), &s, &kTestTa, TEEC_LOGIN_GROUP, &not_mine, nullptr, &origin),
                 origin, TEEC_ERROR_ACCESS_DENIED, TEEC_ORIGIN_TEE);
}

TEST_F(Sessions, OpeningCarriesAnOperationBothWays) {
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  char out[16] = {};
  TEEC_SharedMemory shm{};
  shm.size = 64;
  shm.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
  std::memset(shm.buffer, 0x33, 64);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INOUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_MEMREF_PARTIAL_INPUT, TEEC_NONE);
  op.params[0].value = {7, 9};
  op.params[1].tmpref = {out, sizeof out};
  op.params[2].memref = {&shm, 10, 4};
  uint32_t origin = 0;
  ASSERT_OUTCOME(c.open(kTestTa, &origin, &op), origin, TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[0].value.a, 8u);
  EXPECT_EQ(op.params[1].tmpref.size, 6u);
  EXPECT_EQ(std::string(out, 6), "opened");

  TEEC_Operation rop{};
  test_ta_report rep{};
  rop.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  rop.params[0].value.a = 1; /* this session's open */
  rop.params[1].tmpref = {&rep, sizeof rep};
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_REPORT, &rop, &origin), TEEC_SUCCESS);
  EXPECT_EQ(rep.param_types, 0x563u);
  EXPECT_EQ(rep.params[0].a, 7u);
  EXPECT_EQ(rep.params[2].size, 10u);
  EXPECT_EQ(rep.params[2].checksum, test_ta_fnv1a(std::string(10, '\x33').data(), 10));

  /* The block went to the instance with the open; commands may name it. */
  TEEC_Operation bump{};
  bump.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  bump.params[0].memref = {&shm, 1, 0};
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_BUMP, &bump, &origin), TEEC_SUCCESS);
  EXPECT_EQ(static_cast<uint8_t*>(shm.buffer)[0], 0x34);
  c.close();
  TEEC_ReleaseSharedMemory(&shm);
}

TEST_F(Sessions, ATaMayRefuseTheOpenOrAskForMoreRoom) {
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].value.a = TEST_TA_REFUSE;
  uint32_t origin = 0;
  EXPECT_OUTCOME(c.open(kTestTa, &origin, &op), origin, TEEC_ERROR_ACCESS_DENIED, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(c.session()->imp, nullptr);
  char tiny[2];
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_NONE, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[1].tmpref = {tiny, sizeof tiny};
  EXPECT_OUTCOME(c.open(kTestTa, &origin, &op), origin, TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[1].tmpref.size, 6u);
}

TEST_F(Sessions, ASingleInstanceTaServesAllSessionsFromOneProcess) {
  Client a, b;
  ASSERT_RESULT(a.open(kTestTa), TEEC_SUCCESS);
  ASSERT_RESULT(b.open(kTestTa), TEEC_SUCCESS);
  uint32_t ia[4], ib[4];
  ASSERT_TRUE(a.info(ia));
  ASSERT_TRUE(b.info(ib));
  EXPECT_EQ(ia[0], ib[0]) << "one process";
  EXPECT_EQ(ib[1], 2u) << "two sessions";
  EXPECT_EQ(ib[2], 1u) << "created once";
  EXPECT_NE(ia[0], static_cast<uint32_t>(daemon().Pid())) << "not in the daemon";
}

TEST_F(Sessions, ASingleSessionTaIsBusyUntilItsSessionCloses) {
  Client a, b;
  ASSERT_RESULT(a.open(kSingleSessionTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  EXPECT_OUTCOME(b.open(kSingleSessionTa, &origin), origin, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE);
  Client* holder = &a;
  Client* waiter = &b;
  for (int i = 0; i < 20; ++i) {
    holder->close();
    ASSERT_OUTCOME(waiter->open(kSingleSessionTa, &origin), origin, TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP)
        << "round " << i << ": a close must free the TA at once";
    std::swap(holder, waiter);
  }
}

TEST_F(Sessions, AMultiInstanceTaGetsAProcessPerSession) {
  Client a, b;
  ASSERT_RESULT(a.open(kMultiInstanceTa), TEEC_SUCCESS);
  ASSERT_RESULT(b.open(kMultiInstanceTa), TEEC_SUCCESS);
  uint32_t ia[4], ib[4];
  ASSERT_TRUE(a.info(ia));
  ASSERT_TRUE(b.info(ib));
  EXPECT_NE(ia[0], ib[0]);
  EXPECT_EQ(ia[1], 1u);
  EXPECT_EQ(ib[1], 1u);
}

TEST_F(Sessions, AnInstanceEndsWithItsLastSessionUnlessKeptAlive) {
  Client c;
  uint32_t first[4], second[4];
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  ASSERT_TRUE(c.info(first));
  c.close();
  EXPECT_TRUE(eventually([&] { return ::kill(static_cast<pid_t>(first[0]), 0) != 0 ||
                                      read_text("/proc/" + std::to_string(first[0]) + "/stat").find(") Z") != std::string::npos; }))
      << "the instance outlived its last session";
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  ASSERT_TRUE(c.info(second));
  EXPECT_NE(first[0], second[0]);
  EXPECT_EQ(second[3], 1u) << "a fresh instance";

  ASSERT_RESULT(c.open(kKeepAliveTa), TEEC_SUCCESS);
  ASSERT_TRUE(c.info(first));
  c.close();
  ASSERT_RESULT(c.open(kKeepAliveTa), TEEC_SUCCESS);
  ASSERT_TRUE(c.info(second));
  EXPECT_EQ(first[0], second[0]) << "a keep-alive instance stays";
  EXPECT_EQ(second[3], 2u);
  EXPECT_EQ(second[2], 1u);
}

TEST_F(Sessions, UnknownOrClosedSessionsAreRefused) {
  TEEC_Session never{};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(&never, TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  int junk = 0;
  TEEC_Session forged{};
  forged.imp = &junk;
  EXPECT_OUTCOME(TEEC_InvokeCommand(&forged, TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  EXPECT_OUTCOME(TEEC_InvokeCommand(nullptr, TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_Session copy = *c.session();
  c.close();
  EXPECT_OUTCOME(TEEC_InvokeCommand(&copy, TEST_CMD_INFO, nullptr, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  TEEC_CloseSession(&copy);
  TEEC_CloseSession(&forged);
  TEEC_CloseSession(nullptr);
}

TEST_F(Sessions, AnOperationCancelledBeforeItStartsIsNotRun) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.started = 0;
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].value = {1, 2};
  TEEC_RequestCancellation(&op);
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_ADD, &op, &origin), origin, TEEC_ERROR_CANCEL,
                 TEEC_ORIGIN_API);
  EXPECT_EQ(op.params[1].value.a, 0u) << "a cancelled command does not run";
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_ADD, &op, &origin), origin, TEEC_SUCCESS,
                 TEEC_ORIGIN_TRUSTED_APP)
      << "the cancellation was used up";
  EXPECT_EQ(op.started, 1u);
  EXPECT_EQ(op.params[1].value.a, 3u);
  TEEC_RequestCancellation(&op); /* already started: no effect */
  EXPECT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_ADD, &op, &origin), TEEC_SUCCESS);
  TEEC_RequestCancellation(nullptr);
}

/* One client's stream of echo commands with its own data; false on any mismatch. */
bool echo_stream(TEEC_Session* s, TEEC_SharedMemory* shm, int id, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    auto* mem = static_cast<uint8_t*>(shm->buffer);
    size_t n = 1 + static_cast<size_t>((id * 131 + i * 17) % 2000);
    for (size_t k = 0; k < n; ++k) mem[k] = static_cast<uint8_t>(id * 31 + i + k);
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INPUT, TEEC_MEMREF_PARTIAL_OUTPUT, TEEC_NONE, TEEC_NONE);
    op.params[0].memref = {shm, n, 0};
    op.params[1].memref = {shm, n, 4096};
    uint32_t origin = 0;
    if (TEEC_InvokeCommand(s, TEST_CMD_ECHO, &op, &origin) != TEEC_SUCCESS) return false;
    if (op.params[1].memref.size != n || std::memcmp(mem, mem + 4096, n) != 0) return false;
  }
  return true;
}

TEST_F(Sessions, ConcurrentClientProcessesNeverSeeEachOthersData) {
  constexpr int kClients = 4, kRounds = 200;
  std::vector<pid_t> kids;
  for (int id = 0; id < kClients; ++id) {
    pid_t pid = ::fork();
    if (pid == 0) {
      TEEC_Context ctx{};
      TEEC_Session s{};
      TEEC_SharedMemory shm{};
      shm.size = 8192;
      shm.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
      uint32_t origin;
      bool ok = TEEC_InitializeContext(nullptr, &ctx) == TEEC_SUCCESS &&
                TEEC_OpenSession(&ctx, &s, id % 2 ? &kTestTa : &kMultiInstanceTa, TEEC_LOGIN_PUBLIC,
                                 nullptr, nullptr, &origin) == TEEC_SUCCESS &&
                TEEC_AllocateSharedMemory(&ctx, &shm) == TEEC_SUCCESS && echo_stream(&s, &shm, id, kRounds);
      ::_exit(ok ? 0 : 1);
    }
    kids.push_back(pid);
  }
  for (pid_t k : kids) {
    int status = 0;
    ::waitpid(k, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "client process " << k;
  }
}

TEST_F(Sessions, ConcurrentThreadsWithTheirOwnSessionsOrOneShared) {
  constexpr int kThreads = 4, kRounds = 150;
  std::atomic<int> failures{0};
  {
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
      threads.emplace_back([&, id] {
        Client c;
        TEEC_SharedMemory shm{};
        shm.size = 8192;
        shm.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
        if (c.open(kTestTa) != TEEC_SUCCESS || TEEC_AllocateSharedMemory(c.ctx(), &shm) != TEEC_SUCCESS ||
            !echo_stream(c.session(), &shm, id, kRounds))
          ++failures;
        TEEC_ReleaseSharedMemory(&shm);
      });
    }
    for (auto& t : threads) t.join();
  }
  EXPECT_EQ(failures.load(), 0) << "sessions of one instance served in parallel";

  Client shared;
  ASSERT_RESULT(shared.open(kTestTa), TEEC_SUCCESS);
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) {
    threads.emplace_back([&, id] {
      TEEC_SharedMemory shm{};
      shm.size = 8192;
      shm.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
      if (TEEC_AllocateSharedMemory(shared.ctx(), &shm) != TEEC_SUCCESS ||
          !echo_stream(shared.session(), &shm, id, kRounds))
        ++failures;
      TEEC_ReleaseSharedMemory(&shm);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0) << "one session used by several threads";
}

TEST_F(Sessions, PropertiesComeFromTheTaItsInstallationAndTheTee) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  std::string v;
  uint32_t origin = 0;
  ASSERT_RESULT(property(c.session(), 0, "teesim.test.greeting", &v, &origin), TEEC_SUCCESS);
  EXPECT_EQ(v, "hello from the properties file");
  ASSERT_RESULT(property(c.session(), 0, "gpd.ta.appID", &v, &origin), TEEC_SUCCESS);
  EXPECT_EQ(v, TEST_TA_UUID_TEXT);
  ASSERT_RESULT(property(c.session(), 0, "gpd.ta.singleInstance", &v, &origin), TEEC_SUCCESS);
  EXPECT_EQ(v, "true");
  ASSERT_RESULT(property(c.session(), 0, "gpd.ta.instanceKeepAlive", &v, &origin), TEEC_SUCCESS);
  EXPECT_EQ(v, "false");
  ASSERT_RESULT(property(c.session(), 2, "gpd.tee.apiversion", &v, &origin), TEEC_SUCCESS);
  EXPECT_EQ(v, "1.1");
  EXPECT_OUTCOME(property(c.session(), 0, "teesim.test.greeting", &v, &origin, 5), origin,
                 TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(v, "31");
  EXPECT_OUTCOME(property(c.session(), 0, "no.such.property", &v, &origin), origin,
                 TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TRUSTED_APP);
}

TEST_F(Sessions, TracesReachTheDaemonsLogWithTheTaName) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  const std::string text = "trace-line-7f3a";
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(text.data()), text.size()};
  uint32_t origin = 0;
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_TRACE, &op, &origin), TEEC_SUCCESS);
  EXPECT_TRUE(eventually([&] { return daemon().LogText().find("[test] " + text) != std::string::npos; }))
      << daemon().LogText();
}

/* The wall clock's seconds as the TEE reads them (time(2) may lag by a tick). */
time_t wall_seconds() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec;
}

TEST_F(Sessions, TimeFromTheTaIsTheMachines) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  uint32_t origin = 0;
  /* The TA's reading lies between two of ours, however long the command takes. */
  const time_t before = wall_seconds();
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_TIME, &op, &origin), TEEC_SUCCESS);
  const time_t after = wall_seconds();
  EXPECT_GE(static_cast<time_t>(op.params[1].value.a), before);
  EXPECT_LE(static_cast<time_t>(op.params[1].value.a), after);
  EXPECT_LT(op.params[0].value.b, 1000u);
  EXPECT_LT(op.params[1].value.b, 1000u);
}

}  // namespace
}  // namespace conformance
