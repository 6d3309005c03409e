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
  /* Client connections one user may hold at once; more are refused with
   * TEE_ERROR_BUSY (REFUSED), so one user cannot take every descriptor. */
  unsigned max_clients_per_user = 512;
  /* Memory a client may make a TA instance take: memory references of one
   * operation (sizes added up; each is copied for the TA), and shared memory
   * one session keeps mapped. Past them: TEE_ERROR_EXCESS_DATA and
   * TEE_ERROR_OUT_OF_MEMORY. */
  uint32_t max_operation_bytes = 64u << 20;
  uint32_t max_session_shm_bytes = 256u << 20;
};

/* Serves `listener` (a listening SOCK_SEQPACKET socket) until SIGTERM or
 * SIGINT, which the caller must have blocked in every thread. On the way out
 * every TA instance is asked to close its sessions and end (and killed if it
 * does not within a few seconds).
 * First raises the soft limit on descriptors to the hard one. Out of
 * descriptors, it turns new clients away at once (REFUSED, TEE_ERROR_BUSY)
 * with a descriptor kept spare for that, or stops accepting for a moment
 * that grows to a second; either way it never spins, and it logs one line
 * when such an episode begins and one when it ends.
 * Returns the process exit status (0 after a clean stop). */
int serve(Settings settings, UniqueFd listener);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_DAEMON_H
