// 8xxx, own seed: the seed an operator gives with --seed (bytes as
// poc_restore_seed takes them), checked without any compiled-in vector:
// its phrase is valid for the keystore's own check, and for accounts 0 to 4
// the private key, the address and the signer recovered from a signature
// agree. Nothing of the operator's seed — phrase or key — is ever shown;
// a failure shows addresses only.
#include <string>

#include "TestData.h"
#include "TestDataTables.h"
#include "cases/CaseChecks.h"
#include "cases/CaseInfo.h"
#include "cases/KeystoreCalls.h"

namespace check {
namespace {

void RestoreOwnSeed(CaseContext& ctx) {
  const SecretBytes* seed = ctx.ownSeed();
  if (seed == nullptr) {
    ctx.Check("the operator's seed is given", false, "", "", "run with --seed HEX");
    ctx.Stop();
  }
  keystore::Restore(ctx, seed->data(), static_cast<unsigned>(seed->size()),
                    "restore the seed given with --seed");
}

void PhraseIsValid(CaseContext& ctx) {
  RestoreOwnSeed(ctx);
  const SecretBytes phrase = keystore::Mnemonic(ctx, "read the phrase");
  const unsigned verdict = keystore::CheckMnemonic(
      ctx, reinterpret_cast<const char*>(phrase.data()), static_cast<unsigned>(phrase.size()),
      "check the phrase");
  ctx.Check("the phrase is accepted by check mnemonic", verdict == 1, "1", std::to_string(verdict));
}

void AccountAgrees(CaseContext& ctx, unsigned account) {
  RestoreOwnSeed(ctx);
  CheckAccountAgrees(ctx, account);
}

}  // namespace

void AddOwnSeedCases(std::vector<CaseInfo>& cases) {
  cases.push_back({8001, "own seed: the phrase is accepted by check mnemonic", true, true,
                   PhraseIsValid});
  for (unsigned a = 0; a < test::vectors::kAccountCount; ++a) {
    cases.push_back({8002 + static_cast<int>(a),
                     "own seed, account " + std::to_string(a) +
                         ": private key, address and a recovered signer agree",
                     true, true, [a](CaseContext& ctx) { AccountAgrees(ctx, a); }});
  }
}

}  // namespace check
