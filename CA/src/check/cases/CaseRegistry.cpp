// The list of cases, their areas, and selection by pattern.
#include "cases/CaseRegistry.h"

#include <fnmatch.h>

#include <algorithm>

namespace check {

const char* AreaName(int id) {
  switch (id / 1000) {
    case 1: return "seed and keys";
    case 2: return "special transactions";
    case 3: return "generate";
    case 4: return "delete";
    case 5: return "check mnemonic";
    case 6: return "PIN";
    case 7: return "arguments";
    case 8: return "own seed";
    default: return "other";
  }
}

const std::vector<CaseInfo>& AllCases() {
  static const std::vector<CaseInfo> cases = [] {
    std::vector<CaseInfo> all;
    AddSeedKeyCases(all);
    AddSpecialTransactionCases(all);
    AddGenerateCases(all);
    AddDeleteCases(all);
    AddMnemonicCases(all);
    AddPinCases(all);
    AddArgumentCases(all);
    AddOwnSeedCases(all);
    std::stable_sort(all.begin(), all.end(),
                     [](const CaseInfo& a, const CaseInfo& b) { return a.id < b.id; });
    return all;
  }();
  return cases;
}

bool Matches(const std::string& pattern, const CaseInfo& info) {
  const std::string number = std::to_string(info.id);
  const std::string listed = number + " " + info.name;
  return fnmatch(pattern.c_str(), number.c_str(), 0) == 0 ||
         fnmatch(pattern.c_str(), info.name.c_str(), FNM_CASEFOLD) == 0 ||
         fnmatch(pattern.c_str(), listed.c_str(), FNM_CASEFOLD) == 0;
}

std::vector<const CaseInfo*> Select(const std::vector<CaseInfo>& all,
                                    const std::vector<std::string>& include,
                                    const std::vector<std::string>& exclude) {
  std::vector<const CaseInfo*> chosen;
  for (const CaseInfo& info : all) {
    const auto hit = [&info](const std::string& p) { return Matches(p, info); };
    const bool in = include.empty() || std::any_of(include.begin(), include.end(), hit);
    if (in && std::none_of(exclude.begin(), exclude.end(), hit)) chosen.push_back(&info);
  }
  return chosen;
}

}  // namespace check
