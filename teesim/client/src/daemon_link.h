/*
 * libteec's way to the teesim daemon: find its socket, start it when none is
 * running, and greet it.
 */
#ifndef TEEC_DAEMON_LINK_H
#define TEEC_DAEMON_LINK_H

#include <cstdint>
#include <string>

#include "tee_client_api.h"
#include "teesim/unique_fd.h"

namespace teec {

/* Connects to the daemon serving `socket_path`, starting one first when
 * nothing serves it and `may_start` holds, and exchanges greetings. Never
 * blocks for long: a full backlog is waited out for at most 5 s, the
 * greeting's answer for at most 5 s (a daemon starting up: 15 s more).
 * Returns TEEC_SUCCESS with the connection in *out and the daemon's bound
 * on the memory references of one operation (sizes added up) in
 * *max_operation_bytes; TEEC_ERROR_BUSY when
 * the daemon takes no connection now (backlog full, or it refused: too many
 * connections of this user, or out of descriptors); or
 * TEEC_ERROR_COMMUNICATION. On failure *why holds a sentence for the log
 * (which socket, what failed, what the daemon said). */
TEEC_Result connect_daemon(const std::string& socket_path, bool may_start, teesim::UniqueFd* out,
                           uint32_t* max_operation_bytes, std::string* why);

/* For the default TEE of a user other than root, when TEESIM_SOCKET is
 * unset: connects to the teesim service's socket when it exists, belongs to
 * the service's user and this user may connect (a member of its group).
 * Returns TEEC_SUCCESS with the connection in *out, the daemon's bound in
 * *max_operation_bytes (as connect_daemon) and its path in *socket_path;
 * TEEC_ERROR_BUSY (with *socket_path and *why) when the
 * service is this user's TEE but takes no connection now; or
 * TEEC_ERROR_ITEM_NOT_FOUND (the reason goes to the log) when the user's
 * own daemon is to serve instead. */
TEEC_Result connect_service(teesim::UniqueFd* out, uint32_t* max_operation_bytes,
                            std::string* socket_path, std::string* why);

}  // namespace teec

#endif  // TEEC_DAEMON_LINK_H
