// tessera-check: the keystore TA checked unattended, case by case, with a
// verdict, an exit status and machine-readable reports.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Options.h"
#include "cases/CaseRegistry.h"
#include "report/FileOutput.h"
#include "report/JsonReport.h"
#include "report/JunitReport.h"
#include "report/Statistics.h"
#include "report/TextReport.h"
#include "run/Runner.h"

namespace {

constexpr int kAllPassed = 0;
constexpr int kSomethingFailed = 1;
constexpr int kCannotRun = 2;

const char kVersion[] = TESSERA_VERSION;

int Fail(const std::string& message) {
  std::fprintf(stderr, "tessera-check: %s\n", message.c_str());
  return kCannotRun;
}

bool WantsColour() {
  const char* no_colour = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || no_colour[0] == '\0') &&
         !(term != nullptr && std::string(term) == "dumb");
}

std::string ListLine(const check::CaseInfo& info) {
  std::string line = std::to_string(info.id) + " " + info.name;
  if (info.destructive) line += "  [--allow-wipe]";
  if (info.needsOwnSeed) line += "  [--seed]";
  return line;
}

}  // namespace

int main(int argc, char** argv) {
  using check::Options;
  check::ParsedOptions parsed = check::ParseOptions(argc, argv);
  if (!parsed.ok) return Fail(parsed.error + " (see --help)");
  const Options& options = parsed.options;
  if (options.action == Options::Action::kHelp) {
    std::fputs(check::UsageText().c_str(), stdout);
    return kAllPassed;
  }
  if (options.action == Options::Action::kVersion) {
    std::printf("tessera-check %s\n", kVersion);
    return kAllPassed;
  }

  std::vector<const check::CaseInfo*> chosen =
      check::Select(check::AllCases(), options.include, options.exclude);
  if (chosen.empty()) return Fail("no case matches the -t and -x patterns (see --list)");
  if (options.action == Options::Action::kList) {
    for (const check::CaseInfo* info : chosen) std::printf("%s\n", ListLine(*info).c_str());
    return kAllPassed;
  }
  // The own-seed cases check an operator's seed: without --seed they are not
  // part of the run, unless -t names them (they are then skipped, saying why).
  if (options.seed.empty() && options.include.empty()) {
    chosen.erase(std::remove_if(chosen.begin(), chosen.end(),
                                [](const check::CaseInfo* info) { return info->needsOwnSeed; }),
                 chosen.end());
  }
  std::string error;
  for (const std::string* path : {&options.junitPath, &options.jsonPath}) {
    if (!path->empty() && !check::PrepareFile(*path, &error)) return Fail("cannot write " + error);
  }

  check::RunSettings settings;
  settings.cases = chosen;
  settings.repeat = options.repeat;
  settings.allowWipe = options.allowWipe;
  settings.ownSeed = options.seed.empty() ? nullptr : &options.seed;
  settings.callLimit = options.timeout;

  check::TextReport text(stdout, WantsColour());
  const std::string wallet_line = check::WalletLine(settings, kVersion);
  text.Line(wallet_line);
  const check::RunReport report = check::Run(settings, text);
  if (!report.usable) return Fail(report.unusable);

  if (options.repeatGiven) {
    std::fputs(check::CallTable(check::SummarizeCalls(report.outcomes, report.leaveCalls)).c_str(),
               stdout);
  }
  const check::Tally tally = check::Count(report.outcomes);
  int status = tally.failed == 0 ? kAllPassed : kSomethingFailed;
  if (report.walletLeft && !report.walletLeftOk) {
    std::fprintf(stderr, "tessera-check: the wallet could not be left as the first line says: %s\n",
                 report.walletDetail.c_str());
    status = kSomethingFailed;
  }
  if (!options.junitPath.empty() &&
      !check::WriteFile(options.junitPath, check::JunitXml(report.outcomes, report.wallUs), &error)) {
    std::fprintf(stderr, "tessera-check: cannot write %s\n", error.c_str());
    status = kCannotRun;
  }
  if (!options.jsonPath.empty() &&
      !check::WriteFile(options.jsonPath, check::JsonReport(report, wallet_line, kVersion), &error)) {
    std::fprintf(stderr, "tessera-check: cannot write %s\n", error.c_str());
    status = kCannotRun;
  }
  text.Line(check::ClosingLine(tally));
  return status;
}
