/*
 * libteec's diagnostics: why a call failed, when the library started a
 * daemon.
 *
 * The library runs inside the client's process, so its lines go where that
 * client's platform log goes: to syslog under the identity "TEEC" with the
 * matching syslog priority, and, when the environment variable DLOG_FILE
 * names a file, appended there as "[<prio>] TEEC: <message>\n" (prio 4 info,
 * 5 warn, 6 error) - the format of the platform log, so one file collects
 * the whole client side, console and library alike. Each line is one
 * write(2), so lines of concurrent writers never interleave.
 *
 * This is the library's own small sink rather than a call into the platform
 * log library: the client library belongs to the simulator and links nothing
 * of the platform stand-ins.
 */
#ifndef TEEC_CLIENT_LOG_H
#define TEEC_CLIENT_LOG_H

#include <sys/types.h>
#include <time.h>

#include <string>

namespace teec::log {

/* Priorities, numbered as in the platform log's file lines. */
enum class Level { Info = 4, Warn = 5, Error = 6 };

/* Logs one line (printf format; one trailing newline is dropped) to syslog
 * and, when DLOG_FILE is set and not empty, to that file. Never fails: a
 * sink that cannot be reached is skipped. */
void write(Level level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

/* The pieces of write(), open for tests. */

/* The file line: "[<prio>] TEEC: <message>\n". */
std::string file_line(Level level, const std::string& message);

/* The syslog datagram: "<PRI>Mmm dd hh:mm:ss TEEC[<pid>]: <message>", PRI
 * being the user facility with the level's syslog severity, the time local
 * time at `now`. */
std::string syslog_datagram(Level level, const std::string& message, time_t now, pid_t pid);

/* Appends `line` to the file at `path` (created 0600) with one write(2).
 * Returns true when the whole line was written. */
bool append_line(const std::string& path, const std::string& line);

/* Sends `datagram` to the syslog socket at `socket_path` (normally
 * /dev/log). Returns true when it was sent. */
bool send_datagram(const std::string& socket_path, const std::string& datagram);

}  // namespace teec::log

#endif  // TEEC_CLIENT_LOG_H
