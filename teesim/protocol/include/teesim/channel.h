/*
 * Sending and receiving whole frames, with their file descriptors, on an
 * AF_UNIX SOCK_SEQPACKET socket.
 */
#ifndef TEESIM_CHANNEL_H
#define TEESIM_CHANNEL_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "teesim/unique_fd.h"
#include "teesim/wire.h"

namespace teesim {

/* The descriptors that came with one frame; closed when the list dies
 * unless taken out with release(). */
struct FdList {
  UniqueFd fds[wire::kMaxFds];
  size_t count = 0;
  void clear() {
    for (size_t i = 0; i < count; ++i) fds[i].reset();
    count = 0;
  }
};

/* Sends one frame and, when nfds > 0, the descriptors with it (SCM_RIGHTS).
 * Never raises SIGPIPE; retries on EINTR.
 * Returns 0, or -errno (-EPIPE / -ECONNRESET: the peer is gone; -EAGAIN only
 * when `nonblocking`).
 * In: fd, a SEQPACKET socket; frame, len (<= wire::kMaxFrameSize);
 *     fds, nfds (<= wire::kMaxFds), borrowed (the caller still owns them). */
[[nodiscard]] int send_frame(int fd, const uint8_t* frame, size_t len, const int* fds = nullptr,
                             size_t nfds = 0, bool nonblocking = false);

/* Receives one frame into buf.
 * Returns the frame's length (> 0); 0 when the peer closed the connection;
 * -EMSGSIZE when the frame did not fit in `cap` or carried more than
 * wire::kMaxFds descriptors (any received ones are closed); other -errno
 * (-EAGAIN only when `nonblocking`). Retries on EINTR.
 * In: fd; buf, cap (give at least wire::kMaxFrameSize).
 * Out: fds, replaced by the descriptors received (close-on-exec). */
[[nodiscard]] ssize_t recv_frame(int fd, uint8_t* buf, size_t cap, FdList* fds,
                                 bool nonblocking = false);

/* True when the peer of a connected socket has closed its end or the socket
 * is in error. Does not block and consumes nothing. */
bool peer_gone(int fd);

/* Makes a SEQPACKET socketpair, both ends close-on-exec.
 * Returns 0 or -errno. Out: a, b. */
[[nodiscard]] int make_channel(UniqueFd* a, UniqueFd* b);

}  // namespace teesim

#endif  // TEESIM_CHANNEL_H
