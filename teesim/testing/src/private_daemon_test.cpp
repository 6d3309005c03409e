/* PrivateDaemon: its folder layout, its life cycle and how it fails. */
#include "teesim/testing/private_daemon.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace teesim::testing {
namespace {

namespace fs = std::filesystem;

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

/* A daemon over an empty TA folder of its own: these tests need no TA. */
class PrivateDaemonTest : public ::testing::Test {
 protected:
  PrivateDaemon::Options Options() const {
    PrivateDaemon::Options o;
    o.ta_dir = tas_.path();
    o.parent = parent_.path();
    return o;
  }
  TempFolder tas_{"tas"};
  TempFolder parent_{"parent"};
};

TEST_F(PrivateDaemonTest, LaysItsFilesOutInOnePrivateFolder) {
  PrivateDaemon d(Options());
  EXPECT_EQ(fs::path(d.Folder()).parent_path(), fs::path(parent_.path()));
  EXPECT_TRUE(fs::is_directory(d.Folder()));
  EXPECT_EQ(d.Socket(), d.Folder() + "/teesim.sock");
  EXPECT_EQ(d.StorageDir(), d.Folder() + "/storage");
  EXPECT_EQ(d.LogPath(), d.Folder() + "/teesim.log");
  EXPECT_EQ(d.ClientLogPath(), d.Folder() + "/client.log");
  EXPECT_EQ(d.TaDir(), tas_.path());
  EXPECT_FALSE(d.Running());
  EXPECT_EQ(d.Pid(), -1);
}

TEST_F(PrivateDaemonTest, TheDefaultsAreThisBuildsDaemonAndTaFolder) {
  PrivateDaemon::Options o;
  EXPECT_EQ(o.daemon, BuiltDaemon());
  EXPECT_EQ(o.ta_dir, BuiltTaDir());
  EXPECT_EQ(o.parent, "");
  EXPECT_FALSE(o.copy_tas);
  EXPECT_EQ(::access(BuiltDaemon().c_str(), X_OK), 0) << BuiltDaemon();
}

TEST_F(PrivateDaemonTest, StartsServesStopsAndStartsAgainOnTheSameStorage) {
  PrivateDaemon d(Options());
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(d.Error(), "");
  EXPECT_TRUE(d.Running());
  EXPECT_GT(d.Pid(), 0);
  EXPECT_TRUE(fs::exists(d.Socket()));
  const std::string key = Read(d.StorageDir() + "/installation.key");
  EXPECT_EQ(key.size(), 32u);

  EXPECT_EQ(d.Stop(), 0);
  EXPECT_FALSE(d.Running());
  EXPECT_EQ(d.Pid(), -1);
  EXPECT_FALSE(fs::exists(d.Socket()));
  EXPECT_NE(d.LogText().find("teesim stopped"), std::string::npos) << d.LogText();
  EXPECT_EQ(d.Stop(), -1) << "not running any more";

  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(Read(d.StorageDir() + "/installation.key"), key) << "the storage survives";
}

TEST_F(PrivateDaemonTest, AStartWhileRunningIsRefused) {
  PrivateDaemon d(Options());
  ASSERT_TRUE(d.Start()) << d.Error();
  const pid_t pid = d.Pid();
  EXPECT_FALSE(d.Start());
  EXPECT_NE(d.Error().find("already runs (pid " + std::to_string(pid) + ")"), std::string::npos)
      << d.Error();
  EXPECT_EQ(d.Pid(), pid);
}

TEST_F(PrivateDaemonTest, ExtraArgumentsReachTheDaemon) {
  PrivateDaemon d(Options());
  ASSERT_TRUE(d.Start({"--log-level", "debug"})) << d.Error();
  EXPECT_EQ(d.Stop(), 0);
  EXPECT_NE(d.LogText().find(" debug: "), std::string::npos) << d.LogText();
}

TEST_F(PrivateDaemonTest, ADaemonThatCannotRunFailsTheStartWithTheReason) {
  PrivateDaemon::Options o = Options();
  o.daemon = parent_.path() + "/no-such-teesim";
  PrivateDaemon d(o);
  EXPECT_FALSE(d.Start());
  EXPECT_EQ(d.Error(), "cannot run " + o.daemon + ": No such file or directory");
  EXPECT_FALSE(d.Running());
}

TEST_F(PrivateDaemonTest, ADaemonThatEndsDuringStartUpFailsTheStartWithItsLog) {
  PrivateDaemon d(Options());
  EXPECT_FALSE(d.Start({"--log-level", "chatty"}));
  const std::string first_line = d.Error().substr(0, d.Error().find('\n'));
  EXPECT_EQ(first_line, BuiltDaemon() + " ended during start-up (exit status 2)");
  EXPECT_NE(d.Error().find("unknown log level 'chatty'"), std::string::npos) << d.Error();
  EXPECT_FALSE(d.Running());
}

TEST_F(PrivateDaemonTest, KillEndsTheDaemonAtOnceAndItCanStartAgain) {
  PrivateDaemon d(Options());
  ASSERT_TRUE(d.Start()) << d.Error();
  const pid_t pid = d.Pid();
  EXPECT_EQ(d.Kill(), 128 + SIGKILL);
  EXPECT_FALSE(d.Running());
  EXPECT_EQ(::kill(pid, 0), -1) << "reaped";
  EXPECT_EQ(d.Kill(), -1) << "nothing to do";
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(d.Stop(), 0);
}

TEST_F(PrivateDaemonTest, ADaemonThatDiesOnItsOwnIsNotRunning) {
  PrivateDaemon d(Options());
  ASSERT_TRUE(d.Start()) << d.Error();
  ASSERT_EQ(::kill(d.Pid(), SIGKILL), 0);
  /* Running() reaps it once the kernel has ended it; it cannot stay alive. */
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (d.Running() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_FALSE(d.Running());
  EXPECT_EQ(d.Stop(), -1);
  ASSERT_TRUE(d.Start()) << d.Error();
}

TEST_F(PrivateDaemonTest, TheDestructorStopsTheDaemonAndRemovesTheFolder) {
  std::string folder;
  pid_t pid = -1;
  {
    PrivateDaemon d(Options());
    ASSERT_TRUE(d.Start()) << d.Error();
    folder = d.Folder();
    pid = d.Pid();
  }
  EXPECT_FALSE(fs::exists(folder));
  EXPECT_EQ(::kill(pid, 0), -1) << "stopped and reaped";
}

TEST_F(PrivateDaemonTest, CopiedTasCanBeChangedWithoutTouchingTheSource) {
  std::ofstream(tas_.path() + "/a.ta") << "ta bytes";
  std::ofstream(tas_.path() + "/a.props") << "k = v\n";
  PrivateDaemon::Options o = Options();
  o.copy_tas = true;
  PrivateDaemon d(o);
  EXPECT_EQ(d.TaDir(), d.Folder() + "/ta");
  EXPECT_EQ(Read(d.TaDir() + "/a.ta"), "ta bytes");
  EXPECT_EQ(Read(d.TaDir() + "/a.props"), "k = v\n");
  std::ofstream(d.TaDir() + "/a.props") << "broken";
  EXPECT_EQ(Read(tas_.path() + "/a.props"), "k = v\n");
  ASSERT_TRUE(d.Start()) << d.Error();
  EXPECT_EQ(d.Stop(), 0); /* the log is complete once the daemon has ended */
  EXPECT_NE(d.LogText().find("TAs from " + d.TaDir()), std::string::npos) << "serves the copy:\n"
                                                                          << d.LogText();
}

TEST_F(PrivateDaemonTest, UseFromThisProcessPointsTheClientLibraryAtIt) {
  PrivateDaemon d(Options());
  ::setenv("TEESIM_DAEMON", "/usr/bin/somewhere", 1);
  d.UseFromThisProcess();
  EXPECT_STREQ(::getenv("TEESIM_SOCKET"), d.Socket().c_str());
  EXPECT_STREQ(::getenv("TEESIM_DAEMON"), "");
  EXPECT_STREQ(::getenv("DLOG_FILE"), d.ClientLogPath().c_str());
  ::unsetenv("TEESIM_SOCKET");
  ::unsetenv("TEESIM_DAEMON");
  ::unsetenv("DLOG_FILE");
}

TEST_F(PrivateDaemonTest, RunCommandRunsTheDaemonExecutableWithItsOwnArguments) {
  PrivateDaemon d(Options());
  std::string out;
  EXPECT_EQ(d.RunCommand({"--help"}, &out), 0);
  EXPECT_NE(out.find("--storage-dir"), std::string::npos) << out;
  EXPECT_EQ(d.RunCommand({"--no-such-option"}, &out), 2);
  EXPECT_NE(out.find("--no-such-option"), std::string::npos) << out;
  EXPECT_EQ(d.RunCommand({"--version"}, nullptr), 0);
  EXPECT_FALSE(d.Running()) << "a command is not the private daemon";
}

/* The daemon runs with PR_SET_PDEATHSIG: a test process that dies without
 * cleaning up takes its daemon with it. This process becomes a subreaper so
 * that it can watch the orphaned daemon end. */
TEST_F(PrivateDaemonTest, TheDaemonEndsWhenItsTestProcessDies) {
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  int pipefd[2];
  ASSERT_EQ(::pipe(pipefd), 0);
  const pid_t test = ::fork();
  if (test == 0) {
    ::close(pipefd[0]);
    auto* d = new PrivateDaemon(Options()); /* never destroyed: the process just dies */
    pid_t pid = d->Start() ? d->Pid() : -1;
    (void)!::write(pipefd[1], &pid, sizeof pid);
    ::pause(); /* until killed */
    ::_exit(0);
  }
  ::close(pipefd[1]);
  pid_t daemon = -1;
  ASSERT_EQ(::read(pipefd[0], &daemon, sizeof daemon), static_cast<ssize_t>(sizeof daemon));
  ::close(pipefd[0]);
  ASSERT_GT(daemon, 0);
  ::kill(test, SIGKILL);
  ASSERT_EQ(::waitpid(test, nullptr, 0), test);

  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  pid_t reaped = 0;
  while ((reaped = ::waitpid(daemon, &status, WNOHANG)) == 0 &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ::prctl(PR_SET_CHILD_SUBREAPER, 0);
  ASSERT_EQ(reaped, daemon) << "the orphaned daemon still runs";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "ended by its SIGTERM: " << status;
}

}  // namespace
}  // namespace teesim::testing
