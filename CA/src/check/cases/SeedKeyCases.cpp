// 1xxx, seed and keys: for every data set and account of the compiled-in
// vectors, what the keystore returns after a restore — phrase, private key,
// address, signature — against the vectors and against each other; and,
// in cases of their own, the exact signature (which a keystore with random
// nonces does not give, so those can be excluded with -x '11??').
#include <cstring>
#include <string>

#include "TestData.h"
#include "TestDataTables.h"
#include "cases/CaseChecks.h"
#include "cases/CaseInfo.h"
#include "cases/Describe.h"
#include "cases/KeystoreCalls.h"

namespace check {
namespace {

std::string RowName(unsigned d, unsigned a) {
  return "data set " + std::to_string(d) + ", account " + std::to_string(a);
}

test::TestData Row(unsigned d, unsigned a) {
  test::TestData data;
  data.setDataIndex(d);
  data.setAccountIndex(a);
  return data;
}

void RestoreDataSet(CaseContext& ctx, const test::TestData& data) {
  keystore::Restore(ctx, data.seed(), data.seedSize(),
                    "restore data set " + std::to_string(data.getDataIndex()));
}

void PhraseKeyAddressSignature(CaseContext& ctx, unsigned d, unsigned a) {
  const test::TestData data = Row(d, a);
  const std::string path = keystore::PathText(a);
  RestoreDataSet(ctx, data);

  const SecretBytes phrase = keystore::Mnemonic(ctx, "read the phrase");
  const std::string phrase_check = "phrase is data set " + std::to_string(d) + "'s";
  if (SecretEqual(reinterpret_cast<const unsigned char*>(data.ex_mnemonic()), data.ex_mnemonicSize(),
                  phrase.data(), phrase.size())) {
    ctx.Check(phrase_check, true);
  } else {
    ctx.Check(phrase_check, false, Printable(data.ex_mnemonic(), data.ex_mnemonicSize()),
              Printable(reinterpret_cast<const char*>(phrase.data()), phrase.size()));
  }

  const SecretBytes key = keystore::PrivateKey(ctx, a);
  CheckBytes(ctx, "private key at " + path, data.ex_pkey(), key.data(), KEYSTORE_PRIVATE_KEY_SIZE);

  const Address address = keystore::GetAddress(ctx, a);
  CheckBytes(ctx, "address at " + path, data.ex_address(), address.data(), address.size());
  const unsigned char* digest = test::api_test_digest();
  const Signature signature = keystore::Sign(ctx, a, digest, "sign the test digest at " + path);
  CheckSignatureForm(ctx, "signature at " + path, signature);

  Address expected;
  std::memcpy(expected.data(), data.ex_address(), expected.size());
  DeferKeyGivesAddress(ctx, "address at " + path + " is that of its private key",
                       SecretBytes(key.data(), key.size()), address);
  DeferSigner(ctx, "signature at " + path + " recovers to the expected address", digest, signature,
              expected);
}

void ExactSignature(CaseContext& ctx, unsigned d, unsigned a) {
  const test::TestData data = Row(d, a);
  const std::string path = keystore::PathText(a);
  RestoreDataSet(ctx, data);
  const Signature signature =
      keystore::Sign(ctx, a, test::api_test_digest(), "sign the test digest at " + path);
  CheckBytes(ctx, "r of the signature at " + path, data.ex_sig_r(), signature.data(),
             KEYSTORE_SIGNATURE_R_SIZE);
  CheckBytes(ctx, "s of the signature at " + path, data.ex_sig_s(),
             signature.data() + KEYSTORE_SIGNATURE_R_SIZE, KEYSTORE_SIGNATURE_S_SIZE);
  const unsigned v = signature[KEYSTORE_SIGNATURE_V_OFFSET];
  ctx.Check("v of the signature at " + path, v == data.ex_sig_v(), std::to_string(data.ex_sig_v()),
            std::to_string(v));
}

}  // namespace

void AddSeedKeyCases(std::vector<CaseInfo>& cases) {
  using test::vectors::kAccountCount;
  using test::vectors::kDataSetCount;
  for (unsigned d = 0; d < kDataSetCount; ++d) {
    for (unsigned a = 0; a < kAccountCount; ++a) {
      const int row = static_cast<int>(kAccountCount * d + a);
      CaseInfo keys;
      keys.id = 1001 + row;
      keys.name = RowName(d, a) + ": phrase, private key, address and signature";
      keys.destructive = true;
      keys.run = [d, a](CaseContext& ctx) { PhraseKeyAddressSignature(ctx, d, a); };
      cases.push_back(std::move(keys));

      CaseInfo exact;
      exact.id = 1101 + row;
      exact.name = RowName(d, a) + ": the signature is the expected r, s and v";
      exact.destructive = true;
      exact.run = [d, a](CaseContext& ctx) { ExactSignature(ctx, d, a); };
      cases.push_back(std::move(exact));
    }
  }
}

}  // namespace check
