/* The rules of teesim/paths.h, for root and for other users, with and
 * without each variable. */
#include "teesim/paths.h"

#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace teesim::paths {
namespace {

/* An environment made of a map, for a chosen user. */
class FakeEnv {
 public:
  explicit FakeEnv(uid_t euid, std::string passwd_home = "/home/pw") {
    env_.get = [this](const char* name) -> const char* {
      auto it = vars_.find(name);
      return it == vars_.end() ? nullptr : it->second.c_str();
    };
    env_.euid = euid;
    env_.passwd_home = [this] {
      ++passwd_asked_;
      return passwd_home_;
    };
    passwd_home_ = std::move(passwd_home);
  }
  FakeEnv(const FakeEnv&) = delete;
  FakeEnv& operator=(const FakeEnv&) = delete;

  FakeEnv& set(const std::string& name, const std::string& value) {
    vars_[name] = value;
    return *this;
  }
  const Environment& env() const { return env_; }
  int passwd_asked() const { return passwd_asked_; }

 private:
  Environment env_;
  std::map<std::string, std::string> vars_;
  std::string passwd_home_;
  int passwd_asked_ = 0;
};

TEST(Paths, RootGetsSystemFoldersWhateverTheXdgVariablesSay) {
  FakeEnv e(0);
  e.set("XDG_RUNTIME_DIR", "/run/user/0").set("XDG_DATA_HOME", "/root/data").set("HOME", "/root");
  EXPECT_EQ(socket_path(e.env()), "/run/teesim/teesim.sock");
  EXPECT_EQ(storage_dir(e.env()), "/var/lib/teesim");
}

TEST(Paths, OtherUsersGetTheirXdgFolders) {
  FakeEnv e(1000);
  e.set("XDG_RUNTIME_DIR", "/run/user/1000").set("XDG_DATA_HOME", "/home/u/data").set("HOME", "/home/u");
  EXPECT_EQ(socket_path(e.env()), "/run/user/1000/teesim.sock");
  EXPECT_EQ(storage_dir(e.env()), "/home/u/data/teesim");
  EXPECT_EQ(e.passwd_asked(), 0);
}

TEST(Paths, WithoutAUsableRuntimeFolderTheSocketGoesToAPerUserTmpFolder) {
  FakeEnv unset(1000);
  EXPECT_EQ(socket_path(unset.env()), "/tmp/teesim-1000/teesim.sock");
  FakeEnv relative(1234);
  relative.set("XDG_RUNTIME_DIR", "run/user/1234");
  EXPECT_EQ(socket_path(relative.env()), "/tmp/teesim-1234/teesim.sock");
  FakeEnv empty(77);
  empty.set("XDG_RUNTIME_DIR", "");
  EXPECT_EQ(socket_path(empty.env()), "/tmp/teesim-77/teesim.sock");
}

TEST(Paths, WithoutAUsableDataFolderStorageFallsBackToTheHomeFolder) {
  FakeEnv home(1000);
  home.set("HOME", "/home/u").set("XDG_DATA_HOME", "relative/data");
  EXPECT_EQ(storage_dir(home.env()), "/home/u/.local/share/teesim");
  EXPECT_EQ(home.passwd_asked(), 0);

  FakeEnv no_home(1000, "/home/from-passwd");
  EXPECT_EQ(storage_dir(no_home.env()), "/home/from-passwd/.local/share/teesim");
  EXPECT_EQ(no_home.passwd_asked(), 1);

  FakeEnv relative_home(1000, "/home/from-passwd");
  relative_home.set("HOME", "u");
  EXPECT_EQ(storage_dir(relative_home.env()), "/home/from-passwd/.local/share/teesim");

  FakeEnv nowhere(1000, "");
  EXPECT_EQ(storage_dir(nowhere.env()), "/tmp/.local/share/teesim");
  FakeEnv relative_passwd(1000, "not/absolute");
  EXPECT_EQ(storage_dir(relative_passwd.env()), "/tmp/.local/share/teesim");
}

TEST(Paths, VariablesOverrideTheDefaultsForEveryUser) {
  for (uid_t uid : {0u, 1000u}) {
    FakeEnv e(uid);
    e.set("TEESIM_SOCKET", "/s/x.sock").set("TEESIM_STORAGE_DIR", "/s/store");
    e.set("TEESIM_TA_DIR", "/s/ta").set("TEESIM_DAEMON", "/s/teesim");
    e.set("XDG_RUNTIME_DIR", "/run/user/1000").set("XDG_DATA_HOME", "/home/u/data");
    EXPECT_EQ(socket_path(e.env()), "/s/x.sock") << "uid " << uid;
    EXPECT_EQ(storage_dir(e.env()), "/s/store") << "uid " << uid;
    EXPECT_EQ(ta_dir(e.env()), "/s/ta") << "uid " << uid;
    EXPECT_EQ(daemon_path(e.env()), "/s/teesim") << "uid " << uid;
  }
}

TEST(Paths, EmptyVariablesAreUnsetExceptThatAnEmptyDaemonMeansNeverStartOne) {
  FakeEnv e(1000);
  e.set("TEESIM_SOCKET", "").set("TEESIM_STORAGE_DIR", "").set("TEESIM_TA_DIR", "");
  e.set("TEESIM_DAEMON", "").set("XDG_RUNTIME_DIR", "/run/user/1000").set("HOME", "/home/u");
  EXPECT_EQ(socket_path(e.env()), "/run/user/1000/teesim.sock");
  EXPECT_EQ(storage_dir(e.env()), "/home/u/.local/share/teesim");
  EXPECT_EQ(ta_dir(e.env()), TEESIM_BUILD_TA_DIR);
  EXPECT_EQ(daemon_path(e.env()), "");
}

TEST(Paths, TheTaFolderAndTheDaemonDefaultToTheBuildsOwn) {
  FakeEnv e(1000);
  EXPECT_EQ(ta_dir(e.env()), TEESIM_BUILD_TA_DIR);
  EXPECT_EQ(daemon_path(e.env()), TEESIM_BUILD_DAEMON);
}

TEST(Paths, TheProcessRulesReadThisProcessesEnvironment) {
  ::setenv("TEESIM_SOCKET", "/from/the/process.sock", 1);
  ::setenv("TEESIM_DAEMON", "", 1);
  EXPECT_EQ(socket_path(), "/from/the/process.sock");
  EXPECT_EQ(daemon_path(), "");
  ::unsetenv("TEESIM_SOCKET");
  ::unsetenv("TEESIM_DAEMON");
  EXPECT_EQ(daemon_path(), TEESIM_BUILD_DAEMON);
  EXPECT_EQ(process_environment().euid, ::geteuid());
}

TEST(Paths, ParentFolder) {
  EXPECT_EQ(parent_dir("/a/b/c"), "/a/b");
  EXPECT_EQ(parent_dir("/c"), "/");
  EXPECT_EQ(parent_dir("c"), ".");
  EXPECT_EQ(parent_dir("a/c"), "a");
}

TEST(Paths, CommandWordsSplitAtSpacesAndSkipEmptyWords) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(command_words("qemu-arm-static -L /usr/arm-linux-gnueabihf"),
            (Words{"qemu-arm-static", "-L", "/usr/arm-linux-gnueabihf"}));
  EXPECT_EQ(command_words("  /usr/bin/qemu-aarch64-static   "), Words{"/usr/bin/qemu-aarch64-static"});
  EXPECT_EQ(command_words(""), Words{});
  EXPECT_EQ(command_words("   "), Words{});
}

TEST(Paths, TheEmulatorIsTeesimEmulatorAndNoneWithoutIt) {
  using Words = std::vector<std::string>;
  FakeEnv none(1000);
  EXPECT_EQ(emulator(none.env()), Words{});
  FakeEnv blank(1000);
  blank.set("TEESIM_EMULATOR", " ");
  EXPECT_EQ(emulator(blank.env()), Words{});
  FakeEnv qemu(0);
  qemu.set("TEESIM_EMULATOR", "qemu-aarch64-static -cpu max");
  EXPECT_EQ(emulator(qemu.env()), (Words{"qemu-aarch64-static", "-cpu", "max"}));
}

}  // namespace
}  // namespace teesim::paths
