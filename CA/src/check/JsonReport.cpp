// The JSON report of a run, written with jsoncpp.
#include "JsonReport.h"

#include <json/json.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "Statistics.h"

namespace check {
namespace {

std::string Code(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
  return text;
}

Json::Value CaseRecord(const CaseOutcome& o) {
  Json::Value record;
  record["record"] = "case";
  record["id"] = o.id;
  record["name"] = o.name;
  record["area"] = o.area;
  record["verdict"] = VerdictName(o.verdict);
  record["reason"] = o.reason;
  record["runs"] = Json::Value(Json::arrayValue);
  for (const CaseRun& run : o.runs) {
    Json::Value r;
    r["run"] = run.run;
    r["verdict"] = VerdictName(run.verdict);
    r["reason"] = run.reason;
    r["duration_us"] = Json::UInt64(run.duration_us);
    record["runs"].append(r);
  }
  return record;
}

Json::Value CallRecordOf(const CallRecord& call, int id, unsigned run) {
  Json::Value r;
  r["record"] = "call";
  r["case"] = id;
  r["run"] = run;
  r["function"] = call.function;
  r["duration_us"] = Json::UInt64(call.duration_us);
  r["rc"] = call.rc;
  r["tee_result"] = Code(call.tee_result);
  r["tee_origin"] = call.tee_origin;
  return r;
}

}  // namespace

std::string JsonReport(const RunReport& report, const std::string& wallet_line,
                       const std::string& version) {
  Json::Value root;
  root["tool"] = "tessera-check";
  root["version"] = version;
  root["wallet"] = wallet_line;
  const Tally tally = Count(report.outcomes);
  root["summary"]["passed"] = tally.passed;
  root["summary"]["failed"] = tally.failed;
  root["summary"]["skipped"] = tally.skipped;
  root["wall_us"] = Json::UInt64(report.wallUs);
  root["keystore_us"] = Json::UInt64(TotalCallMicroseconds(report.outcomes, report.leaveCalls));

  Json::Value& records = root["records"] = Json::Value(Json::arrayValue);
  for (const CaseOutcome& o : report.outcomes) {
    records.append(CaseRecord(o));
    for (const CaseRun& run : o.runs) {
      for (const CheckRecord& c : run.checks) {
        Json::Value r;
        r["record"] = "check";
        r["case"] = o.id;
        r["run"] = run.run;
        r["name"] = c.name;
        r["passed"] = c.passed;
        r["at_us"] = Json::UInt64(c.at_us);
        if (!c.passed) {
          r["expected"] = c.expected;
          r["actual"] = c.actual;
          r["detail"] = c.detail;
        }
        records.append(r);
      }
      for (const CallRecord& call : run.calls) records.append(CallRecordOf(call, o.id, run.run));
    }
  }
  for (const CallRecord& call : report.leaveCalls) records.append(CallRecordOf(call, 0, 0));

  Json::Value& calls = root["calls"] = Json::Value(Json::arrayValue);
  for (const FunctionSummary& f : SummarizeCalls(report.outcomes, report.leaveCalls)) {
    Json::Value c;
    c["function"] = f.function;
    c["count"] = Json::UInt64(f.summary.count);
    c["min_us"] = Json::UInt64(f.summary.min);
    c["median_us"] = Json::UInt64(f.summary.median);
    c["p90_us"] = Json::UInt64(f.summary.p90);
    c["max_us"] = Json::UInt64(f.summary.max);
    calls.append(c);
  }

  Json::StreamWriterBuilder builder;
  builder["indentation"] = " ";
  return Json::writeString(builder, root) + "\n";
}

}  // namespace check
