// The JSON report of a run, written straight into one string: a run makes
// thousands of records, and building a document tree first costs more
// than the checks themselves.
#include "report/JsonReport.h"

#include <cstdio>

#include "report/Statistics.h"

namespace check {
namespace {

// Appends JSON values to a string; the caller writes the punctuation
// between members.
class Json {
 public:
  explicit Json(std::string* out) : out_(*out) {}

  Json& Raw(const char* text) {
    out_ += text;
    return *this;
  }
  // "key": — with a comma before it unless it opens its object.
  Json& Key(const char* key, bool first = false) {
    if (!first) out_ += ',';
    out_ += '"';
    out_ += key;
    out_ += "\":";
    return *this;
  }
  Json& String(const std::string& text) {
    static const char kDigits[] = "0123456789abcdef";
    out_ += '"';
    for (char ch : text) {
      const auto c = static_cast<unsigned char>(ch);
      if (c == '"' || c == '\\') {
        out_ += '\\';
        out_ += ch;
      } else if (c < 0x20 || c >= 0x7f) {  // reports hold printable ASCII; anything else stays valid
        out_ += "\\u00";
        out_ += kDigits[c >> 4];
        out_ += kDigits[c & 15];
      } else {
        out_ += ch;
      }
    }
    out_ += '"';
    return *this;
  }
  Json& Number(uint64_t value) {
    out_ += std::to_string(value);
    return *this;
  }
  Json& Signed(int64_t value) {
    out_ += std::to_string(value);
    return *this;
  }
  Json& Bool(bool value) {
    out_ += value ? "true" : "false";
    return *this;
  }

 private:
  std::string& out_;
};

std::string Code(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
  return text;
}

void CaseRecord(Json& j, const CaseOutcome& o) {
  j.Raw("{").Key("record", true).String("case");
  j.Key("id").Signed(o.id).Key("name").String(o.name).Key("area").String(o.area);
  j.Key("verdict").String(VerdictName(o.verdict)).Key("reason").String(o.reason);
  j.Key("runs").Raw("[");
  for (std::size_t i = 0; i < o.runs.size(); ++i) {
    const CaseRun& run = o.runs[i];
    j.Raw(i == 0 ? "{" : ",{").Key("run", true).Number(run.run);
    j.Key("verdict").String(VerdictName(run.verdict)).Key("reason").String(run.reason);
    j.Key("duration_us").Number(run.duration_us).Raw("}");
  }
  j.Raw("]}");
}

void CheckRecordOf(Json& j, const CheckRecord& c, int id, unsigned run) {
  j.Raw("{").Key("record", true).String("check").Key("case").Signed(id).Key("run").Number(run);
  j.Key("name").String(c.name).Key("passed").Bool(c.passed).Key("at_us").Number(c.at_us);
  if (!c.passed) {
    j.Key("expected").String(c.expected).Key("actual").String(c.actual);
    j.Key("detail").String(c.detail);
  }
  j.Raw("}");
}

void CallRecordOf(Json& j, const CallRecord& call, int id, unsigned run) {
  j.Raw("{").Key("record", true).String("call").Key("case").Signed(id).Key("run").Number(run);
  j.Key("function").String(call.function).Key("duration_us").Number(call.duration_us);
  j.Key("rc").Signed(call.rc).Key("tee_result").String(Code(call.tee_result));
  j.Key("tee_origin").Number(call.tee_origin).Raw("}");
}

}  // namespace

std::string JsonReport(const RunReport& report, const std::string& wallet_line,
                       const std::string& version) {
  std::string text;
  text.reserve(256 * 1024);
  Json j(&text);
  const Tally tally = Count(report.outcomes);
  j.Raw("{").Key("tool", true).String("tessera-check").Key("version").String(version);
  j.Key("wallet").String(wallet_line);
  j.Key("summary").Raw("{").Key("passed", true).Number(tally.passed);
  j.Key("failed").Number(tally.failed).Key("skipped").Number(tally.skipped).Raw("}");
  j.Key("wall_us").Number(report.wallUs);
  j.Key("keystore_us").Number(TotalCallMicroseconds(report.outcomes, report.leaveCalls));

  // One record a line.
  j.Key("records").Raw("[");
  const char* separator = "\n";
  for (const CaseOutcome& o : report.outcomes) {
    j.Raw(separator);
    separator = ",\n";
    CaseRecord(j, o);
    for (const CaseRun& run : o.runs) {
      for (const CheckRecord& c : run.checks) CheckRecordOf(j.Raw(separator), c, o.id, run.run);
      for (const CallRecord& call : run.calls) CallRecordOf(j.Raw(separator), call, o.id, run.run);
    }
  }
  for (const CallRecord& call : report.leaveCalls) CallRecordOf(j.Raw(separator), call, 0, 0);
  j.Raw("\n]");

  j.Key("calls").Raw("[");
  separator = "\n";
  for (const FunctionSummary& f : SummarizeCalls(report.outcomes, report.leaveCalls)) {
    j.Raw(separator).Raw("{").Key("function", true).String(f.function);
    separator = ",\n";
    j.Key("count").Number(f.summary.count).Key("min_us").Number(f.summary.min);
    j.Key("median_us").Number(f.summary.median).Key("p90_us").Number(f.summary.p90);
    j.Key("max_us").Number(f.summary.max).Raw("}");
  }
  j.Raw("\n]}\n");
  return text;
}

}  // namespace check
