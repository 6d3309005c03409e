/*
 * tessera-check's command line: what the operator asked for, or why the
 * command line is wrong.
 */
#ifndef TESSERA_CHECK_OPTIONS_H
#define TESSERA_CHECK_OPTIONS_H

#include <chrono>
#include <string>
#include <vector>

#include "cases/SecretBytes.h"

namespace check {

struct Options {
  enum class Action { kRun, kList, kHelp, kVersion };
  Action action = Action::kRun;
  bool allowWipe = false;             // --allow-wipe
  std::vector<std::string> include;   // -t PATTERN, in order
  std::vector<std::string> exclude;   // -x PATTERN, in order
  std::string junitPath;              // --junit FILE ("" none)
  std::string jsonPath;               // --json FILE ("" none)
  unsigned repeat = 1;                // --repeat N
  bool repeatGiven = false;           //   (the call statistics are printed only then)
  std::chrono::milliseconds timeout{30000};  // --timeout SECONDS, per keystore call
  SecretBytes seed;                   // --seed HEX, decoded (empty when not given)
};

struct ParsedOptions {
  bool ok = false;
  std::string error;  // when !ok: one line, without the program's name
  Options options;
};

/* Parses argv[1..argc). Options may be given as "--name value" or
 * "--name=value"; -t and -x may repeat (and take "-tPATTERN" too).
 * The digits of a --seed argument are overwritten in argv once read, so
 * they no longer show in the process list. --help and --version win over
 * everything else that parses. Errors: an unknown option, a missing or
 * malformed value (--repeat 1..100000; --timeout a number of seconds above
 * 0 and at most 86400; --seed an even number of hex digits giving 16, 20,
 * 24, 28 or 32 bytes), a positional argument. */
[[nodiscard]] ParsedOptions ParseOptions(int argc, char** argv);

/* Returns the text of --help. */
[[nodiscard]] std::string UsageText();

}  // namespace check

#endif  // TESSERA_CHECK_OPTIONS_H
