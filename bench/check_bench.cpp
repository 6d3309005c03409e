// tessera-check's own cost: the whole default run (every case that runs
// with --allow-wipe) of the real binary against a private teesim daemon and
// the reference keystore TA, timed from start to exit, against the sum of
// the keystore calls' own durations that the same run measured and wrote
// into its JSON report. What is left is the checker's overhead: starting,
// its worker process, its own arithmetic (signer recovery, the address of
// each private key), its reports. Goal: at most 20 % of the run.
//
// The daemon's storage is made under $CHECK_BENCH_STORAGE, by default under
// $TMPDIR or /tmp: a disk, like the storage of a teesim that libteec starts
// (/var/lib/teesim, ~/.local/share/teesim), so every write waits for it as
// in a default run. CHECK_BENCH_STORAGE=/dev/shm puts it on a tmpfs, where
// the keystore calls are as fast as they get: the hard case for the goal.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/json.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "teesim/testing/private_daemon.h"

extern char** environ;

namespace {

struct Sample {
  double wall_us = 0;      // the process, start to exit, as the caller sees it
  double run_us = 0;       // the run inside it (its report's wall_us)
  double keystore_us = 0;  // the keystore calls' own durations, summed
  double cpu_us = 0;       // user + system time of the checker's processes
};
std::vector<Sample> g_samples;

teesim::testing::PrivateDaemon& Daemon() {
  static teesim::testing::PrivateDaemon daemon([] {
    teesim::testing::PrivateDaemon::Options options;
    const char* storage = std::getenv("CHECK_BENCH_STORAGE");
    if (storage != nullptr) options.parent = storage;
    return options;
  }());
  static const bool started = [] {
    if (!daemon.Start()) {
      std::fprintf(stderr, "%s\n", daemon.Error().c_str());
      std::exit(1);
    }
    return true;
  }();
  (void)started;
  return daemon;
}

double Micros(const timeval& t) { return t.tv_sec * 1e6 + t.tv_usec; }

// One whole run; false when it could not be made or did not pass.
bool RunOnce(Sample* sample) {
  const std::string report = Daemon().Folder() + "/report.json";
  std::vector<std::string> args = {TESSERA_CHECK_PATH, "--allow-wipe", "--json", report};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  std::vector<std::string> env_text = {"TEESIM_SOCKET=" + Daemon().Socket(), "TEESIM_DAEMON="};
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (entry.rfind("TEESIM_", 0) != 0) env_text.push_back(entry);
  }
  std::vector<char*> env;
  for (std::string& e : env_text) env.push_back(&e[0]);
  env.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  rusage before{};
  getrusage(RUSAGE_CHILDREN, &before);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return false;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return false;
  const auto end = std::chrono::steady_clock::now();
  rusage after{};
  getrusage(RUSAGE_CHILDREN, &after);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "tessera-check exited with %d\n", status);
    return false;
  }

  Json::Value root;
  std::ifstream in(report);
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) return false;
  sample->wall_us = std::chrono::duration<double, std::micro>(end - start).count();
  sample->run_us = root["wall_us"].asDouble();
  sample->keystore_us = root["keystore_us"].asDouble();
  sample->cpu_us = Micros(after.ru_utime) + Micros(after.ru_stime) - Micros(before.ru_utime) -
                   Micros(before.ru_stime);
  return true;
}

void BM_DefaultRun(benchmark::State& state) {
  Daemon();
  Sample warm;
  if (!RunOnce(&warm)) {  // the TA instance, the caches: not part of a run
    state.SkipWithError("the default run failed");
    return;
  }
  for (auto _ : state) {
    Sample s;
    if (!RunOnce(&s)) {
      state.SkipWithError("the default run failed");
      return;
    }
    state.SetIterationTime(s.wall_us / 1e6);
    g_samples.push_back(s);
    state.counters["keystore_ms"] = s.keystore_us / 1e3;
    state.counters["overhead_%"] = 100.0 * (s.wall_us - s.keystore_us) / s.wall_us;
    state.counters["checker_cpu_ms"] = s.cpu_us / 1e3;
  }
}
BENCHMARK(BM_DefaultRun)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 == 1 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

void PrintSummary() {
  if (g_samples.empty()) return;
  std::vector<double> wall, run, keystore, cpu, share;
  for (const Sample& s : g_samples) {
    wall.push_back(s.wall_us / 1e3);
    run.push_back(s.run_us / 1e3);
    keystore.push_back(s.keystore_us / 1e3);
    cpu.push_back(s.cpu_us / 1e3);
    share.push_back(100.0 * (s.wall_us - s.keystore_us) / s.wall_us);
  }
  std::printf("\nThe default run (tessera-check --allow-wipe), %zu runs, medians; storage under %s:\n",
              g_samples.size(), Daemon().Folder().c_str());
  std::printf("  wall time, start to exit        %8.1f ms\n", Median(wall));
  std::printf("  of which the run itself         %8.1f ms\n", Median(run));
  std::printf("  keystore calls, summed          %8.1f ms\n", Median(keystore));
  std::printf("  the checker's own overhead      %8.1f ms = %.1f %% of the run (goal <= 20 %%)%s\n",
              Median(wall) - Median(keystore), Median(share), Median(share) <= 20.0 ? "" : "  !");
  std::printf("  ratio wall / keystore calls     %8.2f\n", Median(wall) / Median(keystore));
  std::printf("  CPU time of the checker's processes %.1f ms\n", Median(cpu));
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  PrintSummary();
  benchmark::Shutdown();
  return 0;
}
