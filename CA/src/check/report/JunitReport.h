/*
 * The JUnit XML report that CI servers (Jenkins, GitLab) read: one
 * <testsuite> per area, one <testcase> per case; a failed case carries a
 * <failure> whose message is the case's reason and whose text lists every
 * failed check with both values; a skipped case a <skipped> with its
 * reason. Times are seconds.
 */
#ifndef TESSERA_CHECK_JUNITREPORT_H
#define TESSERA_CHECK_JUNITREPORT_H

#include <string>
#include <vector>

#include "cases/Results.h"

namespace check {

/* Returns the whole document. In: outcomes, in case order (cases of one
 * area are next to each other); wall_us, the run's duration. */
[[nodiscard]] std::string JunitXml(const std::vector<CaseOutcome>& outcomes, uint64_t wall_us);

/* Returns text fit for XML character data or an attribute value: & < > "
 * and ' as entities, tab and newline as character references, and any
 * other byte that XML 1.0 does not allow (control characters, bytes of
 * invalid UTF-8 are not expected: reports hold printable ASCII) as '?'. */
[[nodiscard]] std::string XmlEscape(const std::string& text);

}  // namespace check

#endif  // TESSERA_CHECK_JUNITREPORT_H
