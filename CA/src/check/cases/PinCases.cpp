// 6xxx, PIN: a saved PIN is accepted and a wrong one is not; and, in a case
// of its own because a device's keystore may follow another policy, the
// reference keystore's lockout: after KEYSTORE_MAX_PIN_FAILURES consecutive
// mismatches every check answers KEYSTORE_PIN_LOCKED, the right PIN too,
// until a PIN is saved again; a match before that resets the count.
#include <string>

#include "TestData.h"
#include "cases/CaseInfo.h"
#include "cases/KeystoreCalls.h"
#include "keystore_ta.h"

namespace check {
namespace {

std::string VerdictText(unsigned verdict) {
  switch (verdict) {
    case KEYSTORE_PIN_MISMATCH: return "0 (mismatch)";
    case KEYSTORE_PIN_MATCH: return "1 (match)";
    case KEYSTORE_PIN_LOCKED: return "2 (locked)";
    default: return std::to_string(verdict);
  }
}

// Data set 0 with test PIN 0 saved; `data` gives the PINs.
test::TestData Prepare(CaseContext& ctx) {
  test::TestData data;
  keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0");
  data.setPinIndex(0);
  keystore::SavePin(ctx, data.pin(), data.pinSize(), "save test PIN 0");
  return data;
}

void ExpectVerdict(CaseContext& ctx, const test::TestData& data, unsigned pin_index,
                   unsigned wanted, const std::string& what) {
  test::TestData pin = data;
  pin.setPinIndex(pin_index);
  const unsigned verdict = keystore::CheckPin(ctx, pin.pin(), pin.pinSize(), "check " + what);
  ctx.Check(what + " says " + VerdictText(wanted), verdict == wanted, VerdictText(wanted),
            VerdictText(verdict));
}

void RightPin(CaseContext& ctx) {
  const test::TestData data = Prepare(ctx);
  ExpectVerdict(ctx, data, 0, KEYSTORE_PIN_MATCH, "the saved PIN");
}

void WrongPin(CaseContext& ctx) {
  const test::TestData data = Prepare(ctx);
  for (unsigned wrong = 1; wrong < 4; ++wrong) {
    ExpectVerdict(ctx, data, wrong, KEYSTORE_PIN_MISMATCH, "test PIN " + std::to_string(wrong));
  }
  ExpectVerdict(ctx, data, 0, KEYSTORE_PIN_MATCH, "the saved PIN afterwards");
}

void Lockout(CaseContext& ctx) {
  const unsigned limit = KEYSTORE_MAX_PIN_FAILURES;
  test::TestData data = Prepare(ctx);
  for (unsigned i = 1; i < limit; ++i) {
    ExpectVerdict(ctx, data, 1, KEYSTORE_PIN_MISMATCH, "mismatch " + std::to_string(i));
  }
  ExpectVerdict(ctx, data, 0, KEYSTORE_PIN_MATCH,
                "the saved PIN after " + std::to_string(limit - 1) + " mismatches");
  for (unsigned i = 1; i <= limit; ++i) {
    ExpectVerdict(ctx, data, 1, KEYSTORE_PIN_MISMATCH, "mismatch " + std::to_string(i) + " of " +
                                                           std::to_string(limit));
  }
  ExpectVerdict(ctx, data, 0, KEYSTORE_PIN_LOCKED,
                "the saved PIN after " + std::to_string(limit) + " mismatches");
  ExpectVerdict(ctx, data, 2, KEYSTORE_PIN_LOCKED, "a wrong PIN while locked");
  data.setPinIndex(0);
  keystore::SavePin(ctx, data.pin(), data.pinSize(), "save test PIN 0 again");
  ExpectVerdict(ctx, data, 0, KEYSTORE_PIN_MATCH, "the saved PIN after saving it again");
}

}  // namespace

void AddPinCases(std::vector<CaseInfo>& cases) {
  cases.push_back({6001, "PIN: the saved PIN is accepted", true, false, RightPin});
  cases.push_back({6002, "PIN: a wrong PIN is refused", true, false, WrongPin});
  cases.push_back({6003,
                   "PIN: locked after " + std::to_string(KEYSTORE_MAX_PIN_FAILURES) +
                       " mismatches until saved again (the reference keystore's policy)",
                   true, false, Lockout});
}

}  // namespace check
