/* The daemon's command line and its --help text. */
#include "daemon/options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "teesim/paths.h"
#include "teesim/uuid.h"

namespace teesim::daemon {

namespace {

enum LongOnly { kLogFile = 256, kRandomSeed, kWipeStorage, kVersion, kSocketGroup, kEmulator,
                kMaxClientsPerUser, kMaxOperationMemory, kMaxSessionShm, kNewInstallationKey };

const option kOptions[] = {
    {"socket", required_argument, nullptr, 's'},
    {"socket-group", required_argument, nullptr, kSocketGroup},
    {"ta-dir", required_argument, nullptr, 't'},
    {"storage-dir", required_argument, nullptr, 'd'},
    {"foreground", no_argument, nullptr, 'f'},
    {"background", no_argument, nullptr, 'b'},
    {"log-level", required_argument, nullptr, 'l'},
    {"log-file", required_argument, nullptr, kLogFile},
    {"random-seed", required_argument, nullptr, kRandomSeed},
    {"wipe-storage", required_argument, nullptr, kWipeStorage},
    {"emulator", required_argument, nullptr, kEmulator},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kVersion},
    {"max-clients-per-user", required_argument, nullptr, kMaxClientsPerUser},
    {"max-operation-memory", required_argument, nullptr, kMaxOperationMemory},
    {"max-session-shm", required_argument, nullptr, kMaxSessionShm},
    {"new-installation-key", no_argument, nullptr, kNewInstallationKey},
    {nullptr, 0, nullptr, 0},
};

/* A whole decimal number within [min, max]. */
bool parse_count(const char* text, unsigned long min, unsigned long max, unsigned* out) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long v = std::strtoul(text, &end, 10);
  if (errno != 0 || *end != '\0' || v < min || v > max) return false;
  *out = static_cast<unsigned>(v);
  return true;
}

/* A size in bytes, with an optional K, M or G (powers of 1024), from 4 KiB
 * to 2 GiB. */
bool parse_size(const char* text, uint32_t* out) {
  if (text == nullptr || text[0] < '0' || text[0] > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long v = std::strtoull(text, &end, 10);
  if (errno != 0) return false;
  unsigned shift = 0;
  if (*end == 'K' || *end == 'k') shift = 10;
  if (*end == 'M' || *end == 'm') shift = 20;
  if (*end == 'G' || *end == 'g') shift = 30;
  if (shift != 0) ++end;
  if (*end != '\0' || v > (1ull << 31) >> shift) return false;
  v <<= shift;
  if (v < 4096 || v > (1ull << 31)) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

std::string usage(const char* program) {
  std::string p = program != nullptr ? program : "teesim";
  return "Usage: " + p + " [options]\n"
         "Runs the teesim daemon: a simulated GlobalPlatform TEE that hosts Trusted\n"
         "Applications, each instance in a process of its own, for clients of libteec.\n"
         "libteec starts it on demand, so it rarely needs to be started by hand.\n"
         "\n"
         "  -s, --socket PATH        Unix socket to serve (default: $TEESIM_SOCKET, else\n"
         "                           /run/teesim/teesim.sock as root, $XDG_RUNTIME_DIR/teesim.sock,\n"
         "                           or /tmp/teesim-<uid>/teesim.sock)\n"
         "      --socket-group GROUP let the members of GROUP connect: the socket gets this\n"
         "                           group and mode 0660 (default: this user only)\n"
         "  -t, --ta-dir DIR         folder of the TAs, one <uuid>.ta per TA with an optional\n"
         "                           <uuid>.props (default: $TEESIM_TA_DIR, else the TA folder of this build\n"
         "                           or installation)\n"
         "  -d, --storage-dir DIR    folder of the installation key and the TAs' persistent\n"
         "                           objects (default: $TEESIM_STORAGE_DIR, else /var/lib/teesim as\n"
         "                           root or ${XDG_DATA_HOME:-~/.local/share}/teesim)\n"
         "  -f, --foreground         stay in the foreground and log to standard error\n"
         "  -b, --background         detach once serving (the default); the command returns\n"
         "                           when the socket accepts clients, or fails with the reason\n"
         "  -l, --log-level LEVEL    error, warn, info (default) or debug\n"
         "      --log-file PATH      append the log to PATH (default: standard error in the\n"
         "                           foreground, syslog in the background)\n"
         "      --random-seed SEED   FOR TESTS ONLY: make TEE_GenerateRandom a deterministic\n"
         "                           function of SEED, so runs repeat exactly; keys made by TAs\n"
         "                           are then predictable\n"
         "      --wipe-storage UUID  delete the persistent objects of TA UUID before serving\n"
         "                           (repeatable; \"all\" for every TA)\n"
         "      --emulator CMD       start each TA host as CMD followed by its command line,\n"
         "                           for hosts built for another CPU (CMD is split at spaces,\n"
         "                           e.g. \"qemu-aarch64-static\"; default: $TEESIM_EMULATOR,\n"
         "                           else none)\n"
         "      --max-clients-per-user N\n"
         "                           connections one user may hold at once (default " +
         std::to_string(kDefaultMaxClientsPerUser) + ");\n"
         "                           more are refused with TEEC_ERROR_BUSY\n"
         "      --max-operation-memory SIZE\n"
         "                           memory references one operation may carry, sizes added\n"
         "                           up (default 64M); more: TEEC_ERROR_EXCESS_DATA\n"
         "      --max-session-shm SIZE\n"
         "                           shared memory one session may keep mapped in its TA\n"
         "                           instance (default 256M); more: TEEC_ERROR_OUT_OF_MEMORY\n"
         "                           (SIZE: bytes, or with K, M or G; 4K to 2G)\n"
         "      --new-installation-key\n"
         "                           when the installation key is missing but TAs have objects\n"
         "                           (which nothing can read without it), set them aside in\n"
         "                           <storage>/lost-key-<time>/ and make a new key instead of\n"
         "                           refusing to start\n"
         "  -h, --help               show this text\n"
         "      --version            show the version\n"
         "\n"
         "Exit status: 0 stopped cleanly (SIGTERM or SIGINT), 1 failed while running,\n"
         "2 bad options, folders or files, 3 another teesim already serves the socket,\n"
         "4 the installation key is missing while TAs have objects (see above).\n"
         "SIGHUP reopens the log file (after log rotation).\n";
}

bool parse_options(int argc, char** argv, Options* out, std::string* error) {
  Options o;
  std::string level_text;
  bool emulator_given = false;
  ::optind = 1;
  ::opterr = 0;
  int c;
  while ((c = ::getopt_long(argc, argv, ":s:t:d:fbl:h", kOptions, nullptr)) != -1) {
    switch (c) {
      case 's': o.socket_path = ::optarg; break;
      case kSocketGroup:
        if (::optarg[0] == '\0') {
          *error = "--socket-group needs a group name";
          return false;
        }
        o.socket_group = ::optarg;
        break;
      case 't': o.ta_dir = ::optarg; break;
      case 'd': o.storage_dir = ::optarg; break;
      case 'f': o.foreground = true; break;
      case 'b': o.foreground = false; break;
      case 'l':
        if (!log::parse_level(::optarg, &o.log_level)) {
          *error = std::string("unknown log level '") + ::optarg + "' (use error, warn, info or debug)";
          return false;
        }
        break;
      case kLogFile: o.log_file = ::optarg; break;
      case kRandomSeed:
        o.has_random_seed = true;
        o.random_seed = ::optarg;
        break;
      case kWipeStorage: {
        Uuid u;
        std::string v = ::optarg;
        if (v == "all") {
          o.wipe.push_back(v);
        } else if (uuid_parse(v, &u)) {
          o.wipe.push_back(uuid_to_string(u));
        } else {
          *error = "--wipe-storage needs a TA UUID or \"all\", not '" + v + "'";
          return false;
        }
        break;
      }
      case kEmulator:
        emulator_given = true;
        o.emulator = paths::command_words(::optarg);
        break;
      case 'h': o.help = true; break;
      case kVersion: o.version = true; break;
      case kMaxOperationMemory:
      case kMaxSessionShm: {
        uint32_t* target = c == kMaxOperationMemory ? &o.max_operation_bytes : &o.max_session_shm_bytes;
        if (!parse_size(::optarg, target)) {
          *error = std::string(c == kMaxOperationMemory ? "--max-operation-memory" : "--max-session-shm") +
                   " needs a size from 4K to 2G (bytes, or with K, M or G), not '" + ::optarg + "'";
          return false;
        }
        break;
      }
      case kMaxClientsPerUser:
        if (!parse_count(::optarg, 1, 1u << 20, &o.max_clients_per_user)) {
          *error = std::string("--max-clients-per-user needs a number from 1 to 1048576, not '") +
                   ::optarg + "'";
          return false;
        }
        break;
      case kNewInstallationKey: o.new_installation_key = true; break;
      case ':':
        *error = std::string("option ") + argv[::optind - 1] + " needs a value";
        return false;
      default:
        *error = std::string("unknown option '") + argv[::optind - 1] + "'";
        return false;
    }
  }
  if (::optind < argc) {
    *error = std::string("unexpected argument '") + argv[::optind] + "'";
    return false;
  }
  if (o.socket_path.empty()) o.socket_path = paths::socket_path();
  if (o.ta_dir.empty()) o.ta_dir = paths::ta_dir();
  if (o.storage_dir.empty()) o.storage_dir = paths::storage_dir();
  if (!emulator_given) o.emulator = paths::emulator();
  *out = std::move(o);
  return true;
}

}  // namespace teesim::daemon
