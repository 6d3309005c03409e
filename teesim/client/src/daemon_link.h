/*
 * libteec's way to the teesim daemon: find its socket, start it when none is
 * running, and greet it.
 */
#ifndef TEEC_DAEMON_LINK_H
#define TEEC_DAEMON_LINK_H

#include <string>

#include "tee_client_api.h"
#include "teesim/unique_fd.h"

namespace teec {

/* Connects to the daemon serving `socket_path`, starting one first when
 * nothing serves it and `may_start` holds, and exchanges greetings.
 * Returns TEEC_SUCCESS with the connection in *out, or
 * TEEC_ERROR_COMMUNICATION with a sentence for the log in *why (which
 * socket, what failed, what the daemon said). */
TEEC_Result connect_daemon(const std::string& socket_path, bool may_start, teesim::UniqueFd* out,
                           std::string* why);

/* For the default TEE of a user other than root, when TEESIM_SOCKET is
 * unset: connects to the teesim service's socket when it exists, belongs to
 * the service's user and this user may connect (a member of its group).
 * Returns true with the connection in *out and its path in *socket_path,
 * or false (the reason goes to the log) when the user's own daemon is to
 * serve instead. */
bool connect_service(teesim::UniqueFd* out, std::string* socket_path);

}  // namespace teec

#endif  // TEEC_DAEMON_LINK_H
