/*
 * File-system helpers for the secure side's private folders. Every function
 * returns 0 or -errno; none follows a symbolic link in the last component.
 */
#ifndef TEESIM_COMMON_FS_H
#define TEESIM_COMMON_FS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace teesim::fs {

/* Creates `path` and missing parents with `mode` (existing folders are left
 * as they are). */
[[nodiscard]] int make_dirs(const std::string& path, mode_t mode);

/* Checks that `path` is a folder owned by the effective user that nobody
 * else may write to. Returns 0, or -errno with a reason in *why. */
[[nodiscard]] int check_private_dir(const std::string& path, std::string* why);

/* Writes a whole file so that `dir/name` holds either its old content or
 * the new one, whatever happens: the bytes go to a temporary file in `dir`,
 * which is synced, then renamed over `name` (or, when `exclusive`, linked to
 * it, failing with -EEXIST if `name` exists), then the folder is synced.
 * In: dir, name; data, len; mode for a new file. */
[[nodiscard]] int write_file_atomic(const std::string& dir, const std::string& name,
                                    const uint8_t* data, size_t len, mode_t mode, bool exclusive);

/* Reads a whole regular file of at most max_len bytes into *out.
 * Returns -ENOENT when absent, -EFBIG when longer than max_len. */
[[nodiscard]] int read_file(const std::string& path, size_t max_len, std::vector<uint8_t>* out);

/* Removes `dir/name` and syncs the folder. */
[[nodiscard]] int remove_file(const std::string& dir, const std::string& name);

/* Removes a folder and the regular files in it (one level; nothing else is
 * expected there). -ENOENT when it does not exist. */
[[nodiscard]] int remove_flat_dir(const std::string& path);

/* Name prefix of the temporary files made by write_file_atomic. */
inline constexpr const char* kTempPrefix = ".tmp-";

/* Removes leftover temporary files of write_file_atomic in `dir` (after a
 * crash). Only call when nothing is writing there. Returns how many went. */
int remove_temp_files(const std::string& dir);

}  // namespace teesim::fs

#endif  // TEESIM_COMMON_FS_H
