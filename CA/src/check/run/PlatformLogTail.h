/*
 * The last words of the TEE client library, for the one line that says why
 * no TEE could be reached: libteec names its socket or device only in the
 * platform log. Where that log can be read back — the host's platform log
 * appends every line to the file that DLOG_FILE names — this reads the
 * lines written while it lives. When DLOG_FILE is not set, it names a
 * private temporary file there for its lifetime (and removes it after);
 * where the platform log is not a file, it finds nothing.
 *
 * For one thread at a time; it changes the process's environment.
 */
#ifndef TESSERA_CHECK_PLATFORMLOGTAIL_H
#define TESSERA_CHECK_PLATFORMLOGTAIL_H

#include <string>
#include <sys/types.h>

namespace check {

class PlatformLogTail {
 public:
  PlatformLogTail();
  /* Puts DLOG_FILE back as it was and removes the private file. */
  ~PlatformLogTail();
  PlatformLogTail(const PlatformLogTail&) = delete;
  PlatformLogTail& operator=(const PlatformLogTail&) = delete;

  /* Returns the message of the last line with `tag` logged since this was
   * made ("" when there is none or the log is no file), at most 300
   * characters, made printable. */
  [[nodiscard]] std::string LastMessage(const std::string& tag) const;

 private:
  std::string path_;     // the file read ("" when none)
  off_t start_ = 0;      // its size when this was made
  bool private_ = false; // named by this object
};

}  // namespace check

#endif  // TESSERA_CHECK_PLATFORMLOGTAIL_H
