/*
 * Who a client is, by login method: the identity a TA sees as its client.
 * Identities are name-based UUIDs (RFC 4122 version 5, SHA-1) in a teesim
 * namespace, from the peer credentials the kernel reports for the socket.
 */
#ifndef TEESIM_DAEMON_IDENTITY_H
#define TEESIM_DAEMON_IDENTITY_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "teesim/uuid.h"
#include "teesim/wire.h"

namespace teesim::daemon {

struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups; /* supplementary groups */
  std::string exe;           /* the client's executable, for application logins */
};

/* Reads the credentials of a connected Unix socket's peer.
 * Returns true, or false when the kernel gives none. */
[[nodiscard]] bool read_peer_credentials(int fd, PeerCredentials* out);

/* A name-based UUID (version 5) of `name` in the teesim namespace. */
Uuid name_uuid(const std::string& name);

/* Computes the client identity for a login method.
 * Returns TEE_SUCCESS, TEE_ERROR_BAD_PARAMETERS for an unknown method or a
 * group login without a group, TEE_ERROR_ACCESS_DENIED when the client is
 * not in the group it names or its executable is unknown.
 * Out: identity (the nil UUID for a public login). */
uint32_t client_identity(wire::Login login, bool has_group, uint32_t group,
                         const PeerCredentials& peer, Uuid* identity);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_IDENTITY_H
