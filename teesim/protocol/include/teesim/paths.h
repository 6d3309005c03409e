/*
 * Where teesim's pieces are found, shared by libteec and the daemon so both
 * agree without configuration. Each function reads its environment variable
 * first (ignored in set-user-ID programs) and falls back to the default.
 */
#ifndef TEESIM_PATHS_H
#define TEESIM_PATHS_H

#include <string>
#include <vector>

namespace teesim::paths {

/* TEESIM_SOCKET; as root /run/teesim/teesim.sock; otherwise
 * $XDG_RUNTIME_DIR/teesim.sock, or /tmp/teesim-<uid>/teesim.sock when
 * XDG_RUNTIME_DIR is unset or not absolute. */
std::string socket_path();

/* TEESIM_STORAGE_DIR; as root /var/lib/teesim; otherwise
 * ${XDG_DATA_HOME:-$HOME/.local/share}/teesim. */
std::string storage_dir();

/* TEESIM_TA_DIR; otherwise the TA folder of the build that made this code. */
std::string ta_dir();

/* TEESIM_DAEMON; otherwise the teesim executable of the build that made this
 * code. An empty TEESIM_DAEMON means: never start a daemon. */
std::string daemon_path();

/* The words of a command line written as one string, split at spaces (no
 * quoting). */
std::vector<std::string> command_words(const std::string& command);

/* TEESIM_EMULATOR split at spaces: the command that runs teesim's own
 * programs when they were built for another CPU than this machine's (for
 * instance "qemu-aarch64-static"); empty when unset or blank. libteec starts
 * the daemon through it, and the daemon its TA hosts. */
std::vector<std::string> emulator();

/* The folder part of a path ("/a/b/c" -> "/a/b", "c" -> "."). */
std::string parent_dir(const std::string& path);

}  // namespace teesim::paths

#endif  // TEESIM_PATHS_H
