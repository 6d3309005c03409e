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

}  // namespace teec

#endif  // TEEC_DAEMON_LINK_H
