/* libteec never waits forever to reach a daemon: a socket whose owner takes
 * no connection gives an error within the library's documented bounds. */
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support.h"

namespace faults {
namespace {

/* A listening socket nobody accepts on. */
class DeafListener {
 public:
  explicit DeafListener(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    ok_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
          ::listen(fd_, 1) == 0;
  }
  ~DeafListener() { close(); }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  bool ok() const { return ok_; }

 private:
  int fd_ = -1;
  bool ok_ = false;
};

TEST(ConnectBound, AFullBacklogGivesBusyInsteadOfBlocking) {
  teesim::testing::TempFolder folder("teesim-deaf");
  const std::string socket = folder.path() + "/teesim.sock";
  DeafListener deaf(socket);
  ASSERT_TRUE(deaf.ok());
  SilentConnections backlog(socket, 100);
  ASSERT_GT(backlog.count(), 0);
  ::setenv("TEESIM_DAEMON", "", 1); /* never start a daemon of our own */

  TEEC_Result r = TEEC_SUCCESS;
  TEEC_Context ctx{};
  /* Closing the listener frees a connect that blocks, so the test ends. */
  int hung = run_bounded(1, [&](int) { r = TEEC_InitializeContext(socket.c_str(), &ctx); },
                         [&] { deaf.close(); });
  ASSERT_EQ(hung, 0) << "TEEC_InitializeContext blocked on a daemon that takes no connection";
  EXPECT_EQ(teesim::testing::ResultName(r), teesim::testing::ResultName(TEEC_ERROR_BUSY));
  if (r == TEEC_SUCCESS) TEEC_FinalizeContext(&ctx);
}

}  // namespace
}  // namespace faults
