/* Where teesim's pieces are found: the rules of teesim/paths.h. */
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

/* The variable's value when it is set and not empty, else nullptr. */
const char* set_value(const Environment& env, const char* name) {
  const char* v = env.get(name);
  return v != nullptr && v[0] != '\0' ? v : nullptr;
}

bool absolute(const char* p) { return p != nullptr && p[0] == '/'; }

std::string home_dir(const Environment& env) {
  const char* h = env.get("HOME");
  if (absolute(h)) return h;
  if (env.passwd_home) {
    std::string pw = env.passwd_home();
    if (absolute(pw.c_str())) return pw;
  }
  return "/tmp";
}

std::string passwd_home_of(uid_t uid) {
  long n = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(n > 0 ? static_cast<size_t>(n) : 16384);
  passwd pw{};
  passwd* found = nullptr;
  if (::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr)
    return found->pw_dir;
  return "";
}

}  // namespace

Environment process_environment() {
  Environment env;
  env.get = [](const char* name) -> const char* { return ::secure_getenv(name); };
  env.euid = ::geteuid();
  const uid_t uid = env.euid;
  env.passwd_home = [uid] { return passwd_home_of(uid); };
  return env;
}

std::string socket_path(const Environment& env) {
  if (const char* s = set_value(env, "TEESIM_SOCKET")) return s;
  if (env.euid == 0) return "/run/teesim/teesim.sock";
  const char* run = env.get("XDG_RUNTIME_DIR");
  if (absolute(run)) return std::string(run) + "/teesim.sock";
  return "/tmp/teesim-" + std::to_string(env.euid) + "/teesim.sock";
}

std::string storage_dir(const Environment& env) {
  if (const char* s = set_value(env, "TEESIM_STORAGE_DIR")) return s;
  if (env.euid == 0) return "/var/lib/teesim";
  const char* data = env.get("XDG_DATA_HOME");
  if (absolute(data)) return std::string(data) + "/teesim";
  return home_dir(env) + "/.local/share/teesim";
}

std::string ta_dir(const Environment& env) {
  if (const char* s = set_value(env, "TEESIM_TA_DIR")) return s;
  return TEESIM_BUILD_TA_DIR;
}

std::string daemon_path(const Environment& env) {
  const char* s = env.get("TEESIM_DAEMON");
  if (s != nullptr) return s;
  return TEESIM_BUILD_DAEMON;
}

std::vector<std::string> emulator(const Environment& env) {
  const char* s = env.get("TEESIM_EMULATOR");
  return s != nullptr ? command_words(s) : std::vector<std::string>();
}

std::string socket_path() { return socket_path(process_environment()); }
std::string storage_dir() { return storage_dir(process_environment()); }
std::string ta_dir() { return ta_dir(process_environment()); }
std::string daemon_path() { return daemon_path(process_environment()); }
std::vector<std::string> emulator() { return emulator(process_environment()); }

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

std::string parent_dir(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace teesim::paths
