/*
 * Every case of tessera-check, and the choice of which of them a run
 * takes (-t, -x).
 */
#ifndef TESSERA_CHECK_CASEREGISTRY_H
#define TESSERA_CHECK_CASEREGISTRY_H

#include <string>
#include <vector>

#include "cases/CaseInfo.h"

namespace check {

/* Returns every case, ordered by number; numbers are unique. The list is
 * built once and lives to the end of the program. */
[[nodiscard]] const std::vector<CaseInfo>& AllCases();

/* Returns true when a glob pattern (fnmatch: *, ?, [...]) matches the case:
 * its number ("1001"), its name (letter case ignored), or both as listed
 * ("1001 data set 0, account 0: ..."). */
[[nodiscard]] bool Matches(const std::string& pattern, const CaseInfo& info);

/* Returns the cases of `all`, in their order, that match any of `include`
 * (every case when `include` is empty) and none of `exclude`. */
[[nodiscard]] std::vector<const CaseInfo*> Select(const std::vector<CaseInfo>& all,
                                                  const std::vector<std::string>& include,
                                                  const std::vector<std::string>& exclude);

}  // namespace check

#endif  // TESSERA_CHECK_CASEREGISTRY_H
