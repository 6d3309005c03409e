// 7xxx, arguments: every poc_* function that takes a pointer or a length
// refuses a null pointer or a zero length with -1 without calling the TA.
// "Without calling the TA" is proven by the connection itself: its count
// of TEEC_InvokeCommand calls and the outcome of its last TEE call stay
// exactly as they were, and no output is written. These cases touch no
// wallet. (poc_generate_seed and poc_delete_seed take no pointer.)
#include <cstdlib>
#include <functional>
#include <string>

#include "PocInterface.h"
#include "TEEClient.h"
#include "TestData.h"
#include "cases/CaseInfo.h"
#include "cases/KeystoreCalls.h"

namespace check {
namespace {

using keystore::kSelectorHi;
using keystore::kSelectorLo;

// Values the outputs hold before a call; a refusal leaves them.
constexpr unsigned kUntouched = 0xA5A5A5A5u;
unsigned char marker = 0;  // its address is the pointer value an output starts with

struct Outputs {
  unsigned char* bytes = &marker;
  char* text = reinterpret_cast<char*>(&marker);
  unsigned length = kUntouched;
  unsigned verdict = kUntouched;
  [[nodiscard]] bool untouched() const {
    return bytes == &marker && text == reinterpret_cast<char*>(&marker) && length == kUntouched &&
           verdict == kUntouched;
  }
};

void ExpectRefused(CaseContext& ctx, const char* function, const std::string& what,
                   const std::function<int32_t(Outputs&)>& call) {
  client::TEEClient& tee = client::TEEClient::getInstance();
  const unsigned long invokes = tee.invokeCount();
  const client::TEEClient::Outcome last = tee.lastOutcome();
  Outputs out;
  const CallRecord record = ctx.Call(function, [&] { return call(out); });
  const std::string label = std::string(function) + " with " + what;
  ctx.Check(label + " returns -1", record.rc == -1, "-1", std::to_string(record.rc));
  const bool no_call = tee.invokeCount() == invokes && tee.lastOutcome().result == last.result &&
                       tee.lastOutcome().origin == last.origin;
  ctx.Check(label + " calls no TA command", no_call, "", "",
            std::to_string(tee.invokeCount() - invokes) + " command(s) reached the TEE");
  ctx.Check(label + " writes no output", out.untouched(), "", "", "an output was written");
  // A function that wrongly succeeded handed over a buffer: not leaked.
  if (out.bytes != &marker) std::free(out.bytes);
  if (out.text != reinterpret_cast<char*>(&marker)) std::free(out.text);
}

const unsigned char* Digest() { return test::api_test_digest(); }

void RestoreSeed(CaseContext& ctx) {
  const test::TestData data;
  ExpectRefused(ctx, "poc_restore_seed", "a null seed", [&](Outputs&) {
    return poc_restore_seed(ctx.cred(), kSelectorHi, kSelectorLo, nullptr, data.seedSize());
  });
  ExpectRefused(ctx, "poc_restore_seed", "a seed of length 0", [&](Outputs&) {
    return poc_restore_seed(ctx.cred(), kSelectorHi, kSelectorLo, data.seed(), 0);
  });
}

void GetMnemonic(CaseContext& ctx) {
  ExpectRefused(ctx, "poc_getMnemonic", "a null phrase output", [&](Outputs& o) {
    return poc_getMnemonic(ctx.cred(), kSelectorHi, kSelectorLo, nullptr, &o.length);
  });
  ExpectRefused(ctx, "poc_getMnemonic", "a null length output", [&](Outputs& o) {
    return poc_getMnemonic(ctx.cred(), kSelectorHi, kSelectorLo, &o.text, nullptr);
  });
}

void CheckMnemonic(CaseContext& ctx) {
  const char* phrase = test::TestData().ex_mnemonic();
  const unsigned len = test::TestData().ex_mnemonicSize();
  ExpectRefused(ctx, "poc_check_mnemonic", "a null phrase",
                [&](Outputs& o) { return poc_check_mnemonic(nullptr, len, &o.verdict); });
  ExpectRefused(ctx, "poc_check_mnemonic", "a phrase of length 0",
                [&](Outputs& o) { return poc_check_mnemonic(phrase, 0, &o.verdict); });
  ExpectRefused(ctx, "poc_check_mnemonic", "a null verdict output",
                [&](Outputs&) { return poc_check_mnemonic(phrase, len, nullptr); });
}

void GetAddress(CaseContext& ctx) {
  const hd_path_param path = keystore::PathOf(0);
  ExpectRefused(ctx, "poc_getAddress", "a null address output", [&](Outputs& o) {
    return poc_getAddress(ctx.cred(), kSelectorHi, kSelectorLo, path, nullptr, &o.length);
  });
  ExpectRefused(ctx, "poc_getAddress", "a null length output", [&](Outputs& o) {
    return poc_getAddress(ctx.cred(), kSelectorHi, kSelectorLo, path, &o.bytes, nullptr);
  });
}

void SignTransaction(CaseContext& ctx) {
  const hd_path_param path = keystore::PathOf(0);
  ExpectRefused(ctx, "poc_signTransaction", "a null digest", [&](Outputs& o) {
    return poc_signTransaction(ctx.cred(), kSelectorHi, kSelectorLo, path, nullptr,
                               KEYSTORE_DIGEST_SIZE, &o.bytes, &o.length);
  });
  ExpectRefused(ctx, "poc_signTransaction", "a digest of length 0", [&](Outputs& o) {
    return poc_signTransaction(ctx.cred(), kSelectorHi, kSelectorLo, path, Digest(), 0, &o.bytes,
                               &o.length);
  });
  ExpectRefused(ctx, "poc_signTransaction", "a null signature output", [&](Outputs& o) {
    return poc_signTransaction(ctx.cred(), kSelectorHi, kSelectorLo, path, Digest(),
                               KEYSTORE_DIGEST_SIZE, nullptr, &o.length);
  });
  ExpectRefused(ctx, "poc_signTransaction", "a null length output", [&](Outputs& o) {
    return poc_signTransaction(ctx.cred(), kSelectorHi, kSelectorLo, path, Digest(),
                               KEYSTORE_DIGEST_SIZE, &o.bytes, nullptr);
  });
}

void GetPrivateKey(CaseContext& ctx) {
  const hd_path_param path = keystore::PathOf(0);
  ExpectRefused(ctx, "poc_getPrivateKey", "a null key output", [&](Outputs& o) {
    return poc_getPrivateKey(ctx.cred(), kSelectorHi, kSelectorLo, path, nullptr, &o.length);
  });
  ExpectRefused(ctx, "poc_getPrivateKey", "a null length output", [&](Outputs& o) {
    return poc_getPrivateKey(ctx.cred(), kSelectorHi, kSelectorLo, path, &o.bytes, nullptr);
  });
}

void SavePin(CaseContext& ctx) {
  const test::TestData data;
  const auto* pin = reinterpret_cast<const unsigned char*>(data.pin());
  ExpectRefused(ctx, "poc_save_pin", "a null PIN", [&](Outputs&) {
    return poc_save_pin(ctx.cred(), kSelectorHi, kSelectorLo, nullptr, data.pinSize());
  });
  ExpectRefused(ctx, "poc_save_pin", "a PIN of length 0", [&](Outputs&) {
    return poc_save_pin(ctx.cred(), kSelectorHi, kSelectorLo, pin, 0);
  });
}

void CheckPin(CaseContext& ctx) {
  const test::TestData data;
  const auto* pin = reinterpret_cast<const unsigned char*>(data.pin());
  ExpectRefused(ctx, "poc_check_pin", "a null PIN", [&](Outputs& o) {
    return poc_check_pin(ctx.cred(), kSelectorHi, kSelectorLo, nullptr, data.pinSize(), &o.verdict);
  });
  ExpectRefused(ctx, "poc_check_pin", "a PIN of length 0", [&](Outputs& o) {
    return poc_check_pin(ctx.cred(), kSelectorHi, kSelectorLo, pin, 0, &o.verdict);
  });
  ExpectRefused(ctx, "poc_check_pin", "a null verdict output", [&](Outputs&) {
    return poc_check_pin(ctx.cred(), kSelectorHi, kSelectorLo, pin, data.pinSize(), nullptr);
  });
}

}  // namespace

void AddArgumentCases(std::vector<CaseInfo>& cases) {
  const auto add = [&cases](int id, const char* function, void (*run)(CaseContext&)) {
    cases.push_back({id, std::string("arguments: ") + function +
                             " refuses empty parameters with -1 without calling the TA",
                     false, false, run});
  };
  add(7001, "poc_restore_seed", RestoreSeed);
  add(7002, "poc_getMnemonic", GetMnemonic);
  add(7003, "poc_check_mnemonic", CheckMnemonic);
  add(7004, "poc_getAddress", GetAddress);
  add(7005, "poc_signTransaction", SignTransaction);
  add(7006, "poc_getPrivateKey", GetPrivateKey);
  add(7007, "poc_save_pin", SavePin);
  add(7008, "poc_check_pin", CheckPin);
}

}  // namespace check
