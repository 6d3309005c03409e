// The command line of tessera-check, parsed and checked.
#include "Options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "HexUtils.h"
#include "keystore_ta.h"
#include "secure_wipe.h"

namespace check {
namespace {

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool ParseRepeat(const std::string& text, unsigned* out) {
  if (text.empty() || text.size() > 6) return false;
  unsigned value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value < 1 || value > 100000) return false;
  *out = value;
  return true;
}

bool ParseTimeout(const std::string& text, std::chrono::milliseconds* out) {
  if (text.empty() || !(text[0] >= '0' && text[0] <= '9')) return false;
  errno = 0;
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str(), &end);
  if (errno != 0 || end == nullptr || *end != '\0' || !std::isfinite(seconds)) return false;
  if (seconds <= 0 || seconds > 86400) return false;
  const auto ms = static_cast<long long>(std::ceil(seconds * 1000.0));
  *out = std::chrono::milliseconds(ms < 1 ? 1 : ms);
  return true;
}

// Decodes the operator's seed; the intermediate copy is wiped.
bool ParseSeed(const char* text, SecretBytes* out, std::string* error) {
  const std::size_t digits = std::strlen(text);
  for (std::size_t i = 0; i < digits; ++i) {
    if (!IsHexDigit(text[i])) {
      *error = "--seed: not a hex digit at position " + std::to_string(i + 1);
      return false;
    }
  }
  const std::size_t bytes = digits / 2;
  if (digits % 2 != 0 || bytes < KEYSTORE_SEED_MIN_SIZE || bytes > KEYSTORE_SEED_MAX_SIZE ||
      bytes % 4 != 0) {
    *error = "--seed: " + std::to_string(digits) +
             " hex digits; a seed is 16, 20, 24, 28 or 32 bytes (32 to 64 digits)";
    return false;
  }
  std::string decoded = hex_string_to_bin(text, Endian::Big);
  *out = SecretBytes(decoded.data(), decoded.size());
  tessera_secure_wipe(&decoded[0], decoded.size());
  return true;
}

}  // namespace

ParsedOptions ParseOptions(int argc, char** argv) {
  ParsedOptions parsed;
  Options& o = parsed.options;
  bool help = false, version = false, list = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    std::string name = arg;
    std::string value;
    bool has_value = false;
    char* value_storage = nullptr;  // where the value's text lives in argv
    if (arg.rfind("--", 0) == 0 && arg.find('=') != std::string::npos) {
      const std::size_t eq = arg.find('=');
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      value_storage = argv[i] + eq + 1;
      has_value = true;
    } else if ((arg.rfind("-t", 0) == 0 || arg.rfind("-x", 0) == 0) && arg.size() > 2) {
      name = arg.substr(0, 2);
      value = arg.substr(2);
      has_value = true;
    }
    const auto take_value = [&]() -> bool {
      if (has_value) return true;
      if (i + 1 >= argc) {
        parsed.error = name + " needs a value";
        return false;
      }
      value = argv[++i];
      value_storage = argv[i];
      has_value = true;
      return true;
    };
    const auto no_value = [&]() -> bool {
      if (!has_value) return true;
      parsed.error = name + " takes no value";
      return false;
    };

    if (name == "--help" || name == "-h") {
      if (!no_value()) return parsed;
      help = true;
    } else if (name == "--version") {
      if (!no_value()) return parsed;
      version = true;
    } else if (name == "--list") {
      if (!no_value()) return parsed;
      list = true;
    } else if (name == "--allow-wipe") {
      if (!no_value()) return parsed;
      o.allowWipe = true;
    } else if (name == "-t" || name == "-x") {
      if (!take_value()) return parsed;
      if (value.empty()) {
        parsed.error = name + " needs a non-empty pattern";
        return parsed;
      }
      (name == "-t" ? o.include : o.exclude).push_back(value);
    } else if (name == "--junit" || name == "--json") {
      if (!take_value()) return parsed;
      if (value.empty()) {
        parsed.error = name + " needs a file name";
        return parsed;
      }
      (name == "--junit" ? o.junitPath : o.jsonPath) = value;
    } else if (name == "--repeat") {
      if (!take_value()) return parsed;
      if (!ParseRepeat(value, &o.repeat)) {
        parsed.error = "--repeat: '" + value + "' is not a count from 1 to 100000";
        return parsed;
      }
      o.repeatGiven = true;
    } else if (name == "--timeout") {
      if (!take_value()) return parsed;
      if (!ParseTimeout(value, &o.timeout)) {
        parsed.error = "--timeout: '" + value + "' is not a number of seconds above 0 and at most 86400";
        return parsed;
      }
    } else if (name == "--seed") {
      if (!take_value()) return parsed;
      std::string error;
      const bool ok = ParseSeed(value.c_str(), &o.seed, &error);
      tessera_secure_wipe(&value[0], value.size());
      if (value_storage != nullptr) {
        std::memset(value_storage, 'x', std::strlen(value_storage));  // hide it from ps
      }
      tessera_secure_wipe(&arg[0], arg.size());
      if (!ok) {
        parsed.error = error;
        return parsed;
      }
    } else if (!arg.empty() && arg[0] == '-') {
      parsed.error = "unknown option '" + name + "'";
      return parsed;
    } else {
      parsed.error = "unexpected argument '" + arg + "'";
      return parsed;
    }
  }
  o.action = help ? Options::Action::kHelp
             : version ? Options::Action::kVersion
             : list   ? Options::Action::kList
                      : Options::Action::kRun;
  parsed.ok = true;
  return parsed;
}

std::string UsageText() {
  return "Usage: tessera-check [options]\n"
         "Checks a keystore TA through the GP TEE Client API, unattended: numbered cases of\n"
         "checks, each ok or FAILED with the reason, then 'N passed, N failed, N skipped'.\n"
         "Exit status: 0 nothing failed, 1 a case failed, 2 usage error or no TEE reached.\n"
         "\n"
         "  --allow-wipe      run the cases that replace or delete the wallet's seed or PIN\n"
         "                    (without it they are skipped and the wallet is left as it is)\n"
         "  --seed HEX        also check this seed (16 to 32 bytes of BIP-39 entropy, as\n"
         "                    poc_restore_seed takes them): cases 8xxx; with --allow-wipe\n"
         "                    the wallet is left holding it\n"
         "  -t PATTERN        run only the cases whose number or name matches (glob: * ? [..]);\n"
         "                    may repeat\n"
         "  -x PATTERN        leave out the cases that match; may repeat\n"
         "  --list            list the chosen cases and exit\n"
         "  --junit FILE      write a JUnit XML report\n"
         "  --json FILE       write a JSON report: one record per case, check and call\n"
         "  --repeat N        run each case N times and print, per keystore call, its\n"
         "                    min, median, p90 and max in microseconds\n"
         "  --timeout SECONDS longest a keystore call may take (default 30); a call still\n"
         "                    running is cancelled, its case fails and the run goes on\n"
         "  --version         print the version and exit\n"
         "  -h, --help        print this help and exit\n";
}

}  // namespace check
