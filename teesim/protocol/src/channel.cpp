#include "teesim/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace teesim {

int send_frame(int fd, const uint8_t* frame, size_t len, const int* fds, size_t nfds,
               bool nonblocking) {
  if (nfds > wire::kMaxFds) return -EINVAL;
  iovec iov{const_cast<uint8_t*>(frame), len};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxFds)];
  if (nfds > 0) {
    std::memset(control, 0, sizeof control);
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(sizeof(int) * nfds);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int) * nfds);
    std::memcpy(CMSG_DATA(c), fds, sizeof(int) * nfds);
  }
  int flags = MSG_NOSIGNAL | (nonblocking ? MSG_DONTWAIT : 0);
  for (;;) {
    ssize_t n = ::sendmsg(fd, &msg, flags);
    if (n >= 0) return static_cast<size_t>(n) == len ? 0 : -EIO;
    if (errno != EINTR) return -errno;
  }
}

ssize_t recv_frame(int fd, uint8_t* buf, size_t cap, FdList* fds, bool nonblocking) {
  fds->clear();
  iovec iov{buf, cap};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxFds)];
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  int flags = MSG_CMSG_CLOEXEC | (nonblocking ? MSG_DONTWAIT : 0);
  ssize_t n;
  for (;;) {
    n = ::recvmsg(fd, &msg, flags);
    if (n >= 0) break;
    if (errno != EINTR) return -errno;
  }
  /* Take ownership of every descriptor first, so none leaks on a refusal. */
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    size_t k = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    const unsigned char* data = CMSG_DATA(c);
    for (size_t i = 0; i < k; ++i) {
      int one;
      std::memcpy(&one, data + i * sizeof(int), sizeof(int));
      if (fds->count < wire::kMaxFds) {
        fds->fds[fds->count++].reset(one);
      } else {
        UniqueFd extra(one); /* closed at once */
        msg.msg_flags |= MSG_CTRUNC;
      }
    }
  }
  if (msg.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) {
    fds->clear();
    return -EMSGSIZE;
  }
  if (n == 0) fds->clear();
  return n;
}

bool peer_gone(int fd) {
  pollfd p{fd, POLLIN | POLLRDHUP, 0};
  int r;
  do {
    r = ::poll(&p, 1, 0);
  } while (r < 0 && errno == EINTR);
  if (r < 0) return true;
  if (p.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) return true;
  return false;
}

int make_channel(UniqueFd* a, UniqueFd* b) {
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return -errno;
  a->reset(sv[0]);
  b->reset(sv[1]);
  return 0;
}

}  // namespace teesim
