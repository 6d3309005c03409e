/*
 * The log of the secure side (daemon and TA instances). One line per call,
 * written with a single write(2) to standard error (which the daemon points
 * at its log file or terminal) and, when enabled, to syslog. TA instances
 * inherit the daemon's standard error, so their lines land in the same log.
 * Never log key material or buffer contents; lengths and codes only.
 */
#ifndef TEESIM_COMMON_LOG_H
#define TEESIM_COMMON_LOG_H

#include <cstdarg>
#include <cstdint>
#include <mutex>

namespace teesim::log {

enum class Level { Error = 1, Warn = 2, Info = 3, Debug = 4 };

/* Sets the program name shown in each line, the most verbose level written,
 * and whether lines also go to syslog. Call once, before other threads run. */
void init(const char* program, Level level, bool to_syslog);

Level level();
bool syslog_enabled();

/* Parses "error", "warn", "info" or "debug". Returns false otherwise. */
[[nodiscard]] bool parse_level(const char* text, Level* out);
const char* level_name(Level level);

/* Names the file that standard error has been pointed at (the log file),
 * for reopen(). The path is copied; call before other threads run. */
void set_file(const char* path);

/* Opens the file named by set_file() afresh (appending; made mode 0600 when
 * missing) and puts it in place of standard error, so that after the old
 * file was renamed (log rotation) the next lines go to a new file at the
 * same path. Processes that inherited the old standard error (TA instances
 * already running) keep writing to the old file.
 * Async-signal-safe, for a SIGHUP handler; keeps errno.
 * Returns 0, -ENOENT when no file was named, or the -errno of open/dup2. */
int reopen();

/* Writes one line when `level` is enabled; a trailing newline is not doubled. */
void write(Level level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void vwrite(Level level, const char* fmt, va_list ap) __attribute__((format(printf, 2, 0)));

/* Keeps a kind of line that untrusted peers can provoke at will (a client's
 * malformed frame, a refused connection) from flooding the log: at most
 * `burst` lines per `interval_ms`; the lines held back are counted, and the
 * next line let through says how many were ("; 37 similar lines held
 * back"). One object per kind of line, usually a function-level static.
 * Thread-safe. */
class RateLimit {
 public:
  RateLimit(unsigned burst, int64_t interval_ms) : burst_(burst), interval_ms_(interval_ms) {}
  RateLimit(const RateLimit&) = delete;
  RateLimit& operator=(const RateLimit&) = delete;

  /* Returns true when a line may be written now, with *held_back set to the
   * lines held back since the last one let through (and reset to 0); false
   * when this line is to be held back (it is counted).
   * In: now_ms, a monotonic clock in milliseconds. */
  bool admit(int64_t now_ms, uint64_t* held_back);

 private:
  std::mutex mu_;
  const unsigned burst_;
  const int64_t interval_ms_;
  int64_t window_start_ = 0;
  unsigned in_window_ = 0;
  bool started_ = false;
  uint64_t held_back_ = 0;
};

/* Writes one line as write() does when `limit` admits it at this moment
 * (CLOCK_MONOTONIC), adding the count of lines held back before it. Lines
 * of a level that is not enabled cost nothing and are not counted. */
void write_limited(RateLimit& limit, Level level, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace teesim::log

#define TS_LOG_ERROR(...) ::teesim::log::write(::teesim::log::Level::Error, __VA_ARGS__)
#define TS_LOG_WARN(...) ::teesim::log::write(::teesim::log::Level::Warn, __VA_ARGS__)
#define TS_LOG_INFO(...) ::teesim::log::write(::teesim::log::Level::Info, __VA_ARGS__)
#define TS_LOG_DEBUG(...) ::teesim::log::write(::teesim::log::Level::Debug, __VA_ARGS__)
/* Lines an untrusted peer can trigger: each call site has its own static
 * RateLimit (at most 10 lines per 10 s). */
#define TS_LOG_LIMITED_AT(lvl, ...)                                              \
  do {                                                                           \
    static ::teesim::log::RateLimit ts_log_limit_(10, 10000);                     \
    ::teesim::log::write_limited(ts_log_limit_, lvl, __VA_ARGS__);               \
  } while (0)
#define TS_LOG_ERROR_LIMITED(...) TS_LOG_LIMITED_AT(::teesim::log::Level::Error, __VA_ARGS__)
#define TS_LOG_WARN_LIMITED(...) TS_LOG_LIMITED_AT(::teesim::log::Level::Warn, __VA_ARGS__)
#define TS_LOG_INFO_LIMITED(...) TS_LOG_LIMITED_AT(::teesim::log::Level::Info, __VA_ARGS__)
#define TS_LOG_DEBUG_LIMITED(...) TS_LOG_LIMITED_AT(::teesim::log::Level::Debug, __VA_ARGS__)

#endif  // TEESIM_COMMON_LOG_H
