/*
 * A temporary folder for a test: made on construction, removed with
 * everything in it on destruction.
 */
#ifndef TEESIM_TESTING_TEMP_FOLDER_H
#define TEESIM_TESTING_TEMP_FOLDER_H

#include <sys/types.h>

#include <string>

namespace teesim::testing {

class TempFolder {
 public:
  /* Makes a fresh folder "<parent>/<prefix>-XXXXXX" (mode 0700).
   * In: prefix, the start of its name; parent, the folder to make it in,
   *     "" for $TMPDIR, or /tmp when TMPDIR is unset or empty.
   * Throws std::system_error (with the path) when the folder cannot be
   * made, so a test never runs on a folder that is not there. */
  explicit TempFolder(const std::string& prefix = "teesim-test", const std::string& parent = "");
  /* Removes the folder and its whole tree, ignoring errors. Only the
   * process that made it removes it: a forked child that exits normally
   * leaves its parent's folder alone. */
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  /* Returns the folder's absolute path (no trailing slash). */
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  pid_t owner_;
};

}  // namespace teesim::testing

#endif  // TEESIM_TESTING_TEMP_FOLDER_H
