/*
 * Where teesim's pieces are found: the daemon's socket, the TA folder, the
 * storage folder and the daemon executable. libteec (to reach or start the
 * daemon) and the daemon (for the folders it was not given) both ask here,
 * so the two agree without configuration.
 *
 * Each answer is an environment variable when it is set and not empty,
 * otherwise a default that depends on the user (root gets system folders,
 * others per-user folders under the XDG base directories) or, for the TA
 * folder and the daemon, on the build that made this code.
 *
 * The rules are pure functions of an Environment, so they can be checked
 * for any user and any environment; the functions without an argument apply
 * them to this process.
 */
#ifndef TEESIM_PATHS_H
#define TEESIM_PATHS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace teesim::paths {

/* What the rules read. */
struct Environment {
  /* Returns the value of an environment variable, or nullptr when it is
   * unset. Must be set. */
  std::function<const char*(const char* name)> get;
  /* The effective user; 0 (root) gets the system-wide defaults. */
  uid_t euid = 0;
  /* Returns the user's home folder from the password database, or "" when
   * it has none. Asked only when HOME is unset or not absolute; may be
   * empty (no database). */
  std::function<std::string()> passwd_home;
};

/* This process: secure_getenv (so a set-user-ID program ignores the
 * variables), geteuid and the password entry of the effective user. */
Environment process_environment();

/* TEESIM_SOCKET; as root /run/teesim/teesim.sock; otherwise
 * $XDG_RUNTIME_DIR/teesim.sock, or /tmp/teesim-<euid>/teesim.sock when
 * XDG_RUNTIME_DIR is unset or not absolute. */
std::string socket_path(const Environment& env);

/* TEESIM_STORAGE_DIR; as root /var/lib/teesim; otherwise
 * $XDG_DATA_HOME/teesim when XDG_DATA_HOME is absolute, else
 * <home>/.local/share/teesim, where <home> is HOME when absolute, else the
 * password database's home when absolute, else /tmp. */
std::string storage_dir(const Environment& env);

/* TEESIM_TA_DIR; otherwise the TA folder of the build that made this code. */
std::string ta_dir(const Environment& env);

/* TEESIM_DAEMON, even when empty: an empty TEESIM_DAEMON means "never start
 * a daemon". When unset, the teesim executable of the build that made this
 * code. */
std::string daemon_path(const Environment& env);

/* TEESIM_EMULATOR split at spaces: the command that runs teesim's own
 * programs when they were built for another CPU than this machine's (for
 * instance "qemu-aarch64-static"); empty when unset or blank. libteec starts
 * the daemon through it, and the daemon its TA hosts. */
std::vector<std::string> emulator(const Environment& env);

/* The same rules applied to process_environment(). */
std::string socket_path();
std::string storage_dir();
std::string ta_dir();
std::string daemon_path();
std::vector<std::string> emulator();

/* The words of a command line written as one string, split at spaces (no
 * quoting). */
std::vector<std::string> command_words(const std::string& command);

/* The folder part of a path ("/a/b/c" -> "/a/b", "/c" -> "/", "c" -> "."). */
std::string parent_dir(const std::string& path);

}  // namespace teesim::paths

#endif  // TEESIM_PATHS_H
