/* The pid file: taken with our pid, refused while held, removed by a clean stop. */
#include "daemon/pid_file.h"

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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

/* Runs `tail <folder>/<name>` under the command name "qemu-fake" (a link to
 * tail), blocked on opening a FIFO; returns its pid. posix_spawn returns
 * once the program runs, so its name and command line are in place. */
pid_t spawn_as_emulator(const std::string& folder, const std::string& name) {
  const std::string link = folder + "/qemu-fake", fifo = folder + "/" + name;
  std::filesystem::create_symlink("/usr/bin/tail", link);
  if (::mkfifo(fifo.c_str(), 0600) != 0) return -1;
  std::string arg0 = link, arg1 = fifo;
  char* argv[] = {arg0.data(), arg1.data(), nullptr};
  pid_t pid = -1;
  if (::posix_spawn(&pid, link.c_str(), nullptr, nullptr, argv, environ) != 0) return -1;
  return pid;
}

void end(pid_t pid) {
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

TEST(PidFile, ATeesimUnderAnEmulatorCounts) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  const pid_t pid = spawn_as_emulator(folder.path(), "teesim");
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(is_running_teesim(pid));
  end(pid);
}

TEST(PidFile, AnEmulatorRunningAnotherProgramDoesNotCount) {
  ::teesim::testing::TempFolder folder("teesim-pid");
  const pid_t pid = spawn_as_emulator(folder.path(), "teesim-not");
  ASSERT_GT(pid, 0);
  EXPECT_FALSE(is_running_teesim(pid));
  end(pid);
}

}  // namespace
}  // namespace teesim::daemon
