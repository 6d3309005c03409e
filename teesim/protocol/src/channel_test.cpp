#include "teesim/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace teesim {
namespace {

bool fd_is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(Channel, CarriesAFrameAndItsDescriptors) {
  UniqueFd a, b;
  ASSERT_EQ(make_channel(&a, &b), 0);
  int pipefd[2];
  ASSERT_EQ(::pipe2(pipefd, O_CLOEXEC), 0);
  UniqueFd rd(pipefd[0]), wr(pipefd[1]);

  const uint8_t frame[5] = {1, 2, 3, 4, 5};
  int fds[1] = {wr.get()};
  ASSERT_EQ(send_frame(a.get(), frame, sizeof frame, fds, 1), 0);
  wr.reset(); /* the receiver's copy keeps the pipe open */

  std::vector<uint8_t> buf(wire::kMaxFrameSize);
  FdList got;
  ASSERT_EQ(recv_frame(b.get(), buf.data(), buf.size(), &got), 5);
  EXPECT_EQ(0, memcmp(buf.data(), frame, 5));
  ASSERT_EQ(got.count, 1u);
  EXPECT_NE(::fcntl(got.fds[0].get(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(::write(got.fds[0].get(), "x", 1), 1);
  char c = 0;
  ASSERT_EQ(::read(rd.get(), &c, 1), 1);
  EXPECT_EQ(c, 'x');
}

TEST(Channel, KeepsFrameBoundaries) {
  UniqueFd a, b;
  ASSERT_EQ(make_channel(&a, &b), 0);
  const uint8_t one[3] = {1, 1, 1}, two[7] = {2, 2, 2, 2, 2, 2, 2};
  ASSERT_EQ(send_frame(a.get(), one, sizeof one), 0);
  ASSERT_EQ(send_frame(a.get(), two, sizeof two), 0);
  std::vector<uint8_t> buf(64);
  FdList fds;
  EXPECT_EQ(recv_frame(b.get(), buf.data(), buf.size(), &fds), 3);
  EXPECT_EQ(recv_frame(b.get(), buf.data(), buf.size(), &fds), 7);
  EXPECT_EQ(recv_frame(b.get(), buf.data(), buf.size(), &fds, true), -EAGAIN);
}

TEST(Channel, ReportsEndOfStreamAndPeerGone) {
  UniqueFd a, b;
  ASSERT_EQ(make_channel(&a, &b), 0);
  EXPECT_FALSE(peer_gone(b.get()));
  a.reset();
  EXPECT_TRUE(peer_gone(b.get()));
  std::vector<uint8_t> buf(64);
  FdList fds;
  EXPECT_EQ(recv_frame(b.get(), buf.data(), buf.size(), &fds), 0);
  const uint8_t x = 0;
  EXPECT_EQ(send_frame(b.get(), &x, 1), -EPIPE); /* and no SIGPIPE */
}

TEST(Channel, OversizedFrameIsRefusedAndItsDescriptorsClosed) {
  UniqueFd a, b;
  ASSERT_EQ(make_channel(&a, &b), 0);
  int pipefd[2];
  ASSERT_EQ(::pipe2(pipefd, O_CLOEXEC), 0);
  UniqueFd rd(pipefd[0]), wr(pipefd[1]);
  std::vector<uint8_t> big(200, 7);
  int fds[1] = {wr.get()};
  ASSERT_EQ(send_frame(a.get(), big.data(), big.size(), fds, 1), 0);
  wr.reset();
  std::vector<uint8_t> small(100);
  FdList got;
  EXPECT_EQ(recv_frame(b.get(), small.data(), small.size(), &got), -EMSGSIZE);
  EXPECT_EQ(got.count, 0u);
  /* every write end is closed now, so the pipe reads as finished */
  char c;
  EXPECT_EQ(::read(rd.get(), &c, 1), 0);
}

TEST(Channel, TooManyDescriptorsAreRefused) {
  UniqueFd a, b;
  ASSERT_EQ(make_channel(&a, &b), 0);
  const uint8_t x = 1;
  int fds[wire::kMaxFds + 1];
  for (auto& f : fds) f = a.get();
  EXPECT_EQ(send_frame(a.get(), &x, 1, fds, wire::kMaxFds + 1), -EINVAL);

  /* A peer that bypasses send_frame and sends more than we accept. */
  int extra[wire::kMaxFds + 1];
  for (auto& f : extra) f = ::dup(a.get());
  iovec iov{const_cast<uint8_t*>(&x), 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof extra)];
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(sizeof extra);
  memcpy(CMSG_DATA(c), extra, sizeof extra);
  ASSERT_EQ(::sendmsg(a.get(), &msg, 0), 1);
  for (int f : extra) ::close(f);
  std::vector<uint8_t> buf(16);
  FdList got;
  EXPECT_EQ(recv_frame(b.get(), buf.data(), buf.size(), &got), -EMSGSIZE);
  EXPECT_EQ(got.count, 0u);
}

TEST(UniqueFd, ClosesOnceAndReleases) {
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  {
    UniqueFd r(p[0]);
    UniqueFd moved(std::move(r));
    EXPECT_FALSE(r.valid());
    EXPECT_TRUE(fd_is_open(p[0]));
  }
  EXPECT_FALSE(fd_is_open(p[0]));
  UniqueFd w(p[1]);
  int raw = w.release();
  EXPECT_FALSE(w.valid());
  EXPECT_TRUE(fd_is_open(raw));
  ::close(raw);
}

}  // namespace
}  // namespace teesim
