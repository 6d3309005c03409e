// The keystore end to end: the latency of each of the ten poc_* calls
// through libteec, a private teesim daemon and the keystore TA, beside the
// references it is judged against, all measured in the same run:
//  - floor:   one command round trip on the same 8 KiB shared memory with a
//             command number the TA refuses at once (client -> TA -> client);
//  - sign:    a bare libsecp256k1 recoverable signature;
//  - PBKDF2:  OpenSSL's PBKDF2-HMAC-SHA512, 2048 rounds, of a 12-word phrase;
//  - each command's own work, run in this process with the TA's own code
//    (phrase encoding and checking, address of a cached key, PIN MAC);
//  - storage: what teesim itself charges for one object write and one
//             object delete, measured with teesim's own test TA (a store or
//             delete command, less the same command refused before it
//             touches storage: the same round trip and parameters), and for
//             comparison the bare file-system work of a durable replacement
//             (temporary file, fsync, rename, fsync of the folder).
// Every figure is the median of per-call samples. The goals (printed with the
// ratios at the end): a signature within 1.3x (floor + sign), a restore within
// 1.2x (floor + PBKDF2), every other call within 1.3x (floor + its own work).
//
// The storage folder is made under $KEYSTORE_BENCH_STORAGE, /dev/shm by
// default: a tmpfs keeps the disk's fsync latency (milliseconds on a virtual
// disk) out of the keystore's own figures; point the variable at a disk
// folder to see that latency instead. The write reference follows the folder.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <secp256k1.h>
#include <secp256k1_recovery.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Bip39.h"
#include "CTzfrWsm.h"
#include "DeploymentCredential.h"
#include "Keys.h"
#include "PocInterface.h"
#include "TEEClient.h"
#include "teesim/testing/private_daemon.h"
#include "Wallet.h"
#include "securestorage.h"
#include "tee_client_api.h"
#include "teesim_test_ta.h"

namespace {

using Clock = std::chrono::steady_clock;

// ---- Samples and medians ---------------------------------------------------------

std::map<std::string, std::vector<double>>& Samples() {
  static std::map<std::string, std::vector<double>> samples;
  return samples;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v.size() % 2 != 0 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

// Times `call` once per iteration; the figure kept is the median.
template <typename Call>
void Sample(benchmark::State& state, const std::string& name, Call&& call) {
  std::vector<double>& samples = Samples()[name];
  for (auto _ : state) {
    const auto start = Clock::now();
    const bool ok = call();
    const auto end = Clock::now();
    if (!ok) {
      state.SkipWithError((name + " failed").c_str());
      return;
    }
    const double us = std::chrono::duration<double, std::micro>(end - start).count();
    samples.push_back(us);
    state.SetIterationTime(us / 1e6);
  }
  state.counters["median_us"] = Median(samples);
}

// ---- The system under test ----------------------------------------------------------

std::string StorageParent() {
  const char* parent = getenv("KEYSTORE_BENCH_STORAGE");
  return parent != nullptr && parent[0] != '\0' ? parent : "/dev/shm";
}

// Made before the first keystore call, so it is stopped after the
// connection singleton has closed its session at exit.
teesim::testing::PrivateDaemon& Daemon() {
  static teesim::testing::PrivateDaemon daemon([] {
    teesim::testing::PrivateDaemon::Options options;
    options.parent = StorageParent();
    return options;
  }());
  static const bool started = [] {
    if (!daemon.Start()) {
      std::fprintf(stderr, "%s\n", daemon.Error().c_str());
      std::exit(1);
    }
    daemon.UseFromThisProcess();
    return true;
  }();
  (void)started;
  return daemon;
}

const credential& Cred() {
  static credential c = [] {
    credential made;
    const uint32_t* w = tessera::kCredentialWords;
    if (ss_init_credential(&made, w[0], w[1], w[2], w[3], w[4], 1, 0) != 0) std::abort();
    return made;
  }();
  return c;
}

constexpr unsigned char kHi = 1, kLo = 84;
const unsigned char kSeedA[16] = {};
const unsigned char kSeedB[16] = {0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f,
                                  0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f, 0x7f};
const unsigned char kPin[6] = {'1', '2', '3', '4', '5', '6'};
const unsigned char kDigest[32] = {0xde, 0xad, 0xbe, 0xef, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12,
                                   13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28};
const char kPhrase[] =
    "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about";
const hd_path_param kPath = {static_cast<int32_t>(0x8000002Cu), static_cast<int32_t>(0x8000003Cu),
                             static_cast<int32_t>(0x80000000u), 0, 0};

// A wallet with seed A and a PIN, its keys warm in the TA.
void Prepare() {
  Daemon();
  static bool done = false;
  if (done) return;
  unsigned char* out = nullptr;
  unsigned n = 0;
  if (poc_restore_seed(Cred(), kHi, kLo, kSeedA, 16) != 0 || poc_save_pin(Cred(), kHi, kLo, kPin, 6) != 0 ||
      poc_getAddress(Cred(), kHi, kLo, kPath, &out, &n) != 0) {
    std::fprintf(stderr, "cannot prepare the wallet; see %s\n", Daemon().LogPath().c_str());
    std::exit(1);
  }
  std::free(out);
  done = true;
}

// ---- References ----------------------------------------------------------------------

void BM_Floor(benchmark::State& state) {
  Prepare();
  client::TEEClient& tee = client::TEEClient::getInstance();
  Sample(state, "floor", [&] {
    // The TA refuses an unknown command before reading anything.
    return !tee.InvokeCommand(0xFFFFu);
  });
}

void BM_BareSign(benchmark::State& state) {
  secp256k1_context* ctx = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  unsigned char key[32] = {};
  key[31] = 7;
  Sample(state, "bare sign", [&] {
    secp256k1_ecdsa_recoverable_signature sig;
    unsigned char out[64];
    int recid = 0;
    return secp256k1_ecdsa_sign_recoverable(ctx, &sig, kDigest, key, nullptr, nullptr) == 1 &&
           secp256k1_ecdsa_recoverable_signature_serialize_compact(ctx, out, &recid, &sig) == 1;
  });
  secp256k1_context_destroy(ctx);
}

void BM_Pbkdf2(benchmark::State& state) {
  unsigned char seed[64];
  Sample(state, "PBKDF2", [&] {
    return PKCS5_PBKDF2_HMAC(kPhrase, static_cast<int>(sizeof kPhrase - 1),
                             reinterpret_cast<const unsigned char*>("mnemonic"), 8, 2048, EVP_sha512(),
                             64, seed) == 1;
  });
}

// The file-system work of one object change in the storage folder.
void BM_DurableWrite(benchmark::State& state) {
  const std::string dir = Daemon().Folder() + "/bench-writes";
  mkdir(dir.c_str(), 0700);
  const int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  const unsigned char bytes[160] = {};
  Sample(state, "write", [&] {
    const std::string tmp = dir + "/object.tmp";
    const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const bool ok = fd >= 0 && write(fd, bytes, sizeof bytes) == static_cast<ssize_t>(sizeof bytes) &&
                    fsync(fd) == 0;
    if (fd >= 0) close(fd);
    return ok && rename(tmp.c_str(), (dir + "/object").c_str()) == 0 && fsync(dfd) == 0;
  });
  close(dfd);
}

// teesim's own storage cost, through its test TA in a session of its own.
struct TestTa {
  TEEC_Context ctx{};
  TEEC_Session session{};
  bool ok = false;
  TestTa() {
    const TEEC_UUID uuid = TEST_TA_UUID;
    uint32_t origin = 0;
    ok = TEEC_InitializeContext(nullptr, &ctx) == TEEC_SUCCESS &&
         TEEC_OpenSession(&ctx, &session, &uuid, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin) ==
             TEEC_SUCCESS;
  }
  // A store or delete command. With `refused`, the object id is one byte
  // longer than any id may be: the TA refuses it before touching storage,
  // so the call costs exactly the same round trip without the storage work.
  TEEC_Result Store(uint32_t cmd, bool with_data, bool refused = false) {
    static char id[TEE_OBJECT_ID_MAX_LEN + 1] = "keystore-bench-object";
    static unsigned char data[keystore::kRecordSize] = {1};
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, with_data ? TEEC_MEMREF_TEMP_INPUT : TEEC_NONE,
                                     TEEC_NONE, TEEC_NONE);
    op.params[0].tmpref.buffer = id;
    op.params[0].tmpref.size = refused ? sizeof id : std::strlen(id);
    op.params[1].tmpref.buffer = data;
    op.params[1].tmpref.size = sizeof data;
    return TEEC_InvokeCommand(&session, cmd, &op, nullptr);
  }
};

TestTa& TestTaSession() {
  Daemon();
  static TestTa ta;
  return ta;
}

void BM_TestTaFloor(benchmark::State& state) {
  TestTa& ta = TestTaSession();
  if (!ta.ok) state.SkipWithError("no session with teesim's test TA");
  Sample(state, "test TA write floor",
         [&] { return ta.Store(TEST_CMD_STORE_PUT, true, true) == TEEC_ERROR_BAD_PARAMETERS; });
}

void BM_TestTaDeleteFloor(benchmark::State& state) {
  TestTa& ta = TestTaSession();
  if (!ta.ok) state.SkipWithError("no session with teesim's test TA");
  Sample(state, "test TA delete floor",
         [&] { return ta.Store(TEST_CMD_STORE_DELETE, false, true) == TEEC_ERROR_BAD_PARAMETERS; });
}

void BM_TeesimWrite(benchmark::State& state) {
  TestTa& ta = TestTaSession();
  if (!ta.ok) state.SkipWithError("no session with teesim's test TA");
  Sample(state, "test TA write", [&] { return ta.Store(TEST_CMD_STORE_PUT, true) == TEEC_SUCCESS; });
}

void BM_TeesimDelete(benchmark::State& state) {
  TestTa& ta = TestTaSession();
  if (!ta.ok) state.SkipWithError("no session with teesim's test TA");
  std::vector<double>& samples = Samples()["test TA delete"];
  for (auto _ : state) {
    if (ta.Store(TEST_CMD_STORE_PUT, true) != TEEC_SUCCESS) {
      state.SkipWithError("store failed");
      break;
    }
    const auto start = Clock::now();
    const bool ok = ta.Store(TEST_CMD_STORE_DELETE, false) == TEEC_SUCCESS;
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    if (!ok) {
      state.SkipWithError("delete failed");
      break;
    }
    samples.push_back(us);
    state.SetIterationTime(us / 1e6);
  }
  state.counters["median_us"] = Median(samples);
}

// The TA's own work per command, in this process with the TA's code.
void BM_OwnPhrase(benchmark::State& state) {
  char phrase[keystore::bip39::kMaxPhraseLength];
  Sample(state, "own mnemonic", [&] { return keystore::bip39::EntropyToPhrase(kSeedA, 16, phrase, sizeof phrase) != 0; });
}

void BM_OwnCheckPhrase(benchmark::State& state) {
  Sample(state, "own check_mnemonic", [&] { return keystore::bip39::IsValidPhrase(kPhrase, sizeof kPhrase - 1); });
}

void BM_OwnAddress(benchmark::State& state) {
  const unsigned char blinding[32] = {1};
  std::unique_ptr<keystore::Curve> curve(keystore::Curve::Create(blinding));
  unsigned char key[32] = {};
  key[31] = 7;
  secp256k1_pubkey pub;
  if (!curve->PublicKey(key, &pub)) state.SkipWithError("no key");
  unsigned char address[20];
  Sample(state, "own address", [&] { return curve->Address(pub, address); });
}

void BM_OwnPinMac(benchmark::State& state) {
  keystore::WalletRecord record;
  record.entropy_len = 16;
  const unsigned char salt[16] = {3};
  unsigned char mac[32];
  Sample(state, "own PIN MAC", [&] { return keystore::PinMac(record, kPin, 6, salt, mac); });
}

// ---- The ten calls, end to end ----------------------------------------------------------

void BM_Restore(benchmark::State& state) {
  Prepare();
  bool a = false;
  // Alternate two seeds: each call really replaces the seed (and its keys).
  Sample(state, "poc_restore_seed", [&] {
    a = !a;
    return poc_restore_seed(Cred(), kHi, kLo, a ? kSeedB : kSeedA, 16) == 0;
  });
  if (poc_restore_seed(Cred(), kHi, kLo, kSeedA, 16) != 0 || poc_save_pin(Cred(), kHi, kLo, kPin, 6) != 0) {
    state.SkipWithError("cannot restore the wallet");
  }
}

void BM_Generate(benchmark::State& state) {
  Prepare();
  Sample(state, "poc_generate_seed", [&] { return poc_generate_seed(Cred(), 2, kLo) == 0; });
}

void BM_Delete(benchmark::State& state) {
  Prepare();
  std::vector<double>& samples = Samples()["poc_delete_seed"];
  for (auto _ : state) {
    if (poc_restore_seed(Cred(), 3, kLo, kSeedA, 16) != 0) {
      state.SkipWithError("restore failed");
      break;
    }
    const auto start = Clock::now();
    const bool ok = poc_delete_seed(Cred(), 3, kLo) == 0;
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    if (!ok) {
      state.SkipWithError("delete failed");
      break;
    }
    samples.push_back(us);
    state.SetIterationTime(us / 1e6);
  }
  state.counters["median_us"] = Median(samples);
}

void BM_SavePin(benchmark::State& state) {
  Prepare();
  Sample(state, "poc_save_pin", [&] { return poc_save_pin(Cred(), kHi, kLo, kPin, 6) == 0; });
}

void BM_CheckPin(benchmark::State& state) {
  Prepare();
  Sample(state, "poc_check_pin", [&] {
    unsigned verdict = 0;
    return poc_check_pin(Cred(), kHi, kLo, kPin, 6, &verdict) == 0 && verdict == 1;
  });
}

void BM_GetMnemonic(benchmark::State& state) {
  Prepare();
  Sample(state, "poc_getMnemonic", [&] {
    char* phrase = nullptr;
    unsigned len = 0;
    const bool ok = poc_getMnemonic(Cred(), kHi, kLo, &phrase, &len) == 0;
    std::free(phrase);
    return ok;
  });
}

void BM_CheckMnemonic(benchmark::State& state) {
  Prepare();
  Sample(state, "poc_check_mnemonic", [&] {
    unsigned verdict = 0;
    return poc_check_mnemonic(kPhrase, sizeof kPhrase - 1, &verdict) == 0 && verdict == 1;
  });
}

template <int (*Fn)(const credential&, unsigned char, unsigned char, const hd_path_param&,
                    unsigned char**, unsigned int*)>
void PathCall(benchmark::State& state, const char* name) {
  Prepare();
  Sample(state, name, [&] {
    unsigned char* out = nullptr;
    unsigned n = 0;
    const bool ok = Fn(Cred(), kHi, kLo, kPath, &out, &n) == 0;
    std::free(out);
    return ok;
  });
}

void BM_GetAddress(benchmark::State& state) { PathCall<poc_getAddress>(state, "poc_getAddress"); }
void BM_GetPrivateKey(benchmark::State& state) { PathCall<poc_getPrivateKey>(state, "poc_getPrivateKey"); }

void BM_Sign(benchmark::State& state) {
  Prepare();
  Sample(state, "poc_signTransaction", [&] {
    unsigned char* out = nullptr;
    unsigned n = 0;
    const bool ok = poc_signTransaction(Cred(), kHi, kLo, kPath, kDigest, 32, &out, &n) == 0;
    std::free(out);
    return ok;
  });
}

// Iteration counts keep a full run near half a minute on a busy 2-CPU box.
#define KEYSTORE_BENCH(fn, n) BENCHMARK(fn)->Iterations(n)->UseManualTime()->Unit(benchmark::kMicrosecond)
KEYSTORE_BENCH(BM_Floor, 2000);
KEYSTORE_BENCH(BM_BareSign, 2000);
KEYSTORE_BENCH(BM_Pbkdf2, 200);
KEYSTORE_BENCH(BM_DurableWrite, 200);
KEYSTORE_BENCH(BM_TestTaFloor, 2000);
KEYSTORE_BENCH(BM_TestTaDeleteFloor, 2000);
KEYSTORE_BENCH(BM_TeesimWrite, 200);
KEYSTORE_BENCH(BM_TeesimDelete, 200);
KEYSTORE_BENCH(BM_OwnPhrase, 2000);
KEYSTORE_BENCH(BM_OwnCheckPhrase, 2000);
KEYSTORE_BENCH(BM_OwnAddress, 2000);
KEYSTORE_BENCH(BM_OwnPinMac, 2000);
KEYSTORE_BENCH(BM_Restore, 200);
KEYSTORE_BENCH(BM_Generate, 200);
KEYSTORE_BENCH(BM_Delete, 200);
KEYSTORE_BENCH(BM_SavePin, 200);
KEYSTORE_BENCH(BM_CheckPin, 200);
KEYSTORE_BENCH(BM_GetMnemonic, 2000);
KEYSTORE_BENCH(BM_CheckMnemonic, 2000);
KEYSTORE_BENCH(BM_GetAddress, 2000);
KEYSTORE_BENCH(BM_GetPrivateKey, 2000);
KEYSTORE_BENCH(BM_Sign, 2000);

// ---- The table ------------------------------------------------------------------------

void PrintTable() {
  auto m = [](const char* name) {
    auto it = Samples().find(name);
    return it == Samples().end() ? 0.0 : Median(it->second);
  };
  const double floor = m("floor");
  // teesim's own cost of one object write / delete beyond its round trip.
  const double write = std::max(0.0, m("test TA write") - m("test TA write floor"));
  const double del = std::max(0.0, m("test TA delete") - m("test TA delete floor"));
  struct Row {
    const char* call;
    const char* reference;
    double own;      // the command's own work besides the round trip
    double goal;
    double storage;  // teesim's storage work the command must cause
  };
  const Row rows[] = {
      {"poc_signTransaction", "floor + bare sign", m("bare sign"), 1.3, 0},
      {"poc_restore_seed", "floor + PBKDF2", m("PBKDF2"), 1.2, write},
      {"poc_generate_seed", "floor + PBKDF2", m("PBKDF2"), 1.3, write},
      {"poc_getMnemonic", "floor + phrase encoding", m("own mnemonic"), 1.3, 0},
      {"poc_check_mnemonic", "floor + phrase check", m("own check_mnemonic"), 1.3, 0},
      {"poc_getAddress", "floor + address of a cached key", m("own address"), 1.3, 0},
      {"poc_getPrivateKey", "floor (key cached)", 0, 1.3, 0},
      {"poc_save_pin", "floor + PIN MAC", m("own PIN MAC"), 1.3, write},
      {"poc_check_pin", "floor + PIN MAC", m("own PIN MAC"), 1.3, 2 * write},
      {"poc_delete_seed", "floor", 0, 1.3, del},
  };
  std::printf("\nMedians in microseconds. Round-trip floor %.1f, bare sign %.1f, PBKDF2 %.1f;\n"
              "teesim object write %.1f and delete %.1f (bare durable file replacement %.1f),\n"
              "storage under %s\n",
              floor, m("bare sign"), m("PBKDF2"), write, del, m("write"), Daemon().Folder().c_str());
  std::printf("%-20s %9s  %-32s %9s %6s %5s  %9s %6s\n", "call", "median", "reference", "ref", "ratio",
              "goal", "ref+store", "ratio");
  for (const Row& r : rows) {
    const double e2e = m(r.call);
    const double ref = floor + r.own;
    const double with_storage = ref + r.storage;
    std::printf("%-20s %9.1f  %-32s %9.1f %6.2f %5.1f", r.call, e2e, r.reference, ref, e2e / ref, r.goal);
    if (r.storage > 0) {
      std::printf("  %9.1f %6.2f", with_storage, e2e / with_storage);
    }
    std::printf("%s\n", e2e / with_storage <= r.goal ? "" : "  !");
  }
  std::printf("ratio = median / reference. ref+store adds what teesim charges for the object\n"
              "writes a command must make (one per stored change, two for a PIN check: the count\n"
              "of the attempt before the comparison, its reset after a match); '!' marks a\n"
              "ratio above its goal even so.\n");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  PrintTable();
  return 0;
}
