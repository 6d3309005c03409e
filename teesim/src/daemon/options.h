/* The teesim daemon's command line. */
#ifndef TEESIM_DAEMON_OPTIONS_H
#define TEESIM_DAEMON_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

#include "common/log.h"

namespace teesim::daemon {

/* Exit statuses of the teesim command. */
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;      /* failed while running */
inline constexpr int kExitUsage = 2;        /* bad options, folders or files */
inline constexpr int kExitAlreadyRunning = 3; /* another teesim serves the socket */
inline constexpr int kExitKeyLost = 4;      /* no installation key, but TAs have objects */

/* Defaults of the limits a daemon enforces (see --help). */
inline constexpr unsigned kDefaultMaxClientsPerUser = 512;
inline constexpr uint32_t kDefaultMaxOperationBytes = 64u << 20;
inline constexpr uint32_t kDefaultMaxSessionShmBytes = 256u << 20;

struct Options {
  std::string socket_path;
  std::string socket_group;      /* empty: socket mode 0600; else mode 0660 and this group */
  std::string ta_dir;
  std::string storage_dir;
  bool foreground = false;
  log::Level log_level = log::Level::Info;
  std::string log_file;          /* empty: terminal in the foreground, syslog in the background */
  bool has_random_seed = false;
  std::string random_seed;
  std::vector<std::string> wipe; /* TA UUIDs (canonical text) or "all" */
  std::vector<std::string> emulator; /* runs the TA hosts (empty: they run directly) */
  bool help = false;
  bool version = false;
  unsigned max_clients_per_user = kDefaultMaxClientsPerUser;
  uint32_t max_operation_bytes = kDefaultMaxOperationBytes;
  uint32_t max_session_shm_bytes = kDefaultMaxSessionShmBytes;
  bool new_installation_key = false; /* a missing key with objects left: set them aside */
};

/* Parses argv (argv[0] is the program). Unset folders take the defaults of
 * teesim/paths.h (environment, then per-user or built-in defaults).
 * Returns true and fills `out`, or false with a one-line reason in `error`. */
[[nodiscard]] bool parse_options(int argc, char** argv, Options* out, std::string* error);

/* The --help text. */
std::string usage(const char* program);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_OPTIONS_H
