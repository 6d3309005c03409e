// 5xxx, check mnemonic: valid phrases of every length say 1; a wrong
// checksum, an unknown word, a wrong word count, an empty and an over-long
// phrase do not. These cases touch no wallet. The phrases that must fail
// were each confirmed invalid with an independent BIP-39 implementation
// (python3-mnemonic), and the valid ones valid.
#include <algorithm>
#include <string>
#include <vector>

#include "PocInterface.h"
#include "TestData.h"
#include "TestDataTables.h"
#include "cases/CaseInfo.h"
#include "cases/Describe.h"
#include "cases/KeystoreCalls.h"

namespace check {
namespace {

std::string Repeat(const std::string& word, unsigned n) {
  std::string text;
  for (unsigned i = 0; i < n; ++i) text += (i == 0 ? "" : " ") + word;
  return text;
}

// Short form of a phrase for a check's name: its first words.
std::string Label(const std::string& text) {
  constexpr std::size_t kShown = 40;
  const std::string shown = Printable(text.data(), std::min(text.size(), kShown));
  return "\"" + shown + (text.size() > kShown ? "...\"" : "\"") + " (" + std::to_string(text.size()) +
         " bytes)";
}

unsigned Verdict(CaseContext& ctx, const std::string& text) {
  return keystore::CheckMnemonic(ctx, text.data(), static_cast<unsigned>(text.size()),
                                 "check " + Label(text));
}

void ExpectValid(CaseContext& ctx, const std::string& text) {
  const unsigned verdict = Verdict(ctx, text);
  ctx.Check(Label(text) + " is valid", verdict == 1, "1", std::to_string(verdict));
}

void ExpectRefused(CaseContext& ctx, const std::string& text) {
  const unsigned verdict = Verdict(ctx, text);
  ctx.Check(Label(text) + " is refused", verdict != 1, "not 1", std::to_string(verdict));
}

// The all-zero entropy of 16, 20, 24, 28 and 32 bytes: the valid phrase of
// each length, "abandon ... <last>".
std::string ZeroPhrase(unsigned words) {
  const char* last = words == 12 ? "about" : words == 15 ? "address" : words == 18 ? "agent"
                   : words == 21 ? "admit" : "art";
  return Repeat("abandon", words - 1) + " " + last;
}

void ValidPhrases(CaseContext& ctx) {
  for (unsigned d = 0; d < test::vectors::kDataSetCount; ++d) ExpectValid(ctx, test::vectors::kMnemonics[d]);
  for (unsigned words : {15u, 18u, 21u, 24u}) ExpectValid(ctx, ZeroPhrase(words));
}

void WrongChecksum(CaseContext& ctx) {
  for (const char* text : {
           // every word known, the count right, the checksum wrong
           "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon",
           "zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo",
           "legal winner thank year wave sausage worth useful legal winner thank you",
           "letter advice cage absurd amount doctor acoustic avoid letter advice cage absent",
       }) {
    ExpectRefused(ctx, text);
  }
  ExpectRefused(ctx, Repeat("abandon", 24));
}

void UnknownWord(CaseContext& ctx) {
  ExpectRefused(ctx, Repeat("abandon", 11) + " tessera");
  ExpectRefused(ctx, "abandon abandon abandon abandon abandon abandonn abandon abandon abandon "
                     "abandon abandon about");
  ExpectRefused(ctx, "Abandon abandon abandon abandon abandon abandon abandon abandon abandon "
                     "abandon abandon about");
}

void WrongWordCount(CaseContext& ctx) {
  const std::string twelve = test::vectors::kMnemonics[0];
  ExpectRefused(ctx, twelve + " about");                     // 13 words
  ExpectRefused(ctx, twelve.substr(0, twelve.rfind(' ')));  // 11 words
  ExpectRefused(ctx, "abandon");
}

void EmptyPhrase(CaseContext& ctx) {
  // The API refuses an empty phrase itself (-1) before any TA call; the
  // verdict must stay untouched.
  unsigned verdict = 7;
  static const char kNothing[] = "";
  const CallRecord call = ctx.Call("poc_check_mnemonic", [&] {
    return poc_check_mnemonic(kNothing, 0, &verdict);
  });
  ctx.Check("an empty phrase is refused by the API", call.rc == -1 && verdict == 7,
            "-1 and no verdict",
            std::to_string(call.rc) + (verdict == 7 ? "" : " and verdict " + std::to_string(verdict)));
  ExpectRefused(ctx, " ");
}

void OverLongPhrase(CaseContext& ctx) {
  ExpectRefused(ctx, ZeroPhrase(24) + " abandon");  // 25 words
  ExpectRefused(ctx, ZeroPhrase(24) + " " + ZeroPhrase(12));  // 36 words
  ExpectRefused(ctx, Repeat("abandon", 500));  // 3999 bytes
}

}  // namespace

void AddMnemonicCases(std::vector<CaseInfo>& cases) {
  cases.push_back({5001, "check mnemonic: valid phrases of 12 to 24 words say 1", false, false,
                   ValidPhrases});
  cases.push_back({5002, "check mnemonic: a wrong checksum is refused", false, false, WrongChecksum});
  cases.push_back({5003, "check mnemonic: an unknown word is refused", false, false, UnknownWord});
  cases.push_back({5004, "check mnemonic: a wrong word count is refused", false, false, WrongWordCount});
  cases.push_back({5005, "check mnemonic: an empty phrase is refused", false, false, EmptyPhrase});
  cases.push_back({5006, "check mnemonic: an over-long phrase is refused", false, false,
                   OverLongPhrase});
}

}  // namespace check
