#include "teesim/paths.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

#ifndef TEESIM_BUILD_TA_DIR
#error "TEESIM_BUILD_TA_DIR must name the build's TA folder"
#endif
#ifndef TEESIM_BUILD_DAEMON
#error "TEESIM_BUILD_DAEMON must name the build's teesim executable"
#endif

namespace teesim::paths {
namespace {

const char* env(const char* name) { return ::secure_getenv(name); }

std::string home_dir() {
  const char* h = env("HOME");
  if (h != nullptr && h[0] == '/') return h;
  long n = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(n > 0 ? static_cast<size_t>(n) : 16384);
  passwd pw{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr && found->pw_dir[0] == '/')
    return found->pw_dir;
  return "/tmp";
}

}  // namespace

std::string socket_path() {
  const char* s = env("TEESIM_SOCKET");
  if (s != nullptr && s[0] != '\0') return s;
  if (::geteuid() == 0) return "/run/teesim/teesim.sock";
  const char* run = env("XDG_RUNTIME_DIR");
  if (run != nullptr && run[0] == '/') return std::string(run) + "/teesim.sock";
  return "/tmp/teesim-" + std::to_string(::geteuid()) + "/teesim.sock";
}

std::string storage_dir() {
  const char* s = env("TEESIM_STORAGE_DIR");
  if (s != nullptr && s[0] != '\0') return s;
  if (::geteuid() == 0) return "/var/lib/teesim";
  const char* data = env("XDG_DATA_HOME");
  if (data != nullptr && data[0] == '/') return std::string(data) + "/teesim";
  return home_dir() + "/.local/share/teesim";
}

std::string ta_dir() {
  const char* s = env("TEESIM_TA_DIR");
  if (s != nullptr && s[0] != '\0') return s;
  return TEESIM_BUILD_TA_DIR;
}

std::string daemon_path() {
  const char* s = env("TEESIM_DAEMON");
  if (s != nullptr) return s;
  return TEESIM_BUILD_DAEMON;
}

std::vector<std::string> command_words(const std::string& command) {
  std::vector<std::string> words;
  size_t at = 0;
  while (at < command.size()) {
    size_t space = command.find(' ', at);
    if (space == std::string::npos) space = command.size();
    if (space > at) words.push_back(command.substr(at, space - at));
    at = space + 1;
  }
  return words;
}

std::vector<std::string> emulator() {
  const char* s = env("TEESIM_EMULATOR");
  return s != nullptr ? command_words(s) : std::vector<std::string>();
}

std::string parent_dir(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace teesim::paths
