/*
 * Sending and receiving whole frames, with their file descriptors, on AF_UNIX
 * sockets: one frame per recvmsg on the SOCK_SEQPACKET links to and from the
 * daemon, and a StreamReader that cuts frames out of a SOCK_STREAM session
 * channel.
 */
#ifndef TEESIM_CHANNEL_H
#define TEESIM_CHANNEL_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

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

/* Sends one frame and, when nfds > 0, the descriptors with it (SCM_RIGHTS),
 * on a SOCK_SEQPACKET or SOCK_STREAM socket (on a stream, a send cut short
 * by a signal is completed). Never raises SIGPIPE; retries on EINTR.
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

/* Makes a session channel: a SOCK_STREAM socketpair, both ends
 * close-on-exec. Returns 0 or -errno. Out: a, b. */
[[nodiscard]] int make_stream_channel(UniqueFd* a, UniqueFd* b);

/* Cuts whole frames out of a SOCK_STREAM socket. One recvmsg normally brings
 * a whole frame (and may bring the start of the next); the descriptors that
 * arrive are queued in order, and each frame claims the ones it announces
 * with take_fds(). */
class StreamReader {
 public:
  StreamReader();
  /* Wipes the buffer: frames may have carried secrets. */
  ~StreamReader();
  StreamReader(const StreamReader&) = delete;
  StreamReader& operator=(const StreamReader&) = delete;

  /* Blocks until one whole frame is buffered.
   * Returns its length (> 0), with *frame pointing into the reader (valid
   * until the next call); 0 when the peer closed the connection between
   * frames; -EPROTO when it closed in the middle of a frame, the header is
   * not a frame's (bad magic) or announces more than wire::kMaxFrameSize;
   * -EMSGSIZE when more descriptors arrive than frames could claim (all are
   * closed); other -errno. Retries on EINTR. */
  [[nodiscard]] ssize_t next(int fd, const uint8_t** frame);

  /* Moves the first n queued descriptors into *out (replacing its content).
   * Returns false, moving none, when fewer than n are queued. */
  [[nodiscard]] bool take_fds(size_t n, FdList* out);

  size_t queued_fds() const { return fds_.size(); }
  /* Bytes buffered beyond the frames handed out. */
  size_t buffered() const { return end_ - begin_; }

  /* Wipes the bytes of frames already handed out (they may hold secrets). */
  void wipe_consumed();

 private:
  std::vector<uint8_t> buf_;
  size_t begin_ = 0;     /* first byte not yet handed out */
  size_t end_ = 0;       /* end of the buffered bytes */
  size_t handed_ = 0;    /* end of the last frame handed out */
  std::deque<UniqueFd> fds_;
};

}  // namespace teesim

#endif  // TEESIM_CHANNEL_H
