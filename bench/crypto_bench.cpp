// Keccak-256 and signer address recovery, each beside a reference on the
// same inputs, with the ratios printed at the end:
//  - Keccak-256 against OpenSSL's SHA3-256 (the same permutation and rate;
//    EVP, digest fetched once) on 64 B (the public key every address
//    hashes), 1 KiB and 64 KiB;
//  - RestoreAddress against libsecp256k1 (recover + uncompressed
//    serialisation + Keccak-256), with the group kept (what RestoreAddress
//    does) and with a group built per call; plus the two costs that the
//    recovery avoids, building the group and the n*R order check.
// Before timing, RestoreAddress and libsecp256k1 are checked to agree on
// every benchmark input.

#include "RestoreAddress.h"
#include "RestoreAddressImpl.h"
#include "keccak.h"

#include <benchmark/benchmark.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <secp256k1.h>
#include <secp256k1_recovery.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

// --- Keccak-256 against OpenSSL SHA3-256 ------------------------------------------

const std::vector<unsigned char>& message(std::size_t size) {
  static std::map<std::size_t, std::vector<unsigned char>> messages;
  auto& m = messages[size];
  if (m.size() != size) {
    std::mt19937_64 rng(size);
    m.resize(size);
    for (auto& byte : m) {
      byte = static_cast<unsigned char>(rng());
    }
  }
  return m;
}

void BM_Keccak256(benchmark::State& state) {
  const auto& msg = message(static_cast<std::size_t>(state.range(0)));
  unsigned char out[32];
  for (auto _ : state) {
    keccak_ctx ctx;
    keccak_init(&ctx);
    // One call takes at most 65535 bytes.
    for (std::size_t at = 0; at < msg.size(); at += 32768) {
      const std::size_t piece = std::min<std::size_t>(32768, msg.size() - at);
      keccak_update(&ctx, msg.data() + at, static_cast<uint16_t>(piece));
    }
    keccak_final(&ctx, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_OpenSSL_SHA3_256(benchmark::State& state) {
  const auto& msg = message(static_cast<std::size_t>(state.range(0)));
  EVP_MD* md = EVP_MD_fetch(nullptr, "SHA3-256", nullptr);
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  if (md == nullptr || ctx == nullptr) {
    state.SkipWithError("OpenSSL has no SHA3-256");
  }
  unsigned char out[32];
  unsigned int length = 0;
  for (auto _ : state) {
    if (!EVP_DigestInit_ex2(ctx, md, nullptr) ||
        !EVP_DigestUpdate(ctx, msg.data(), msg.size()) ||
        !EVP_DigestFinal_ex(ctx, out, &length)) {
      state.SkipWithError("SHA3-256 failed");
      break;
    }
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
  EVP_MD_CTX_free(ctx);
  EVP_MD_free(md);
}

BENCHMARK(BM_Keccak256)->Arg(64)->Arg(1024)->Arg(65536);
BENCHMARK(BM_OpenSSL_SHA3_256)->Arg(64)->Arg(1024)->Arg(65536);

// --- RestoreAddress against libsecp256k1 ------------------------------------------

struct Signature {
  std::string digest;
  std::string r;
  std::string s;
  unsigned char v;
  unsigned char compact[64];
};

secp256k1_context* secp() {
  static secp256k1_context* const ctx = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  return ctx;
}

// Signatures by random keys on random digests.
const std::vector<Signature>& signatures() {
  static const std::vector<Signature> all = [] {
    std::mt19937_64 rng(0x5167);
    std::vector<Signature> out(64);
    for (Signature& sig : out) {
      unsigned char key[32];
      unsigned char digest[32];
      do {
        for (auto& b : key) b = static_cast<unsigned char>(rng());
      } while (!secp256k1_ec_seckey_verify(secp(), key));
      for (auto& b : digest) b = static_cast<unsigned char>(rng());
      secp256k1_ecdsa_recoverable_signature rs;
      int recid = 0;
      if (!secp256k1_ecdsa_sign_recoverable(secp(), &rs, digest, key, nullptr, nullptr) ||
          !secp256k1_ecdsa_recoverable_signature_serialize_compact(secp(), sig.compact, &recid,
                                                                   &rs)) {
        std::fprintf(stderr, "libsecp256k1 could not sign\n");
        std::exit(1);
      }
      sig.digest.assign(reinterpret_cast<const char*>(digest), 32);
      sig.r.assign(reinterpret_cast<const char*>(sig.compact), 32);
      sig.s.assign(reinterpret_cast<const char*>(sig.compact + 32), 32);
      sig.v = static_cast<unsigned char>(recid);
    }
    return out;
  }();
  return all;
}

// libsecp256k1's answer, shaped like RestoreAddress's: 20 raw bytes.
std::string secp_address(const Signature& sig) {
  secp256k1_ecdsa_recoverable_signature rs;
  secp256k1_pubkey pub;
  unsigned char key[65];
  std::size_t length = sizeof key;
  unsigned char hash[32] = {};
  if (secp256k1_ecdsa_recoverable_signature_parse_compact(secp(), &rs, sig.compact, sig.v) &&
      secp256k1_ecdsa_recover(secp(), &pub, &rs,
                              reinterpret_cast<const unsigned char*>(sig.digest.data())) &&
      secp256k1_ec_pubkey_serialize(secp(), key, &length, &pub, SECP256K1_EC_UNCOMPRESSED)) {
    keccak_ctx ctx;
    keccak_init(&ctx);
    keccak_update(&ctx, key + 1, 64);
    keccak_final(&ctx, hash);
  }
  return std::string(reinterpret_cast<const char*>(hash + 12), 20);
}

void BM_RestoreAddress(benchmark::State& state) {
  const auto& sigs = signatures();
  std::size_t i = 0;
  for (auto _ : state) {
    const Signature& sig = sigs[i++ % sigs.size()];
    benchmark::DoNotOptimize(test::tools::RestoreAddress(sig.digest, sig.r, sig.s, sig.v));
  }
}

void BM_RestoreAddress_GroupPerCall(benchmark::State& state) {
  const auto& sigs = signatures();
  std::size_t i = 0;
  for (auto _ : state) {
    const Signature& sig = sigs[i++ % sigs.size()];
    EC_GROUP* group = EC_GROUP_new_by_curve_name(NID_secp256k1);
    benchmark::DoNotOptimize(
        test::tools::detail::restoreAddressOn(group, sig.digest, sig.r, sig.s, sig.v));
    EC_GROUP_free(group);
  }
}

void BM_Secp256k1_Recover(benchmark::State& state) {
  const auto& sigs = signatures();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(secp_address(sigs[i++ % sigs.size()]));
  }
}

// What building the group costs, paid per call when it is not kept.
void BM_OpenSSL_BuildGroup(benchmark::State& state) {
  for (auto _ : state) {
    EC_GROUP* group = EC_GROUP_new_by_curve_name(NID_secp256k1);
    benchmark::DoNotOptimize(group);
    EC_GROUP_free(group);
  }
}

// What the order check n*R == infinity would cost, done the textbook way
// with a copy of the order (EC_GROUP_get_order): OpenSSL then runs its
// constant-time ladder for a single point multiplication. RestoreAddress
// skips the check because secp256k1's cofactor is 1.
void BM_OpenSSL_OrderCheck(benchmark::State& state) {
  const EC_GROUP* group = test::tools::detail::secp256k1Group();
  EC_POINT* point = group != nullptr ? EC_POINT_new(group) : nullptr;
  BN_CTX* ctx = BN_CTX_new();
  BIGNUM* order = BN_new();
  if (point == nullptr || ctx == nullptr || order == nullptr ||
      !EC_GROUP_get_order(group, order, ctx)) {
    state.SkipWithError("OpenSSL objects could not be made");
  }
  const EC_POINT* generator = group != nullptr ? EC_GROUP_get0_generator(group) : nullptr;
  for (auto _ : state) {
    if (!EC_POINT_mul(group, point, nullptr, generator, order, ctx) ||
        !EC_POINT_is_at_infinity(group, point)) {
      state.SkipWithError("n*G is not at infinity");
      break;
    }
  }
  BN_free(order);
  BN_CTX_free(ctx);
  EC_POINT_free(point);
}

BENCHMARK(BM_RestoreAddress)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RestoreAddress_GroupPerCall)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Secp256k1_Recover)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenSSL_BuildGroup)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OpenSSL_OrderCheck)->Unit(benchmark::kMicrosecond);

// --- ratios ---------------------------------------------------------------------------

// Prints as usual and keeps each benchmark's CPU time per iteration in
// seconds: the median when repetitions were asked for, else the one run.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) {
        continue;
      }
      const std::string name = run.run_name.function_name + "/" + run.run_name.args;
      const double seconds = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name == "median") {
          times_[name] = seconds;
        }
      } else if (times_.count(name) == 0) {
        times_[name] = seconds;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintRatios() const {
    std::printf("\nRatios (CPU time per operation; from medians when repeated)\n");
    for (const char* size : {"64", "1024", "65536"}) {
      const double ours = time("BM_Keccak256/" + std::string(size));
      const double theirs = time("BM_OpenSSL_SHA3_256/" + std::string(size));
      if (ours > 0 && theirs > 0) {
        std::printf("  Keccak-256 %6s B: time %.2fx OpenSSL SHA3-256, throughput %.2fx\n", size,
                    ours / theirs, theirs / ours);
      }
    }
    const double secp = time("BM_Secp256k1_Recover/");
    const struct {
      const char* name;
      const char* label;
    } recoveries[] = {{"BM_RestoreAddress/", "RestoreAddress, group kept"},
                      {"BM_RestoreAddress_GroupPerCall/", "RestoreAddress, group per call"}};
    for (const auto& recovery : recoveries) {
      const double ours = time(recovery.name);
      if (ours > 0 && secp > 0) {
        std::printf("  %-31s %.2fx libsecp256k1 recover+serialise+Keccak (%.1f us vs %.1f us)\n",
                    recovery.label, ours / secp, ours * 1e6, secp * 1e6);
      }
    }
    std::printf("  Goals: Keccak-256 time <= 1.00x at 64 B, throughput >= 0.80x at 64 KiB;"
                " RestoreAddress <= 8x libsecp256k1.\n");
  }

 private:
  double time(const std::string& name) const {
    const auto it = times_.find(name);
    return it == times_.end() ? 0 : it->second;
  }
  std::map<std::string, double> times_;
};

// RestoreAddress and libsecp256k1 must give the same address on every input
// that is timed, or the comparison means nothing.
bool recoveries_agree() {
  for (const Signature& sig : signatures()) {
    if (test::tools::RestoreAddress(sig.digest, sig.r, sig.s, sig.v) != secp_address(sig)) {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (!recoveries_agree()) {
    std::fprintf(stderr, "RestoreAddress and libsecp256k1 disagree on the benchmark inputs\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
