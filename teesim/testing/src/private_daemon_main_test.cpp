/* teesim-private-daemon, driven as a harness drives it: through its stdin
 * and stdout. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "teesim/paths.h"
#include "teesim/testing/temp_folder.h"

#ifndef TEESIM_PRIVATE_DAEMON_CLI
#error "TEESIM_PRIVATE_DAEMON_CLI must name the teesim-private-daemon executable"
#endif

namespace teesim::testing {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/* Only a hung program takes this long to answer; the test then fails
 * instead of hanging. */
constexpr auto kAnswerDeadline = std::chrono::seconds(60);

/* The program as a child with pipes on stdin, stdout and stderr. */
class Cli {
 public:
  explicit Cli(const std::vector<std::string>& args) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0)
      return;
    /* (after the emulator's words when this build is for another CPU) */
    std::vector<std::string> full = teesim::paths::emulator();
    full.push_back(TEESIM_PRIVATE_DAEMON_CLI);
    full.insert(full.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : full) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      ::dup2(err[1], 2);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    in_ = in[1];
    out_ = out[0];
    err_ = err[0];
  }
  ~Cli() {
    CloseInput();
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) ::close(out_);
    if (err_ >= 0) ::close(err_);
  }
  Cli(const Cli&) = delete;
  Cli& operator=(const Cli&) = delete;

  bool Send(const std::string& line) {
    const std::string text = line + "\n";
    return in_ >= 0 && ::write(in_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }
  void CloseInput() {
    if (in_ >= 0) ::close(in_);
    in_ = -1;
  }

  /* The next line of stdout without its newline; "<eof>" at the end,
   * "<timeout>" when none comes before the deadline. */
  std::string Line() {
    const auto deadline = Clock::now() + kAnswerDeadline;
    for (;;) {
      size_t nl = pending_.find('\n');
      if (nl != std::string::npos) {
        std::string line = pending_.substr(0, nl);
        pending_.erase(0, nl + 1);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return "<timeout>";
      pollfd p{out_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
      char buf[512];
      ssize_t n = ::read(out_, buf, sizeof buf);
      if (n <= 0) return "<eof>";
      pending_.append(buf, static_cast<size_t>(n));
    }
  }

  /* Everything the program wrote to stderr (call once it has exited). */
  std::string ErrorText() {
    std::string text;
    char buf[512];
    ssize_t n;
    while ((n = ::read(err_, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
    return text;
  }

  /* Waits for the program to exit; returns its exit status, or -1 when it
   * was killed by a signal or did not exit before the deadline. */
  int Wait() {
    const auto deadline = Clock::now() + kAnswerDeadline;
    int status = 0;
    pid_t r;
    while ((r = ::waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() < deadline)
      ::poll(nullptr, 0, 5);
    if (r != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int in_ = -1, out_ = -1, err_ = -1;
  std::string pending_;
};

/* The fields of a "ready key=value ..." line; empty unless it is one. */
std::map<std::string, std::string> ReadyFields(const std::string& line) {
  std::map<std::string, std::string> fields;
  std::istringstream words(line);
  std::string word;
  if (!(words >> word) || word != "ready") return fields;
  while (words >> word) {
    size_t eq = word.find('=');
    if (eq != std::string::npos) fields[word.substr(0, eq)] = word.substr(eq + 1);
  }
  return fields;
}

bool Accepts(const std::string& path) {
  sockaddr_un addr{};
  if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
  addr.sun_family = AF_UNIX;
  path.copy(addr.sun_path, path.size());
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

bool Alive(pid_t pid) { return pid > 0 && ::kill(pid, 0) == 0; }

class PrivateDaemonCli : public ::testing::Test {
 protected:
  TempFolder tas_{"tas"};
  TempFolder parent_{"parent"};
  std::vector<std::string> Args() const { return {"--ta-dir", tas_.path(), "--parent", parent_.path()}; }
};

TEST_F(PrivateDaemonCli, ReportsReadyAndAnswersStopStartKillUntilTheEndOfInput) {
  Cli cli(Args());
  auto ready = ReadyFields(cli.Line());
  ASSERT_EQ(ready.size(), 6u);
  const std::string folder = ready["folder"];
  EXPECT_EQ(fs::path(folder).parent_path(), fs::path(parent_.path()));
  EXPECT_EQ(ready["socket"], folder + "/teesim.sock");
  EXPECT_EQ(ready["storage"], folder + "/storage");
  EXPECT_EQ(ready["log"], folder + "/teesim.log");
  EXPECT_EQ(ready["client_log"], folder + "/client.log");
  EXPECT_TRUE(Accepts(ready["socket"]));
  const pid_t first = static_cast<pid_t>(std::stol(ready["pid"]));
  EXPECT_TRUE(Alive(first));

  ASSERT_TRUE(cli.Send("hello"));
  EXPECT_EQ(cli.Line(), "error unknown command");
  ASSERT_TRUE(cli.Send(""));
  ASSERT_TRUE(cli.Send("stop"));
  EXPECT_EQ(cli.Line(), "stopped 0");
  EXPECT_FALSE(Alive(first));
  EXPECT_FALSE(fs::exists(ready["socket"]));
  ASSERT_TRUE(cli.Send("stop"));
  EXPECT_EQ(cli.Line(), "stopped -1");

  ASSERT_TRUE(cli.Send("start"));
  auto again = ReadyFields(cli.Line());
  ASSERT_EQ(again.size(), 6u);
  EXPECT_EQ(again["folder"], folder);
  EXPECT_EQ(again["storage"], ready["storage"]);
  EXPECT_TRUE(Accepts(again["socket"]));
  const pid_t second = static_cast<pid_t>(std::stol(again["pid"]));
  EXPECT_TRUE(Alive(second));

  ASSERT_TRUE(cli.Send("kill"));
  EXPECT_EQ(cli.Line(), "stopped 137");
  EXPECT_FALSE(Alive(second));

  ASSERT_TRUE(cli.Send("start"));
  auto third = ReadyFields(cli.Line());
  ASSERT_EQ(third.size(), 6u);
  const pid_t last = static_cast<pid_t>(std::stol(third["pid"]));
  cli.CloseInput();
  EXPECT_EQ(cli.Line(), "<eof>");
  EXPECT_EQ(cli.Wait(), 0);
  EXPECT_FALSE(Alive(last));
  EXPECT_FALSE(fs::exists(folder));
}

TEST_F(PrivateDaemonCli, SigtermStopsTheDaemonAndRemovesTheFolder) {
  for (int sig : {SIGTERM, SIGINT}) {
    Cli cli(Args());
    auto ready = ReadyFields(cli.Line());
    ASSERT_EQ(ready.size(), 6u) << "signal " << sig;
    const pid_t daemon = static_cast<pid_t>(std::stol(ready["pid"]));
    ASSERT_EQ(::kill(cli.pid(), sig), 0);
    EXPECT_EQ(cli.Wait(), 0) << "signal " << sig;
    EXPECT_FALSE(Alive(daemon)) << "signal " << sig;
    EXPECT_FALSE(fs::exists(ready["folder"])) << "signal " << sig;
  }
}

TEST_F(PrivateDaemonCli, ExtraOptionsGoToTheDaemonAndAFailedFirstStartSaysWhy) {
  std::vector<std::string> args = Args();
  args.insert(args.end(), {"--", "--log-level", "chatty"});
  Cli cli(args);
  const std::string line = cli.Line();
  EXPECT_EQ(line.rfind("failed ", 0), 0u) << line;
  EXPECT_NE(line.find("ended during start-up (exit status 2)"), std::string::npos) << line;
  EXPECT_EQ(cli.Line(), "<eof>") << "one line only";
  EXPECT_EQ(cli.Wait(), 1);
  EXPECT_NE(cli.ErrorText().find("unknown log level 'chatty'"), std::string::npos);
  EXPECT_TRUE(fs::is_empty(parent_.path())) << "the private folder is gone";
}

TEST_F(PrivateDaemonCli, ADaemonThatCannotRunFailsTheFirstStart) {
  std::vector<std::string> args = Args();
  args.insert(args.end(), {"--daemon", parent_.path() + "/no-such-teesim"});
  Cli cli(args);
  EXPECT_EQ(cli.Line(), "failed cannot run " + parent_.path() + "/no-such-teesim: No such file or directory");
  EXPECT_EQ(cli.Wait(), 1);
}

TEST_F(PrivateDaemonCli, UsageErrorsExitWithStatusTwo) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--bogus"}, std::vector<std::string>{"--daemon"},
        std::vector<std::string>{"--parent"}, std::vector<std::string>{"stray"}}) {
    Cli cli(args);
    EXPECT_EQ(cli.Line(), "<eof>") << args[0];
    EXPECT_EQ(cli.Wait(), 2) << args[0];
    EXPECT_NE(cli.ErrorText().find("usage: teesim-private-daemon"), std::string::npos) << args[0];
  }
  Cli help({"--help"});
  EXPECT_EQ(help.Line().rfind("usage: teesim-private-daemon", 0), 0u);
  EXPECT_EQ(help.Wait(), 0);
}

}  // namespace
}  // namespace teesim::testing
