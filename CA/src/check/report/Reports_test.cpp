// The text lines, the JUnit XML and the JSON report of a made-up run.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <sstream>

#include "report/JsonReport.h"
#include "report/JunitReport.h"
#include "report/TextReport.h"

namespace check {
namespace {

CaseOutcome Passed() {
  CaseOutcome o;
  o.id = 1001;
  o.name = "data set 0, account 0: keys";
  o.area = "seed and keys";
  o.verdict = Verdict::kPassed;
  CaseRun run;
  run.verdict = Verdict::kPassed;
  run.duration_us = 1500;
  run.calls = {{"poc_restore_seed", 900, 0, 0, 4}};
  CheckRecord check;
  check.name = "phrase";
  check.passed = true;
  check.at_us = 950;
  run.checks = {check};
  o.runs = {run};
  return o;
}

CaseOutcome Failed() {
  CaseOutcome o;
  o.id = 5002;
  o.name = "check mnemonic: a wrong <checksum> & \"so\"";
  o.area = "check mnemonic";
  o.verdict = Verdict::kFailed;
  o.reason = "\"zoo ...\" is refused: got 1, expected not 1";
  CaseRun run;
  run.verdict = Verdict::kFailed;
  run.reason = o.reason;
  run.duration_us = 250;
  CheckRecord check;
  check.name = "\"zoo ...\" is refused";
  check.expected = "not 1";
  check.actual = "1";
  run.checks = {check};
  run.calls = {{"poc_check_mnemonic", 30, 0, 0, 4}, {"poc_check_mnemonic", 50, -99, 0xFFFF0006u, 4}};
  o.runs = {run};
  return o;
}

CaseOutcome Skipped() {
  CaseOutcome o;
  o.id = 8001;
  o.name = "own seed: phrase";
  o.area = "own seed";
  o.verdict = Verdict::kSkipped;
  o.reason = "needs --seed HEX";
  return o;
}

TEST(TextReport, CaseLinesWithAndWithoutColour) {
  EXPECT_EQ(CaseLine(Passed(), false), "1001 data set 0, account 0: keys ... ok");
  EXPECT_EQ(CaseLine(Passed(), true), "1001 data set 0, account 0: keys ... \033[32mok\033[0m");
  EXPECT_EQ(CaseLine(Failed(), false),
            "5002 check mnemonic: a wrong <checksum> & \"so\" ... FAILED: \"zoo ...\" is refused: got "
            "1, expected not 1");
  EXPECT_EQ(CaseLine(Failed(), true),
            "5002 check mnemonic: a wrong <checksum> & \"so\" ... \033[1;31mFAILED\033[0m: \"zoo ...\" "
            "is refused: got 1, expected not 1");
  EXPECT_EQ(CaseLine(Skipped(), false), "8001 own seed: phrase ... skipped: needs --seed HEX");
}

TEST(TextReport, ClosingLineAndTable) {
  EXPECT_EQ(ClosingLine(Count({Passed(), Failed(), Skipped(), Passed()})),
            "2 passed, 1 failed, 1 skipped");
  const std::string table = CallTable({{"poc_check_mnemonic", {2, 30, 40, 50, 50}}});
  EXPECT_EQ(table,
            "keystore call              calls       min    median       p90       max  (microseconds)\n"
            "poc_check_mnemonic             2        30        40        50        50\n");
}

TEST(TextReport, FirstLineSaysWhatTheWalletIsLeftHolding) {
  const CaseInfo destructive{1001, "x", true, false, nullptr};
  const CaseInfo harmless{5001, "y", false, false, nullptr};
  RunSettings s;
  s.cases = {&harmless};
  EXPECT_EQ(WalletLine(s, "1.2.3"),
            "tessera-check 1.2.3: the wallet (selector 1/84) is left as it is: no chosen case changes it");
  s.cases = {&harmless, &destructive};
  EXPECT_EQ(WalletLine(s, "1.2.3"),
            "tessera-check 1.2.3: the wallet (selector 1/84) is left as it is: the cases that would "
            "change it are skipped (--allow-wipe runs them)");
  s.allowWipe = true;
  EXPECT_EQ(WalletLine(s, "1.2.3"),
            "tessera-check 1.2.3: runs destructive cases (--allow-wipe); the wallet (selector 1/84) "
            "is left holding data set 0's seed, without a PIN");
  const SecretBytes seed("0123456789abcdef", 16);
  s.ownSeed = &seed;
  EXPECT_NE(WalletLine(s, "1.2.3").find("left holding the seed given with --seed, without a PIN"),
            std::string::npos);
  s.cases = {&harmless};
  EXPECT_NE(WalletLine(s, "1.2.3").find("no chosen case changes it"), std::string::npos);
}

TEST(JunitReport, EscapesEverythingXmlReserves) {
  EXPECT_EQ(XmlEscape("a<b>&\"c'\td\ne\x01\x7f\xc3"), "a&lt;b&gt;&amp;&quot;c&apos;&#9;d&#10;e???");
}

TEST(JunitReport, OneSuitePerAreaOneCasePerCaseWithBothValuesOfAFailure) {
  const std::string xml = JunitXml({Passed(), Failed(), Skipped()}, 2500000);
  EXPECT_EQ(xml,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<testsuites name=\"tessera-check\" tests=\"3\" failures=\"1\" errors=\"0\" "
            "skipped=\"1\" time=\"2.500000\">\n"
            "  <testsuite name=\"seed and keys\" tests=\"1\" failures=\"0\" errors=\"0\" "
            "skipped=\"0\" time=\"0.001500\">\n"
            "    <testcase classname=\"tessera-check.seed_and_keys\" name=\"1001 data set 0, "
            "account 0: keys\" time=\"0.001500\"/>\n"
            "  </testsuite>\n"
            "  <testsuite name=\"check mnemonic\" tests=\"1\" failures=\"1\" errors=\"0\" "
            "skipped=\"0\" time=\"0.000250\">\n"
            "    <testcase classname=\"tessera-check.check_mnemonic\" name=\"5002 check mnemonic: "
            "a wrong &lt;checksum&gt; &amp; &quot;so&quot;\" time=\"0.000250\">\n"
            "      <failure message=\"&quot;zoo ...&quot; is refused: got 1, expected not 1\" "
            "type=\"check\">&quot;zoo ...&quot; is refused: got 1, expected not 1&#10;  expected: "
            "not 1&#10;  actual:   1&#10;</failure>\n"
            "    </testcase>\n"
            "  </testsuite>\n"
            "  <testsuite name=\"own seed\" tests=\"1\" failures=\"0\" errors=\"0\" skipped=\"1\" "
            "time=\"0.000000\">\n"
            "    <testcase classname=\"tessera-check.own_seed\" name=\"8001 own seed: phrase\" "
            "time=\"0.000000\">\n"
            "      <skipped message=\"needs --seed HEX\"/>\n"
            "    </testcase>\n"
            "  </testsuite>\n"
            "</testsuites>\n");
}

TEST(JsonReport, RecordsPerCaseCheckAndCallWithTimings) {
  RunReport report;
  report.outcomes = {Passed(), Failed(), Skipped()};
  report.wallUs = 4000;
  const std::string text = JsonReport(report, "first line", "9.9");
  Json::Value root;
  std::string errors;
  std::istringstream in(text);
  ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors;
  EXPECT_EQ(root["tool"].asString(), "tessera-check");
  EXPECT_EQ(root["version"].asString(), "9.9");
  EXPECT_EQ(root["wallet"].asString(), "first line");
  EXPECT_EQ(root["summary"]["passed"].asUInt(), 1u);
  EXPECT_EQ(root["summary"]["failed"].asUInt(), 1u);
  EXPECT_EQ(root["summary"]["skipped"].asUInt(), 1u);
  EXPECT_EQ(root["wall_us"].asUInt64(), 4000u);
  EXPECT_EQ(root["keystore_us"].asUInt64(), 980u);

  const Json::Value& r = root["records"];
  ASSERT_EQ(r.size(), 8u);  // case, check, call; case, check, call, call; case
  EXPECT_EQ(r[0]["record"].asString(), "case");
  EXPECT_EQ(r[0]["id"].asInt(), 1001);
  EXPECT_EQ(r[0]["verdict"].asString(), "passed");
  EXPECT_EQ(r[0]["runs"][0]["duration_us"].asUInt64(), 1500u);
  EXPECT_EQ(r[1]["record"].asString(), "check");
  EXPECT_EQ(r[1]["case"].asInt(), 1001);
  EXPECT_TRUE(r[1]["passed"].asBool());
  EXPECT_EQ(r[1]["at_us"].asUInt64(), 950u);
  EXPECT_FALSE(r[1].isMember("expected")) << "values only for failed checks";
  EXPECT_EQ(r[2]["record"].asString(), "call");
  EXPECT_EQ(r[2]["function"].asString(), "poc_restore_seed");
  EXPECT_EQ(r[2]["duration_us"].asUInt64(), 900u);
  EXPECT_EQ(r[4]["expected"].asString(), "not 1");
  EXPECT_EQ(r[4]["actual"].asString(), "1");
  EXPECT_EQ(r[6]["rc"].asInt(), -99);
  EXPECT_EQ(r[6]["tee_result"].asString(), "0xFFFF0006");
  EXPECT_EQ(r[7]["verdict"].asString(), "skipped");
  EXPECT_EQ(r[7]["reason"].asString(), "needs --seed HEX");

  // Text that JSON must escape survives the round trip.
  RunReport odd;
  odd.outcomes = {Skipped()};
  odd.outcomes[0].reason = "quote \" backslash \\ tab \t newline \n byte \x01 high \xc3";
  Json::Value back;
  std::istringstream odd_in(JsonReport(odd, "", ""));
  ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), odd_in, &back, &errors)) << errors;
  EXPECT_EQ(back["records"][0]["reason"].asString(),
            "quote \" backslash \\ tab \t newline \n byte \x01 high \xc3\x83");

  const Json::Value& calls = root["calls"];
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0]["function"].asString(), "poc_check_mnemonic");
  EXPECT_EQ(calls[0]["count"].asUInt64(), 2u);
  EXPECT_EQ(calls[0]["min_us"].asUInt64(), 30u);
  EXPECT_EQ(calls[0]["median_us"].asUInt64(), 40u);
  EXPECT_EQ(calls[0]["p90_us"].asUInt64(), 50u);
  EXPECT_EQ(calls[0]["max_us"].asUInt64(), 50u);
}

}  // namespace
}  // namespace check
