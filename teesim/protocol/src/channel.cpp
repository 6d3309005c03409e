/* Whole frames with their descriptors over Unix sockets; see teesim/channel.h. */
#include "teesim/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "secure_wipe.h"

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
  size_t done = 0;
  for (;;) {
    ssize_t n = ::sendmsg(fd, &msg, flags);
    if (n < 0) {
      if (errno == EINTR) continue;
      return done == 0 ? -errno : -EIO;
    }
    done += static_cast<size_t>(n);
    if (done >= len) return 0;
    /* Only a stream sends part of a frame: the rest follows, and the
     * descriptors went with the first part. */
    iov.iov_base = const_cast<uint8_t*>(frame) + done;
    iov.iov_len = len - done;
    msg.msg_control = nullptr;
    msg.msg_controllen = 0;
    flags &= ~MSG_DONTWAIT;
  }
}

ssize_t recv_frame(int fd, uint8_t* buf, size_t cap, FdList* fds, bool nonblocking) {
  fds->clear();
  iovec iov{buf, cap};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  /* Room for one descriptor more than a frame may carry, so an excess one is
   * counted below on every width: with 32-bit alignment CMSG_SPACE leaves no
   * spare room, and only MSG_CTRUNC would tell (which qemu-user loses). */
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * (wire::kMaxFds + 1))];
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

int make_stream_channel(UniqueFd* a, UniqueFd* b) {
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return -errno;
  a->reset(sv[0]);
  b->reset(sv[1]);
  return 0;
}

namespace {

/* Descriptors a stream may hold for frames not yet complete. */
constexpr size_t kMaxQueuedFds = 4 * wire::kMaxFds;

uint32_t le32(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

}  // namespace

StreamReader::StreamReader() : buf_(2 * wire::kMaxFrameSize) {}

StreamReader::~StreamReader() { tessera_secure_wipe(buf_.data(), buf_.size()); }

ssize_t StreamReader::next(int fd, const uint8_t** frame) {
  if (begin_ == end_) begin_ = end_ = handed_ = 0; /* all consumed: read to the start */
  for (;;) {
    const size_t avail = end_ - begin_;
    if (avail >= wire::kHeaderSize) {
      const uint8_t* h = buf_.data() + begin_;
      const uint32_t body = le32(h + 8);
      if (le32(h) != wire::kMagic || body > wire::kMaxFrameSize - wire::kHeaderSize) return -EPROTO;
      const size_t len = wire::kHeaderSize + body;
      if (avail >= len) {
        *frame = h;
        begin_ += len;
        handed_ = begin_;
        return static_cast<ssize_t>(len);
      }
    }
    if (buf_.size() - end_ < wire::kMaxFrameSize) {
      /* Move the partial frame to the front; what it leaves is wiped. */
      std::memmove(buf_.data(), buf_.data() + begin_, avail);
      tessera_secure_wipe(buf_.data() + avail, end_ - avail);
      begin_ = handed_ = 0;
      end_ = avail;
    }
    iovec iov{buf_.data() + end_, buf_.size() - end_};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * wire::kMaxFds)];
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n;
    do {
      n = ::recvmsg(fd, &msg, MSG_CMSG_CLOEXEC);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -errno;
    bool too_many = (msg.msg_flags & MSG_CTRUNC) != 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      size_t k = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < k; ++i) {
        int one;
        std::memcpy(&one, CMSG_DATA(c) + i * sizeof(int), sizeof(int));
        fds_.emplace_back(one);
      }
    }
    if (too_many || fds_.size() > kMaxQueuedFds) {
      fds_.clear();
      return -EMSGSIZE;
    }
    if (n == 0) return end_ == begin_ ? 0 : -EPROTO;
    end_ += static_cast<size_t>(n);
  }
}

bool StreamReader::take_fds(size_t n, FdList* out) {
  out->clear();
  if (n > wire::kMaxFds || fds_.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    out->fds[i] = std::move(fds_.front());
    fds_.pop_front();
  }
  out->count = n;
  return true;
}

void StreamReader::wipe_consumed() {
  if (handed_ > 0) tessera_secure_wipe(buf_.data(), handed_);
}

int make_channel(UniqueFd* a, UniqueFd* b) {
  int sv[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) return -errno;
  a->reset(sv[0]);
  b->reset(sv[1]);
  return 0;
}

}  // namespace teesim
