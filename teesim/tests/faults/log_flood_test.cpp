/* A client that sends garbage as fast as it can gets its connections and
 * sessions closed, and the log grows by a bounded number of lines, not by a
 * line or two per frame. */
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "support.h"
#include "teesim/channel.h"

namespace faults {
namespace {

using teesim::UniqueFd;

/* Each kind of garbage is sent this many times. */
constexpr int kRounds = 150;
/* What the daemon and a TA instance may write for each place in their code
 * a client's garbage reaches, per 10 s: the log's rate limit, with room. */
constexpr int kLinesPerPlacePerWindow = 10;
constexpr int kPlaces = 5;

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
