/* The pid file: taken with our pid, refused while held, removed by a clean stop. */
#include "daemon/pid_file.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "teesim/testing/temp_folder.h"

namespace teesim::daemon {
namespace {

std::string text_of(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST(PidFile, HoldsOurPidAndIsRefusedToOthersWhileHeld) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  const std::string path = folder.path() + "/teesim.sock.lock";
  PidFile first, second;
  std::string err;
  ASSERT_EQ(first.take(path, &err), PidFile::Result::Taken) << err;
  EXPECT_EQ(text_of(path), std::to_string(::getpid()) + "\n");
  /* flock(2) locks belong to the open file, so a second open in this very
   * process is refused like another process would be. */
  ASSERT_EQ(second.take(path, &err), PidFile::Result::Busy);
  EXPECT_EQ(second.holder(), ::getpid());
  EXPECT_EQ(second.describe_holder(),
            "a process that is not teesim (the file names pid " + std::to_string(::getpid()) + ")");
  EXPECT_FALSE(second.held());

  first.remove();
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(first.held());
  ASSERT_EQ(second.take(path, &err), PidFile::Result::Taken) << err;
}

TEST(PidFile, ALeftoverFileIsTakenOverAndItsPidReplaced) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  const std::string path = folder.path() + "/teesim.sock.lock";
  std::ofstream(path) << "4194303123\n";
  PidFile f;
  std::string err;
  ASSERT_EQ(f.take(path, &err), PidFile::Result::Taken) << err;
  EXPECT_EQ(text_of(path), std::to_string(::getpid()) + "\n");
}

TEST(PidFile, AFolderThatIsMissingIsAnError) {
  PidFile f;
  std::string err;
  EXPECT_EQ(f.take("/nonexistent-folder/teesim.sock.lock", &err), PidFile::Result::Error);
  EXPECT_NE(err.find("cannot open /nonexistent-folder/teesim.sock.lock"), std::string::npos) << err;
}

TEST(PidFile, OnlyARunningTeesimCounts) {
  EXPECT_FALSE(is_running_teesim(::getpid())) << "this test program is not teesim";
  EXPECT_FALSE(is_running_teesim(0));
  EXPECT_FALSE(is_running_teesim(-1));
}

/* A `tail [options] <folder>/<name>` running under the command name
 * "qemu-fake" (a link to tail), blocked reading a FIFO that we hold open
 * for writing. */
struct FakeEmulator {
  pid_t pid = -1;
  int fifo_writer = -1;
  ~FakeEmulator() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
    if (fifo_writer >= 0) ::close(fifo_writer);
  }
};

/* Starts the fake emulator and returns once it has opened the FIFO, so its
 * exec (name and command line included) is complete: posix_spawn returns
 * before the kernel sets the new command name. */
bool start(FakeEmulator& e, const std::string& folder, const std::string& name,
           std::vector<std::string> options = {}) {
  const std::string link = folder + "/qemu-fake", fifo = folder + "/" + name;
  std::filesystem::create_symlink("/usr/bin/tail", link);
  if (::mkfifo(fifo.c_str(), 0600) != 0) return false;
  std::vector<std::string> words = {link};
  words.insert(words.end(), options.begin(), options.end());
  words.push_back(fifo);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  if (::posix_spawn(&e.pid, link.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return false;
  for (;;) {
    e.fifo_writer = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (e.fifo_writer >= 0) return true;
    if (errno != ENXIO || ::waitpid(e.pid, nullptr, WNOHANG) != 0) return false; /* no reader yet */
    ::usleep(1000);
  }
}

TEST(PidFile, ATeesimUnderAnEmulatorCounts) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  FakeEmulator e;
  ASSERT_TRUE(start(e, folder.path(), "teesim"));
  EXPECT_TRUE(is_running_teesim(e.pid));
}

/* As qemu-user is run with a sysroot: "-L <dir>" before the program. tail
 * takes "-n 1" the same way. */
TEST(PidFile, ATeesimUnderAnEmulatorWithOptionsCounts) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  FakeEmulator e;
  ASSERT_TRUE(start(e, folder.path(), "teesim", {"-n", "1"}));
  EXPECT_TRUE(is_running_teesim(e.pid));
}

TEST(PidFile, AnEmulatorRunningAnotherProgramDoesNotCount) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  FakeEmulator e;
  ASSERT_TRUE(start(e, folder.path(), "teesim-not"));
  EXPECT_FALSE(is_running_teesim(e.pid));
}

}  // namespace
}  // namespace teesim::daemon
