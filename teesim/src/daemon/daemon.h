/*
 * The teesim daemon's event loop: it accepts clients, starts TA instance
 * processes and brokers sessions between them. Single-threaded (epoll); it
 * never blocks on a peer, so a slow or hostile client or TA cannot stall it.
 */
#ifndef TEESIM_DAEMON_DAEMON_H
#define TEESIM_DAEMON_DAEMON_H

#include <string>
#include <vector>

#include "common/log.h"
#include "common/secret.h"
#include "teesim/unique_fd.h"

namespace teesim::daemon {

struct Settings {
  std::string ta_dir;       /* absolute */
  std::string storage_dir;  /* absolute */
  std::string host_path;    /* the teesim-tahost executable */
  std::vector<std::string> emulator; /* runs host_path when not empty (another CPU's build) */
  log::Level log_level = log::Level::Info;
  bool syslog = false;
  bool deterministic_random = false;
  std::string random_seed;
  Key256 installation_key;
};

/* Serves `listener` (a listening SOCK_SEQPACKET socket) until SIGTERM or
 * SIGINT, which the caller must have blocked in every thread. On the way out
 * every TA instance is asked to close its sessions and end (and killed if it
 * does not within a few seconds).
 * Returns the process exit status (0 after a clean stop). */
int serve(Settings settings, UniqueFd listener);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_DAEMON_H
