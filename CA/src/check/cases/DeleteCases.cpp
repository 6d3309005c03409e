// 4xxx, delete: after a delete every command that needs the wallet's seed
// fails with the result the keystore's interface documents for a wallet
// without seed (TEE_ERROR_ITEM_NOT_FOUND, from the trusted application),
// and a restore brings the wallet back whole.
#include <cstdlib>
#include <functional>
#include <string>

#include "PocInterface.h"
#include "TestData.h"
#include "cases/CaseChecks.h"
#include "cases/CaseInfo.h"
#include "cases/Describe.h"
#include "cases/KeystoreCalls.h"
#include "secure_wipe.h"
#include "tee_client_api.h"

namespace check {
namespace {

using keystore::kSelectorHi;
using keystore::kSelectorLo;

// A call that must find no seed: it fails (-99) with ITEM_NOT_FOUND from
// the TA. Output buffers a wrongly successful call hands over are wiped
// and freed.
void ExpectNoSeed(CaseContext& ctx, const char* function, const std::function<int32_t()>& call) {
  const CallRecord record = ctx.Call(function, call);
  const bool ok = record.rc == -99 && record.tee_result == TEEC_ERROR_ITEM_NOT_FOUND &&
                  record.tee_origin == TEEC_ORIGIN_TRUSTED_APP;
  ctx.Check(std::string(function) + " after the delete fails for want of a seed", ok,
            DescribeTeeResult(TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TRUSTED_APP),
            record.rc == 0 ? "success" : DescribeCall(record));
}

template <typename T>
void Discard(T* buffer, unsigned length) {
  tessera_secure_wipe(buffer, length);
  std::free(buffer);
}

void ReadsFail(CaseContext& ctx) {
  test::TestData data;
  keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0");
  keystore::SavePin(ctx, data.pin(), data.pinSize(), "save test PIN 0");
  keystore::Delete(ctx, "delete the seed");

  const credential& cred = ctx.cred();
  const hd_path_param path = keystore::PathOf(0);
  const auto* pin = reinterpret_cast<const unsigned char*>(data.pin());
  ExpectNoSeed(ctx, "poc_getMnemonic", [&] {
    char* out = nullptr;
    unsigned len = 0;
    const int32_t rc = poc_getMnemonic(cred, kSelectorHi, kSelectorLo, &out, &len);
    if (rc == 0) Discard(out, len);
    return rc;
  });
  ExpectNoSeed(ctx, "poc_getPrivateKey", [&] {
    unsigned char* out = nullptr;
    unsigned len = 0;
    const int32_t rc = poc_getPrivateKey(cred, kSelectorHi, kSelectorLo, path, &out, &len);
    if (rc == 0) Discard(out, len);
    return rc;
  });
  ExpectNoSeed(ctx, "poc_getAddress", [&] {
    unsigned char* out = nullptr;
    unsigned len = 0;
    const int32_t rc = poc_getAddress(cred, kSelectorHi, kSelectorLo, path, &out, &len);
    if (rc == 0) Discard(out, len);
    return rc;
  });
  ExpectNoSeed(ctx, "poc_signTransaction", [&] {
    unsigned char* out = nullptr;
    unsigned len = 0;
    const int32_t rc = poc_signTransaction(cred, kSelectorHi, kSelectorLo, path,
                                           test::api_test_digest(), KEYSTORE_DIGEST_SIZE, &out, &len);
    if (rc == 0) Discard(out, len);
    return rc;
  });
  ExpectNoSeed(ctx, "poc_check_pin", [&] {
    unsigned verdict = 0;
    return poc_check_pin(cred, kSelectorHi, kSelectorLo, pin, data.pinSize(), &verdict);
  });
  ExpectNoSeed(ctx, "poc_save_pin", [&] {
    return poc_save_pin(cred, kSelectorHi, kSelectorLo, pin, data.pinSize());
  });
  ExpectNoSeed(ctx, "poc_delete_seed", [&] { return poc_delete_seed(cred, kSelectorHi, kSelectorLo); });
}

void RestoreBringsItBack(CaseContext& ctx) {
  const test::TestData data;
  keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0");
  keystore::Delete(ctx, "delete the seed");
  keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0 again");
  const SecretBytes phrase = keystore::Mnemonic(ctx, "read the phrase");
  ctx.Check("the phrase is data set 0's again",
            SecretEqual(reinterpret_cast<const unsigned char*>(data.ex_mnemonic()),
                        data.ex_mnemonicSize(), phrase.data(), phrase.size()),
            Printable(data.ex_mnemonic(), data.ex_mnemonicSize()),
            Printable(reinterpret_cast<const char*>(phrase.data()), phrase.size()));
  const SecretBytes key = keystore::PrivateKey(ctx, 0);
  CheckBytes(ctx, "private key at " + keystore::PathText(0), data.ex_pkey(), key.data(),
             KEYSTORE_PRIVATE_KEY_SIZE);
  const Address address = keystore::GetAddress(ctx, 0);
  CheckBytes(ctx, "address at " + keystore::PathText(0), data.ex_address(), address.data(),
             address.size());
}

}  // namespace

void AddDeleteCases(std::vector<CaseInfo>& cases) {
  cases.push_back({4001,
                   "delete: every command that needs the seed then fails with "
                   "TEEC_ERROR_ITEM_NOT_FOUND",
                   true, false, ReadsFail});
  cases.push_back({4002, "delete: a restore brings the wallet back", true, false, RestoreBringsItBack});
}

}  // namespace check
