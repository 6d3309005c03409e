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

}  // namespace teesim::log

#define TS_LOG_ERROR(...) ::teesim::log::write(::teesim::log::Level::Error, __VA_ARGS__)
#define TS_LOG_WARN(...) ::teesim::log::write(::teesim::log::Level::Warn, __VA_ARGS__)
#define TS_LOG_INFO(...) ::teesim::log::write(::teesim::log::Level::Info, __VA_ARGS__)
#define TS_LOG_DEBUG(...) ::teesim::log::write(::teesim::log::Level::Debug, __VA_ARGS__)

#endif  // TEESIM_COMMON_LOG_H
