// One TEEC_InvokeCommand round trip through libteec and the teesim daemon's
// TA instance, beside a bare AF_UNIX request/response between two processes
// measured in the same run, with the ratio printed at the end.
//
//  - BM_BareRoundTrip/stream and /seqpacket: a parent writes a 44-byte
//    request (the size of an INVOKE frame with one shared-memory reference)
//    and a forked child answers with 32 bytes (the size of its reply); the
//    floor any cross-process call pays.
//  - BM_InvokeCommand_8KiBPartialShm: the console's call shape - an 8 KiB
//    TEEC_MEMREF_PARTIAL_INOUT on allocated shared memory - to the test TA's
//    cheapest command (it bumps one byte), the TA instance copying the 8 KiB
//    in and out as always.
//  - Beside them, for the record: no parameters, an 8 KiB temporary memref
//    (carried by copy), and opening plus closing a session.
//
// Nothing is pinned: the scheduler places both processes as it would in use.
// Times are wall-clock (UseRealTime): the caller waits for another process.
// The program starts its own daemon in private folders (teesim_testing).

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "tee_client_api.h"
#include "teesim/testing/private_daemon.h"
#include "teesim_test_ta.h"

namespace {

constexpr size_t kRequestBytes = 44;
constexpr size_t kReplyBytes = 32;
const TEEC_UUID kTestTa = TEST_TA_UUID;
const TEEC_UUID kKeepAliveTa = TEST_TA_KEEP_ALIVE_UUID;

// --- the bare round trip -------------------------------------------------------------

bool read_full(int fd, char* p, size_t n) {
  while (n > 0) {
    ssize_t r = ::read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

void BM_BareRoundTrip(benchmark::State& state) {
  const int type = state.range(0) == 0 ? SOCK_STREAM : SOCK_SEQPACKET;
  int sv[2];
  if (::socketpair(AF_UNIX, type, 0, sv) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  pid_t child = ::fork();
  if (child == 0) {
    ::close(sv[0]);
    char req[kRequestBytes], rep[kReplyBytes] = {};
    for (;;) {
      if (!read_full(sv[1], req, sizeof req)) ::_exit(0);
      rep[0] = req[0];
      if (::write(sv[1], rep, sizeof rep) != sizeof rep) ::_exit(0);
    }
  }
  ::close(sv[1]);
  char req[kRequestBytes] = {}, rep[kReplyBytes];
  for (auto _ : state) {
    ++req[0];
    if (::write(sv[0], req, sizeof req) != sizeof req || !read_full(sv[0], rep, sizeof rep) ||
        rep[0] != req[0]) {
      state.SkipWithError("echo failed");
      break;
    }
  }
  ::close(sv[0]);
  ::waitpid(child, nullptr, 0);
}
BENCHMARK(BM_BareRoundTrip)->Arg(0)->Arg(1)->ArgName("seqpacket")->UseRealTime()->Unit(benchmark::kMicrosecond);

// --- libteec ------------------------------------------------------------------------

struct Session {
  TEEC_Context ctx{};
  TEEC_Session session{};
  bool ok = false;
  explicit Session(const TEEC_UUID& ta) {
    uint32_t origin;
    ok = TEEC_InitializeContext(nullptr, &ctx) == TEEC_SUCCESS &&
         TEEC_OpenSession(&ctx, &session, &ta, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin) == TEEC_SUCCESS;
  }
  ~Session() {
    if (ok) TEEC_CloseSession(&session);
    TEEC_FinalizeContext(&ctx);
  }
};

void BM_InvokeCommand_8KiBPartialShm(benchmark::State& state) {
  Session s(kTestTa);
  TEEC_SharedMemory shm{};
  shm.size = 8192;
  shm.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
  if (!s.ok || TEEC_AllocateSharedMemory(&s.ctx, &shm) != TEEC_SUCCESS) {
    state.SkipWithError("no session or shared memory");
    return;
  }
  auto* first = static_cast<uint8_t*>(shm.buffer);
  *first = 0;
  uint64_t calls = 0;
  for (auto _ : state) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].memref.parent = &shm;
    op.params[0].memref.offset = 0;
    op.params[0].memref.size = shm.size;
    uint32_t origin;
    if (TEEC_InvokeCommand(&s.session, TEST_CMD_BUMP, &op, &origin) != TEEC_SUCCESS) {
      state.SkipWithError("invoke failed");
      break;
    }
    ++calls;
  }
  if (*first != static_cast<uint8_t>(calls)) state.SkipWithError("the TA did not see every call");
  TEEC_ReleaseSharedMemory(&shm);
}
BENCHMARK(BM_InvokeCommand_8KiBPartialShm)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_InvokeCommand_NoParams(benchmark::State& state) {
  Session s(kTestTa);
  if (!s.ok) {
    state.SkipWithError("no session");
    return;
  }
  for (auto _ : state) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
    uint32_t origin;
    if (TEEC_InvokeCommand(&s.session, TEST_CMD_INFO, &op, &origin) != TEEC_SUCCESS) {
      state.SkipWithError("invoke failed");
      break;
    }
  }
}
BENCHMARK(BM_InvokeCommand_NoParams)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_InvokeCommand_8KiBTemp(benchmark::State& state) {
  Session s(kTestTa);
  if (!s.ok) {
    state.SkipWithError("no session");
    return;
  }
  std::vector<uint8_t> buf(8192, 0);
  for (auto _ : state) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].tmpref.buffer = buf.data();
    op.params[0].tmpref.size = buf.size();
    uint32_t origin;
    if (TEEC_InvokeCommand(&s.session, TEST_CMD_BUMP, &op, &origin) != TEEC_SUCCESS) {
      state.SkipWithError("invoke failed");
      break;
    }
  }
}
BENCHMARK(BM_InvokeCommand_8KiBTemp)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_OpenCloseSession(benchmark::State& state) {
  Session keep(kKeepAliveTa); /* the instance stays; this times the brokering */
  if (!keep.ok) {
    state.SkipWithError("no session");
    return;
  }
  for (auto _ : state) {
    TEEC_Session s;
    uint32_t origin;
    if (TEEC_OpenSession(&keep.ctx, &s, &kKeepAliveTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin) !=
        TEEC_SUCCESS) {
      state.SkipWithError("open failed");
      break;
    }
    TEEC_CloseSession(&s);
  }
}
BENCHMARK(BM_OpenCloseSession)->UseRealTime()->Unit(benchmark::kMicrosecond);

// --- ratios ---------------------------------------------------------------------------

// Prints as usual and keeps each benchmark's wall time per iteration in
// seconds: the median when repetitions were asked for, else the one run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string name = run.run_name.function_name + "/" + run.run_name.args;
      const double seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") times_[name] = seconds;
      } else if (times_.count(name) == 0) {
        times_[name] = seconds;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintRatios() const {
    std::printf("\nRatios (wall time per round trip; from medians when repeated)\n");
    const double invoke = time("BM_InvokeCommand_8KiBPartialShm/");
    for (const char* bare : {"BM_BareRoundTrip/seqpacket:0", "BM_BareRoundTrip/seqpacket:1"}) {
      const double b = time(bare);
      if (invoke > 0 && b > 0) {
        std::printf("  TEEC_InvokeCommand, 8 KiB partial memref: %.2fx the bare %s round trip"
                    " (%.2f us vs %.2f us)\n",
                    invoke / b, std::strstr(bare, ":0") ? "SOCK_STREAM" : "SOCK_SEQPACKET",
                    invoke * 1e6, b * 1e6);
      }
    }
    std::printf("  Goal: within 1.3x the bare round trip.\n");
  }

 private:
  double time(const std::string& name) const {
    const auto it = times_.find(name);
    return it == times_.end() ? 0 : it->second;
  }
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  teesim::testing::PrivateDaemon daemon;
  if (!daemon.Start({"--log-level", "warn"})) {
    std::fprintf(stderr, "the teesim daemon did not start: %s\n", daemon.Error().c_str());
    return 1;
  }
  daemon.UseFromThisProcess();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
