/* Frames and descriptors across real socket pairs, seqpacket and stream. */
#include "teesim/channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
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

namespace teesim {
namespace {

std::vector<uint8_t> frame_of(uint32_t tag, uint32_t shm_with_fd) {
  wire::Invoke inv;
  inv.command = tag;
  for (uint32_t i = 0; i < shm_with_fd; ++i) {
    inv.params[i].kind = wire::ParamKind::ShmIn;
    inv.params[i].shm_id = 1 + i;
    inv.params[i].shm_flags = wire::kShmFdAttached;
    inv.params[i].size = 1;
  }
  std::vector<uint8_t> f;
  EXPECT_EQ(wire::encode(f, tag, inv), wire::Status::Ok);
  return f;
}

struct StreamPair {
  UniqueFd a, b;
  StreamPair() { EXPECT_EQ(make_stream_channel(&a, &b), 0); }
};

TEST(StreamReader, CutsFramesWrittenInPiecesOrTogether) {
  StreamPair p;
  auto f1 = frame_of(1, 0), f2 = frame_of(2, 0), f3 = frame_of(3, 0);
  std::vector<uint8_t> all = f1;
  all.insert(all.end(), f2.begin(), f2.end());
  all.insert(all.end(), f3.begin(), f3.begin() + 5); /* f3 arrives in two pieces */
  ASSERT_EQ(::write(p.a.get(), all.data(), all.size()), static_cast<ssize_t>(all.size()));
  StreamReader r;
  const uint8_t* frame = nullptr;
  ASSERT_EQ(r.next(p.b.get(), &frame), static_cast<ssize_t>(f1.size()));
  EXPECT_EQ(0, memcmp(frame, f1.data(), f1.size()));
  ASSERT_EQ(r.next(p.b.get(), &frame), static_cast<ssize_t>(f2.size()));
  EXPECT_EQ(0, memcmp(frame, f2.data(), f2.size()));
  EXPECT_EQ(r.buffered(), 5u);
  ASSERT_EQ(::write(p.a.get(), f3.data() + 5, f3.size() - 5), static_cast<ssize_t>(f3.size() - 5));
  ASSERT_EQ(r.next(p.b.get(), &frame), static_cast<ssize_t>(f3.size()));
  EXPECT_EQ(0, memcmp(frame, f3.data(), f3.size()));
  p.a.reset();
  EXPECT_EQ(r.next(p.b.get(), &frame), 0) << "a close between frames is the end";
}

TEST(StreamReader, LargeFramesAndManyOfThemPassIntact) {
  StreamPair p;
  std::vector<uint8_t> data(wire::kMaxInlineBytes, 0);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 13);
  wire::Invoke inv;
  inv.params[0].kind = wire::ParamKind::BufIn;
  inv.params[0].size = wire::kMaxInlineBytes;
  inv.params[0].data = data.data();
  std::vector<uint8_t> big;
  ASSERT_EQ(wire::encode(big, 9, inv), wire::Status::Ok);
  std::thread writer([&] {
    for (int i = 0; i < 20; ++i) EXPECT_EQ(send_frame(p.a.get(), big.data(), big.size()), 0);
  });
  StreamReader r;
  for (int i = 0; i < 20; ++i) {
    const uint8_t* frame = nullptr;
    ASSERT_EQ(r.next(p.b.get(), &frame), static_cast<ssize_t>(big.size())) << i;
    ASSERT_EQ(0, memcmp(frame, big.data(), big.size())) << i;
  }
  writer.join();
}

TEST(StreamReader, DescriptorsAreClaimedInOrderByTheirFrames) {
  StreamPair p;
  int pipes[3][2];
  for (auto& pp : pipes) ASSERT_EQ(::pipe(pp), 0);
  auto f1 = frame_of(1, 2), f2 = frame_of(2, 0), f3 = frame_of(3, 1);
  int two[2] = {pipes[0][1], pipes[1][1]}, one[1] = {pipes[2][1]};
  ASSERT_EQ(send_frame(p.a.get(), f1.data(), f1.size(), two, 2), 0);
  ASSERT_EQ(send_frame(p.a.get(), f2.data(), f2.size()), 0);
  ASSERT_EQ(send_frame(p.a.get(), f3.data(), f3.size(), one, 1), 0);
  StreamReader r;
  FdList got;
  const uint8_t* frame;
  for (int round = 0; round < 3; ++round) {
    ASSERT_GT(r.next(p.b.get(), &frame), 0);
    size_t want = round == 0 ? 2 : round == 1 ? 0 : 1;
    ASSERT_TRUE(r.take_fds(want, &got)) << round;
    ASSERT_EQ(got.count, want);
    for (size_t i = 0; i < want; ++i) {
      /* write through the received end; read where the test expects it */
      int which = round == 0 ? static_cast<int>(i) : 2;
      ASSERT_EQ(::write(got.fds[i].get(), "z", 1), 1);
      char c;
      ASSERT_EQ(::read(pipes[which][0], &c, 1), 1);
    }
  }
  EXPECT_EQ(r.queued_fds(), 0u);
  EXPECT_FALSE(r.take_fds(1, &got));
  for (auto& pp : pipes) {
    ::close(pp[0]);
    ::close(pp[1]);
  }
}

TEST(StreamReader, BrokenStreamsAreRefused) {
  const uint8_t* frame;
  {
    StreamPair p;
    auto f = frame_of(1, 0);
    ASSERT_EQ(::write(p.a.get(), f.data(), f.size() - 1), static_cast<ssize_t>(f.size() - 1));
    p.a.reset();
    StreamReader r;
    EXPECT_EQ(r.next(p.b.get(), &frame), -EPROTO) << "closed in the middle of a frame";
  }
  {
    StreamPair p;
    std::vector<uint8_t> junk(32, 0x41);
    ASSERT_EQ(::write(p.a.get(), junk.data(), junk.size()), 32);
    StreamReader r;
    EXPECT_EQ(r.next(p.b.get(), &frame), -EPROTO) << "not a frame header";
  }
  {
    StreamPair p;
    auto f = frame_of(1, 0);
    uint32_t huge = static_cast<uint32_t>(wire::kMaxFrameSize);
    std::memcpy(f.data() + 8, &huge, 4); /* little-endian host */
    ASSERT_EQ(::write(p.a.get(), f.data(), wire::kHeaderSize), static_cast<ssize_t>(wire::kHeaderSize));
    StreamReader r;
    EXPECT_EQ(r.next(p.b.get(), &frame), -EPROTO) << "a length over the limit";
  }
  {
    StreamPair p;
    auto f = frame_of(1, 0);
    int fds[wire::kMaxFds];
    for (auto& fd : fds) fd = p.a.get();
    StreamReader r;
    ssize_t got = 0;
    /* descriptors piling up beyond what frames could claim */
    for (int i = 0; i < 5 && got >= 0; ++i) {
      ASSERT_EQ(send_frame(p.a.get(), f.data(), f.size(), fds, wire::kMaxFds), 0);
      got = r.next(p.b.get(), &frame);
    }
    EXPECT_EQ(got, -EMSGSIZE);
    EXPECT_EQ(r.queued_fds(), 0u) << "and closed";
  }
}

TEST(StreamReader, ConsumedFramesCanBeWiped) {
  StreamPair p;
  auto f = frame_of(7, 0);
  ASSERT_EQ(send_frame(p.a.get(), f.data(), f.size()), 0);
  StreamReader r;
  const uint8_t* frame;
  ASSERT_EQ(r.next(p.b.get(), &frame), static_cast<ssize_t>(f.size()));
  r.wipe_consumed();
  EXPECT_EQ(std::vector<uint8_t>(frame, frame + f.size()), std::vector<uint8_t>(f.size(), 0));
}

}  // namespace
}  // namespace teesim
