/* libteec's log sink: the platform log's file lines, and syslog datagrams
 * under its own identity. */
#include "client_log.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "teesim/testing/temp_folder.h"

namespace teec::log {
namespace {

using teesim::testing::TempFolder;

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(ClientLog, FileLinesHaveThePlatformLogsFormat) {
  EXPECT_EQ(file_line(Level::Info, "started"), "[4] TEEC: started\n");
  EXPECT_EQ(file_line(Level::Warn, "careful"), "[5] TEEC: careful\n");
  EXPECT_EQ(file_line(Level::Error, "broken"), "[6] TEEC: broken\n");
}

TEST(ClientLog, SyslogDatagramsCarryTheUserFacilityTheSeverityAndOurIdentity) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  /* 2024-03-05 07:08:09 UTC */
  const time_t when = 1709622489;
  EXPECT_EQ(syslog_datagram(Level::Error, "broken", when, 4321), "<11>Mar  5 07:08:09 TEEC[4321]: broken");
  EXPECT_EQ(syslog_datagram(Level::Warn, "careful", when, 1), "<12>Mar  5 07:08:09 TEEC[1]: careful");
  EXPECT_EQ(syslog_datagram(Level::Info, "fine", when, 1), "<14>Mar  5 07:08:09 TEEC[1]: fine");
}

TEST(ClientLog, WriteAppendsOneLineEachToTheDlogFile) {
  TempFolder dir("client-log");
  const std::string path = dir.path() + "/client.log";
  ::setenv("DLOG_FILE", path.c_str(), 1);
  write(Level::Error, "TEEC_OpenSession: the TEE daemon at %s is gone", "/x.sock");
  write(Level::Info, "line with its own newline %d\n", 7);
  ::unsetenv("DLOG_FILE");
  write(Level::Warn, "not in the file");
  EXPECT_EQ(Read(path),
            "[6] TEEC: TEEC_OpenSession: the TEE daemon at /x.sock is gone\n"
            "[4] TEEC: line with its own newline 7\n");
}

TEST(ClientLog, AppendAddsToWhatIsThereAndFailsOnAFolderThatIsNot) {
  TempFolder dir("client-log");
  const std::string path = dir.path() + "/log";
  EXPECT_TRUE(append_line(path, "one\n"));
  EXPECT_TRUE(append_line(path, "two\n"));
  EXPECT_EQ(Read(path), "one\ntwo\n");
  EXPECT_FALSE(append_line(dir.path() + "/missing/log", "x\n"));
}

TEST(ClientLog, DatagramsReachASyslogSocket) {
  TempFolder dir("client-log");
  const std::string path = dir.path() + "/log.sock";
  int sink = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(sink, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  path.copy(addr.sun_path, path.size());
  ASSERT_EQ(::bind(sink, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

  const std::string datagram = syslog_datagram(Level::Warn, "hello", 0, 99);
  ASSERT_TRUE(send_datagram(path, datagram));
  char buf[256];
  ssize_t n = ::recv(sink, buf, sizeof buf, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buf, static_cast<size_t>(n)), datagram);
  ::close(sink);

  EXPECT_FALSE(send_datagram(dir.path() + "/nobody.sock", datagram));
}

}  // namespace
}  // namespace teec::log
