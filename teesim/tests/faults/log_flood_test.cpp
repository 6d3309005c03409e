/* A client that sends garbage as fast as it can gets its connections and
 * sessions closed, and the log grows by a bounded number of lines, not by a
 * line or two per frame. */
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "support.h"
#include "teesim/channel.h"
#include "teesim/uuid.h"
#include "teesim/wire.h"

namespace faults {
namespace {

namespace w = teesim::wire;
using teesim::UniqueFd;

/* Each kind of garbage is sent this many times. */
constexpr int kRounds = 150;
/* What the daemon and a TA instance may write for each place in their code
 * a client's garbage reaches, per 10 s: the log's rate limit, with room. */
constexpr int kLinesPerPlacePerWindow = 10;
constexpr int kPlaces = 5;

UniqueFd raw_connect(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd.reset();
  return fd;
}

template <typename M>
bool raw_send(int fd, const M& msg, uint32_t tag = 1) {
  std::vector<uint8_t> frame;
  return w::encode(frame, tag, msg) == w::Status::Ok && teesim::send_frame(fd, frame.data(), frame.size()) == 0;
}

/* Waits until the peer closes (true), reading and dropping what comes;
 * the bound is one only a broken daemon reaches. */
bool closed_by_peer(int fd) {
  std::vector<uint8_t> buf(w::kMaxFrameSize);
  for (int i = 0; i < 600; ++i) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    teesim::FdList fds;
    uint8_t byte;
    ssize_t n = (p.revents & POLLIN) ? ::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) : 0;
    if (n <= 0) return true;
    if (teesim::recv_frame(fd, buf.data(), buf.size(), &fds) <= 0) return true;
  }
  return false;
}

/* Opens a session by hand: the test gets the raw session channel. */
bool raw_open(int fd, const TEEC_UUID& ta, UniqueFd* channel) {
  w::OpenSession open;
  open.ta = teesim::uuid_from_fields(ta.timeLow, ta.timeMid, ta.timeHiAndVersion, ta.clockSeqAndNode);
  if (!raw_send(fd, w::Hello{}) || !raw_send(fd, open, 2)) return false;
  std::vector<uint8_t> buf(w::kMaxFrameSize);
  teesim::FdList fds;
  for (int i = 0; i < 2; ++i) {
    if (teesim::recv_frame(fd, buf.data(), buf.size(), &fds) <= 0) return false;
  }
  if (fds.count != 1) return false;
  channel->reset(fds.fds[0].release());
  return true;
}

int lines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

TEST(LogFlood, GarbageFromClientsYieldsABoundedLog) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  d.UseFromThisProcess();
  const auto start = std::chrono::steady_clock::now();
  const size_t before = d.LogText().size();
  std::vector<uint8_t> junk(100, 0xFF); /* not even a header's magic */
  const TEEC_UUID missing = {0x0badf11e, 0, 0, {0, 0, 0, 0, 0, 0, 0, 9}};
  for (int i = 0; i < kRounds; ++i) {
    {
      UniqueFd raw = raw_connect(d.Socket());
      ASSERT_TRUE(raw.valid());
      ASSERT_EQ(teesim::send_frame(raw.get(), junk.data(), junk.size()), 0);
      ASSERT_TRUE(closed_by_peer(raw.get())) << "round " << i;
    }
    {
      /* A session whose client speaks garbage on its channel. */
      UniqueFd conn = raw_connect(d.Socket());
      UniqueFd channel;
      ASSERT_TRUE(raw_open(conn.get(), kTestTa, &channel)) << "round " << i;
      ASSERT_EQ(::send(channel.get(), junk.data(), junk.size(), MSG_NOSIGNAL), static_cast<ssize_t>(junk.size()));
      ASSERT_TRUE(closed_by_peer(channel.get())) << "round " << i;
    }
    {
      /* An open of a TA that is not there, again and again. */
      TEEC_Context ctx{};
      TEEC_Session s{};
      uint32_t origin = 0;
      ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
      EXPECT_EQ(TEEC_OpenSession(&ctx, &s, &missing, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin),
                TEEC_ERROR_ITEM_NOT_FOUND);
      TEEC_FinalizeContext(&ctx);
    }
  }
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
  /* However long the flood took (a loaded machine is slower), the limit
   * allows so many lines per 10 s window it spans. */
  const int allowed = kPlaces * kLinesPerPlacePerWindow * (static_cast<int>(seconds) / 10 + 2);
  const std::string flood = d.LogText().substr(before);
  EXPECT_LE(lines(flood), allowed) << kRounds * 3 << " pieces of garbage in " << seconds << " s\n"
                                   << flood.substr(0, 3000);

  /* Garbage cost only its own connections: a well-behaved client is served. */
  TEEC_Context ctx{};
  TEEC_Session s{};
  uint32_t origin = 0;
  ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
  EXPECT_EQ(TEEC_OpenSession(&ctx, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin), TEEC_SUCCESS);
  TEEC_CloseSession(&s);
  TEEC_FinalizeContext(&ctx);
}

}  // namespace
}  // namespace faults
