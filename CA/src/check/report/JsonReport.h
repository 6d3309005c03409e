/*
 * The JSON report: the run's summary and timings, then one record per
 * case, per check and per keystore call, then the call statistics.
 *
 *   { "tool": "tessera-check", "version": ..., "wallet": <first line>,
 *     "summary": {"passed", "failed", "skipped"},
 *     "wall_us": <the run>, "keystore_us": <sum of every keystore call's duration>,
 *     "records": [
 *       {"record": "case", "id", "name", "area", "verdict", "reason",
 *        "runs": [{"run", "verdict", "reason", "duration_us"}]},
 *       {"record": "check", "case", "run", "name", "passed", "at_us"
 *        [, "expected", "actual", "detail" when failed]},
 *       {"record": "call", "case", "run", "function", "duration_us", "rc",
 *        "tee_result", "tee_origin"}, ...,
 *       the calls that left the wallet after the cases: "case" and "run" 0],
 *     "calls": [{"function", "count", "min_us", "median_us", "p90_us", "max_us"}] }
 * Records of a case follow its case record. TEE results are "0x" and 8 hex
 * digits.
 */
#ifndef TESSERA_CHECK_JSONREPORT_H
#define TESSERA_CHECK_JSONREPORT_H

#include <string>

#include "run/Runner.h"

namespace check {

/* Returns the whole document. */
[[nodiscard]] std::string JsonReport(const RunReport& report, const std::string& wallet_line,
                                     const std::string& version);

}  // namespace check

#endif  // TESSERA_CHECK_JSONREPORT_H
