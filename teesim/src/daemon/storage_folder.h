/*
 * The storage folder as the daemon finds it at start-up: who else uses it,
 * whether it can be written, which TAs keep objects in it, and setting
 * aside the objects that a lost installation key has made unreadable.
 * Layout: installation.key and one folder per TA, named by its UUID.
 */
#ifndef TEESIM_DAEMON_STORAGE_FOLDER_H
#define TEESIM_DAEMON_STORAGE_FOLDER_H

#include <string>
#include <vector>

#include "teesim/unique_fd.h"

namespace teesim::daemon {

/* Takes an exclusive lock on the folder itself (flock(2) on the folder, so
 * a read-only folder can be locked too), held while *out stays open.
 * Returns 0; -EWOULDBLOCK when another process holds it; or -errno. */
[[nodiscard]] int lock_storage_folder(const std::string& dir, UniqueFd* out);

/* Whether files can be made in `dir`, found by making and removing an
 * empty probe file (permissions alone do not tell: root ignores them, and
 * a read-only mount refuses whatever they say).
 * Returns 0 when writable, else the -errno of the attempt (-EROFS, -EACCES). */
[[nodiscard]] int probe_writable(const std::string& dir);

/* The TA folders (UUID names, in no particular order) that hold files other
 * than the leftovers of unfinished writes. */
std::vector<std::string> tas_with_objects(const std::string& dir);

/* Moves the TA folders `tas` of `dir` into a new folder <dir>/<aside>
 * (mode 0700), each under its own name. Returns 0 or -errno; on an error
 * the folders moved so far stay moved. */
[[nodiscard]] int set_aside(const std::string& dir, const std::vector<std::string>& tas,
                            const std::string& aside);

}  // namespace teesim::daemon

#endif  // TEESIM_DAEMON_STORAGE_FOLDER_H
