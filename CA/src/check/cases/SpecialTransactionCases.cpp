// 2xxx, special transactions: the console's special transaction test as
// checks. The special seed signs the eleven edge-case digests at account 0;
// every signature must recover to that account's address (which the
// client computes from the keystore's private key, since no vector lists
// it), and the wallet must afterwards be what the special test leaves: the
// special seed, keys unchanged by signing, and no PIN.
#include <string>

#include "PocInterface.h"
#include "TestData.h"
#include "TestDataTables.h"
#include "cases/CaseChecks.h"
#include "cases/CaseInfo.h"
#include "cases/Describe.h"
#include "cases/KeystoreCalls.h"
#include "tee_client_api.h"

namespace check {
namespace {

constexpr unsigned kAccount = 0;

// The special seed's account-0 address, from the keystore, checked against
// the address of the keystore's own private key.
Address SpecialAddress(CaseContext& ctx) {
  const test::TestData data;
  keystore::Restore(ctx, data.special_seed(), data.special_seedSize(), "restore the special seed");
  const SecretBytes key = keystore::PrivateKey(ctx, kAccount);
  const Address address = keystore::GetAddress(ctx, kAccount);
  if (!CheckKeyGivesAddress(ctx, "the special seed's address is that of its private key", key,
                            address)) {
    ctx.Stop();  // every signer below would be compared with a wrong address
  }
  return address;
}

void ElevenSignatures(CaseContext& ctx) {
  const test::TestData data;
  const Address address = SpecialAddress(ctx);
  for (unsigned i = 0; i < test::vectors::kSpecialTransactionCount; ++i) {
    const std::string label = "special transaction " + std::to_string(i);
    const unsigned char* digest = data.get_special_transaction(i);
    const Signature signature = keystore::Sign(ctx, kAccount, digest, "sign " + label);
    CheckSignatureForm(ctx, label, signature);
    DeferSigner(ctx, label + " recovers to the special seed's account 0", digest, signature, address);
  }
}

void WalletAfterwards(CaseContext& ctx) {
  test::TestData data;
  data.setPinIndex(0);
  // What the special test replaces: data set 0 with a PIN.
  keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0");
  keystore::SavePin(ctx, data.pin(), data.pinSize(), "save test PIN 0");

  // (That the special seed's address is that of its key is 2001's check.)
  keystore::Restore(ctx, data.special_seed(), data.special_seedSize(), "restore the special seed");
  const Address before = keystore::GetAddress(ctx, kAccount);
  const SecretBytes key_before = keystore::PrivateKey(ctx, kAccount);
  for (unsigned i = 0; i < test::vectors::kSpecialTransactionCount; ++i) {
    (void)keystore::Sign(ctx, kAccount, data.get_special_transaction(i),
                         "sign special transaction " + std::to_string(i));
  }

  const Address after = keystore::GetAddress(ctx, kAccount);
  ctx.Check("account 0's address is unchanged by signing", after == before, AddressText(before),
            AddressText(after));
  const SecretBytes key_after = keystore::PrivateKey(ctx, kAccount);
  ctx.Check("account 0's private key is unchanged by signing",
            SecretEqual(key_before.data(), key_before.size(), key_after.data(), key_after.size()),
            "", "", "the key read after signing differs from the one read before");

  const SecretBytes phrase = keystore::Mnemonic(ctx, "read the phrase");
  const unsigned verdict = keystore::CheckMnemonic(
      ctx, reinterpret_cast<const char*>(phrase.data()), static_cast<unsigned>(phrase.size()),
      "check the phrase");
  ctx.Check("the special seed's phrase is accepted by check mnemonic", verdict == 1, "1",
            std::to_string(verdict));
  ctx.Check("the phrase is no longer data set 0's",
            !SecretEqual(reinterpret_cast<const unsigned char*>(data.ex_mnemonic()),
                         data.ex_mnemonicSize(), phrase.data(), phrase.size()),
            "", "", "the wallet still holds data set 0");

  unsigned pin_verdict = KEYSTORE_PIN_MATCH;
  const CallRecord pin = ctx.Call("poc_check_pin", [&] {
    return poc_check_pin(ctx.cred(), keystore::kSelectorHi, keystore::kSelectorLo,
                         reinterpret_cast<const unsigned char*>(data.pin()), data.pinSize(),
                         &pin_verdict);
  });
  ctx.Check("the PIN is gone with data set 0 (check PIN fails with TEEC_ERROR_ITEM_NOT_FOUND)",
            pin.rc == -99 && pin.tee_result == TEEC_ERROR_ITEM_NOT_FOUND,
            "TEEC_ERROR_ITEM_NOT_FOUND",
            pin.rc == 0 ? "a verdict of " + std::to_string(pin_verdict) : DescribeCall(pin));
}

}  // namespace

void AddSpecialTransactionCases(std::vector<CaseInfo>& cases) {
  CaseInfo eleven;
  eleven.id = 2001;
  eleven.name = "special transactions: the eleven signatures recover to the special seed's account 0";
  eleven.destructive = true;
  eleven.run = ElevenSignatures;
  cases.push_back(std::move(eleven));

  CaseInfo after;
  after.id = 2002;
  after.name = "special transactions: the wallet afterwards holds the special seed and no PIN";
  after.destructive = true;
  after.run = WalletAfterwards;
  cases.push_back(std::move(after));
}

}  // namespace check
