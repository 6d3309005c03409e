#include "TeesimDaemon.h"

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "teesim/paths.h"

extern char** environ;

namespace keystore_test {
namespace {

bool Accepts(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

void RemoveTree(const std::string& path) {
  if (path.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

}  // namespace

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

TeesimDaemon::TeesimDaemon(std::string daemon, std::string ta_dir, std::string storage_parent)
    : daemon_(std::move(daemon)), ta_dir_(std::move(ta_dir)) {
  std::string parent = storage_parent;
  if (parent.empty()) {
    const char* tmp = getenv("TMPDIR");
    parent = tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp";
  }
  std::string templ = parent + "/keystore-e2e-XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) != nullptr) folder_ = buf.data();
  socket_ = folder_ + "/teesim.sock";
  storage_ = folder_ + "/storage";
  log_ = folder_ + "/teesim.log";
}

TeesimDaemon::~TeesimDaemon() {
  Stop();
  RemoveTree(folder_);
}

bool TeesimDaemon::Start() {
  if (folder_.empty()) {
    error_ = "no temporary folder";
    return false;
  }
  if (pid_ > 0) return true;
  setenv("TEESIM_SOCKET", socket_.c_str(), 1);
  // A daemon built for another CPU runs through the emulator.
  std::vector<std::string> argv = teesim::paths::emulator();
  argv.insert(argv.end(), {daemon_, "--foreground", "--socket", socket_, "--ta-dir", ta_dir_,
                           "--storage-dir", storage_, "--log-file", log_});
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int rc = posix_spawnp(&pid_, args[0], nullptr, nullptr, args.data(), environ);
  if (rc != 0) {
    error_ = std::string("cannot start ") + args[0] + ": " + std::strerror(rc);
    pid_ = -1;
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    if (Accepts(socket_)) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      error_ = "teesim exited during start-up; its log:\n" + ReadFile(log_);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  error_ = "teesim did not accept connections within 10 s; its log:\n" + ReadFile(log_);
  Stop(true);
  return false;
}

void TeesimDaemon::Stop(bool kill_it) {
  if (pid_ <= 0) return;
  ::kill(pid_, kill_it ? SIGKILL : SIGTERM);
  // A daemon that does not end within 5 s of SIGTERM is killed: a test
  // never hangs on it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid_ = -1;
}

}  // namespace keystore_test
