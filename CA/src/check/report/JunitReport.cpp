// JUnit XML of a run.
#include "report/JunitReport.h"

#include <cstdio>

#include "cases/CaseContext.h"

namespace check {
namespace {

std::string Seconds(uint64_t us) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6f", static_cast<double>(us) / 1e6);
  return text;
}

uint64_t CaseMicroseconds(const CaseOutcome& o) {
  uint64_t us = 0;
  for (const CaseRun& run : o.runs) us += run.duration_us;
  return us;
}

std::string ClassName(const std::string& area) {
  std::string name = "tessera-check.";
  for (char c : area) name += c == ' ' ? '_' : c;
  return name;
}

// Every failed check of every failed run, with both values.
std::string FailureBody(const CaseOutcome& o, bool repeated) {
  std::string text;
  for (const CaseRun& run : o.runs) {
    if (run.verdict != Verdict::kFailed) continue;
    if (repeated) text += "run " + std::to_string(run.run) + ":\n";
    bool any = false;
    for (const CheckRecord& c : run.checks) {
      if (c.passed) continue;
      any = true;
      text += FailureText(c) + "\n";
      if (!c.expected.empty() || !c.actual.empty()) {
        text += "  expected: " + c.expected + "\n  actual:   " + c.actual + "\n";
      }
    }
    if (!any) text += run.reason + "\n";
  }
  return text;
}

}  // namespace

std::string XmlEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      case '\t': out += "&#9;"; break;
      case '\n': out += "&#10;"; break;
      default: out += (c < 0x20 || c == 0x7f || c >= 0x80) ? '?' : ch;
    }
  }
  return out;
}

std::string JunitXml(const std::vector<CaseOutcome>& outcomes, uint64_t wall_us) {
  const Tally all = Count(outcomes);
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  xml += "<testsuites name=\"tessera-check\" tests=\"" + std::to_string(outcomes.size()) +
         "\" failures=\"" + std::to_string(all.failed) + "\" errors=\"0\" skipped=\"" +
         std::to_string(all.skipped) + "\" time=\"" + Seconds(wall_us) + "\">\n";
  std::size_t i = 0;
  while (i < outcomes.size()) {
    std::size_t end = i;
    while (end < outcomes.size() && outcomes[end].area == outcomes[i].area) ++end;
    const std::vector<CaseOutcome> suite(outcomes.begin() + static_cast<long>(i),
                                         outcomes.begin() + static_cast<long>(end));
    const Tally t = Count(suite);
    uint64_t suite_us = 0;
    for (const CaseOutcome& o : suite) suite_us += CaseMicroseconds(o);
    xml += "  <testsuite name=\"" + XmlEscape(outcomes[i].area) + "\" tests=\"" +
           std::to_string(suite.size()) + "\" failures=\"" + std::to_string(t.failed) +
           "\" errors=\"0\" skipped=\"" + std::to_string(t.skipped) + "\" time=\"" +
           Seconds(suite_us) + "\">\n";
    for (const CaseOutcome& o : suite) {
      xml += "    <testcase classname=\"" + XmlEscape(ClassName(o.area)) + "\" name=\"" +
             XmlEscape(std::to_string(o.id) + " " + o.name) + "\" time=\"" +
             Seconds(CaseMicroseconds(o)) + "\"";
      if (o.verdict == Verdict::kPassed) {
        xml += "/>\n";
        continue;
      }
      xml += ">\n";
      if (o.verdict == Verdict::kSkipped) {
        xml += "      <skipped message=\"" + XmlEscape(o.reason) + "\"/>\n";
      } else {
        xml += "      <failure message=\"" + XmlEscape(o.reason) + "\" type=\"check\">" +
               XmlEscape(FailureBody(o, o.runs.size() > 1)) + "</failure>\n";
      }
      xml += "    </testcase>\n";
    }
    xml += "  </testsuite>\n";
    i = end;
  }
  xml += "</testsuites>\n";
  return xml;
}

}  // namespace check
