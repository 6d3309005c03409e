// 3xxx, generate: a seed the keystore makes itself has no vector to compare
// with, so its answers are checked against each other: its phrase is valid
// for the keystore's own check, differs from the phrase before it, and its
// private key, address and a recovered signer agree.
#include <string>

#include "TestData.h"
#include "cases/CaseChecks.h"
#include "cases/CaseInfo.h"
#include "cases/KeystoreCalls.h"

namespace check {
namespace {

bool SamePhrase(const SecretBytes& a, const SecretBytes& b) {
  return SecretEqual(a.data(), a.size(), b.data(), b.size());
}

void PhraseIsValid(CaseContext& ctx) {
  keystore::Generate(ctx, "generate a seed");
  const SecretBytes phrase = keystore::Mnemonic(ctx, "read the new phrase");
  const unsigned verdict = keystore::CheckMnemonic(
      ctx, reinterpret_cast<const char*>(phrase.data()), static_cast<unsigned>(phrase.size()),
      "check the new phrase");
  ctx.Check("the new phrase is accepted by check mnemonic", verdict == 1, "1", std::to_string(verdict));
}

void PhraseIsNew(CaseContext& ctx) {
  const test::TestData data;
  keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0");
  const SecretBytes restored = keystore::Mnemonic(ctx, "read data set 0's phrase");
  keystore::Generate(ctx, "generate a seed");
  const SecretBytes first = keystore::Mnemonic(ctx, "read the first new phrase");
  keystore::Generate(ctx, "generate another seed");
  const SecretBytes second = keystore::Mnemonic(ctx, "read the second new phrase");
  ctx.Check("the first new phrase differs from the restored one", !SamePhrase(first, restored), "",
            "", "generate left data set 0's phrase");
  ctx.Check("the second new phrase differs from the first", !SamePhrase(second, first), "", "",
            "two generated seeds have the same phrase");
}

void KeysAgree(CaseContext& ctx) {
  keystore::Generate(ctx, "generate a seed");
  CheckAccountAgrees(ctx, 0);
}

}  // namespace

void AddGenerateCases(std::vector<CaseInfo>& cases) {
  cases.push_back({3001, "generate: the new phrase is accepted by check mnemonic", true, false,
                   PhraseIsValid});
  cases.push_back({3002, "generate: each new phrase differs from the one before", true, false,
                   PhraseIsNew});
  cases.push_back({3003, "generate: private key, address and a recovered signer agree", true, false,
                   KeysAgree});
}

}  // namespace check
