/* The teesim command: options, clear errors, one daemon per socket, clean
 * stops, the background mode, deterministic random numbers for tests. */
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support.h"

namespace conformance {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(DaemonCommand, HelpDescribesEveryOption) {
  PrivateDaemon d;
  std::string out;
  EXPECT_EQ(d.RunCommand({"--help"}, &out), 0);
  for (const char* opt : {"--socket", "--ta-dir", "--storage-dir", "--foreground", "--background",
                          "--log-level", "--random-seed", "--wipe-storage", "--emulator",
                          "--new-installation-key", "--max-clients-per-user",
                          "--max-operation-memory", "--max-session-shm", "TEESIM_SOCKET",
                          "TEESIM_EMULATOR"})
    EXPECT_NE(out.find(opt), std::string::npos) << opt;
}

TEST(DaemonCommand, TheEmulatorOptionRunsEachTaHostThroughIt) {
  PrivateDaemon d;
  const std::string record = d.Folder() + "/emulated";
  ASSERT_TRUE(d.Start({"--emulator", recording_emulator(d.Folder(), record)})) << d.Error();
  use_daemon(d);
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  const std::string text = read_text(record);
  EXPECT_NE(text.find("/teesim-tahost 7e57a000-5e55-4d0e-9a11-000000000001 " +
                      std::to_string(d.Pid()) + "\n"),
            std::string::npos)
      << text;
}

TEST(DaemonCommand, BadOptionsAreExplained) {
  PrivateDaemon d;
  std::string err;
  EXPECT_EQ(d.RunCommand({"--no-such-option"}, &err), 2);
  EXPECT_NE(err.find("unknown option '--no-such-option'"), std::string::npos) << err;
  EXPECT_EQ(d.RunCommand({"--log-level", "chatty"}, &err), 2);
  EXPECT_NE(err.find("unknown log level 'chatty'"), std::string::npos) << err;
}

TEST(DaemonCommand, AMissingTaFolderIsNamed) {
  PrivateDaemon d;
  std::string err;
  EXPECT_EQ(d.RunCommand({"--foreground", "--socket", d.Socket(), "--storage-dir", d.StorageDir(),
                           "--ta-dir", "/nonexistent/tas"},
                          &err),
            2);
  EXPECT_NE(err.find("TA folder /nonexistent/tas: No such file or directory"), std::string::npos) << err;
  EXPECT_FALSE(fs::exists(d.Socket()));
}

TEST(DaemonCommand, AStorageFolderOthersMayWriteIsRefused) {
  PrivateDaemon d;
  fs::create_directories(d.StorageDir());
  ::chmod(d.StorageDir().c_str(), 0777);
  std::string err;
  EXPECT_EQ(d.RunCommand(std::vector<std::string>{"--foreground"} + folder_args(d), &err), 2);
  EXPECT_NE(err.find("writable by other users"), std::string::npos) << err;
}

TEST(DaemonCommand, AnOccupiedSocketIsRefused) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  std::string err;
  PrivateDaemon other; /* other folders, same socket */
  EXPECT_EQ(other.RunCommand({"--foreground", "--socket", d.Socket(), "--ta-dir", other.TaDir(),
                               "--storage-dir", other.StorageDir()},
                              &err),
            3);
  EXPECT_NE(err.find("another teesim already serves " + d.Socket()), std::string::npos) << err;
  EXPECT_NE(err.find("(pid " + std::to_string(d.Pid()) + ")"), std::string::npos) << err;
  /* the same storage under another socket is refused as well */
  EXPECT_EQ(other.RunCommand({"--foreground", "--socket", other.Socket(), "--ta-dir", other.TaDir(),
                               "--storage-dir", d.StorageDir()},
                              &err),
            2);
  EXPECT_NE(err.find("is in use by another teesim"), std::string::npos) << err;
}

TEST(DaemonCommand, SomethingElseAtTheSocketPathIsRefused) {
  PrivateDaemon d;
  std::ofstream(d.Socket()) << "a plain file";
  std::string err;
  EXPECT_EQ(d.RunCommand(std::vector<std::string>{"--foreground"} + folder_args(d), &err), 2);
  EXPECT_NE(err.find("exists and is not a socket"), std::string::npos) << err;
  fs::remove(d.Socket());
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", d.Socket().c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::listen(fd, 1), 0);
  EXPECT_EQ(d.RunCommand(std::vector<std::string>{"--foreground"} + folder_args(d), &err), 3);
  EXPECT_NE(err.find("in use by another program"), std::string::npos) << err;
  ::close(fd);
}

TEST(DaemonCommand, SigtermStopsItCleanly) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_TRUE(fs::exists(d.Socket()));
  EXPECT_EQ(d.Stop(), 0);
  EXPECT_FALSE(fs::exists(d.Socket()));
  EXPECT_NE(d.LogText().find("teesim stopped"), std::string::npos);
  ASSERT_TRUE(d.Start()) << "and it starts again on the same folders";
}

TEST(DaemonCommand, TheBackgroundModeReturnsOnceServing) {
  PrivateDaemon d;
  std::string err;
  ASSERT_EQ(d.RunCommand(std::vector<std::string>{"--background", "--log-file", d.Folder() + "/bg.log"} +
                              folder_args(d),
                          &err),
            0)
      << err;
  use_daemon(d);
  {
    Client c;
    ASSERT_RESULT(c.init_result(), TEEC_SUCCESS) << "serving when the command returned";
    EXPECT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  }
  std::ifstream lock(d.Socket() + ".lock");
  pid_t pid = 0;
  lock >> pid;
  ASSERT_GT(pid, 0);
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  EXPECT_TRUE(eventually([&] { return !fs::exists(d.Socket()); }));
  EXPECT_NE(read_text(d.Folder() + "/bg.log").find("teesim stopped"), std::string::npos);

  /* a failure in the background is reported by the command itself */
  EXPECT_EQ(d.RunCommand({"--background", "--socket", d.Socket(), "--storage-dir", d.StorageDir(),
                           "--ta-dir", "/nonexistent/tas"},
                          &err),
            2);
  EXPECT_NE(err.find("TA folder /nonexistent/tas"), std::string::npos) << err;
}

TEST(DaemonCommand, ThePidFileNamesTheDaemonAndGoesWithACleanStop) {
  PrivateDaemon d;
  const std::string pid_file = d.Socket() + ".lock";
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(read_text(pid_file), std::to_string(d.Pid()) + "\n");
  EXPECT_EQ(d.Stop(), 0);
  EXPECT_FALSE(fs::exists(pid_file)) << "a clean stop removes the pid file";

  /* A crash leaves the file with a dead pid; it does not stand in the way. */
  ASSERT_TRUE(d.Start()) << d.Error();
  const pid_t crashed = d.Pid();
  d.Kill();
  EXPECT_EQ(read_text(pid_file), std::to_string(crashed) + "\n");
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(read_text(pid_file), std::to_string(d.Pid()) + "\n");
  EXPECT_EQ(d.Stop(), 0);

  /* Nor does a file naming a live process that is not a teesim (ours). */
  std::ofstream(pid_file) << ::getpid() << "\n";
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(read_text(pid_file), std::to_string(d.Pid()) + "\n");
}

TEST(DaemonCommand, SighupReopensTheLogFileForRotation) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  ASSERT_TRUE(eventually([&] { return d.LogText().find("serving") != std::string::npos; }));
  const std::string rotated = d.LogPath() + ".1";
  fs::rename(d.LogPath(), rotated);
  ASSERT_EQ(::kill(d.Pid(), SIGHUP), 0);
  /* The new file appears when the daemon has reopened its log. */
  ASSERT_TRUE(eventually([&] { return fs::exists(d.LogPath()); })) << "no new log file";
  EXPECT_EQ(d.Stop(), 0) << "SIGHUP does not end the daemon";
  EXPECT_NE(d.LogText().find("teesim stopped"), std::string::npos) << "the next lines go to the new file";
  const std::string old = read_text(rotated);
  EXPECT_NE(old.find("serving"), std::string::npos) << old;
  EXPECT_EQ(old.find("teesim stopped"), std::string::npos) << old;
}

std::string random_bytes(size_t n) {
  Client c;
  if (c.open(kTestTa) != TEEC_SUCCESS) return "";
  std::string out(n, '\0');
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {out.data(), n};
  uint32_t origin;
  if (TEEC_InvokeCommand(c.session(), TEST_CMD_RANDOM, &op, &origin) != TEEC_SUCCESS) return "";
  return out;
}

std::string random_from_fresh_daemon(const std::vector<std::string>& extra, std::string* log) {
  PrivateDaemon d;
  if (!d.Start(extra)) return "";
  use_daemon(d);
  std::string r = random_bytes(64);
  if (log != nullptr) *log = d.LogText();
  return r;
}

TEST(DaemonCommand, ARandomSeedMakesRandomNumbersRepeatAndSaysSoLoudly) {
  std::string log;
  std::string a = random_from_fresh_daemon({"--random-seed", "tessera"}, &log);
  std::string b = random_from_fresh_daemon({"--random-seed", "tessera"}, nullptr);
  std::string c = random_from_fresh_daemon({"--random-seed", "tesserb"}, nullptr);
  std::string os1 = random_from_fresh_daemon({}, nullptr);
  std::string os2 = random_from_fresh_daemon({}, nullptr);
  ASSERT_EQ(a.size(), 64u);
  EXPECT_EQ(a, b) << "the same seed gives the same numbers";
  EXPECT_NE(a, c);
  EXPECT_NE(os1, os2) << "without a seed the numbers come from the OS";
  EXPECT_NE(log.find("WARNING: --random-seed is set: TEE_GenerateRandom is DETERMINISTIC"), std::string::npos)
      << log;
  EXPECT_NE(log.find("draws DETERMINISTIC random numbers"), std::string::npos) << log;
}

}  // namespace
}  // namespace conformance
