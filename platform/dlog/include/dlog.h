/*
 * Platform log: one call that sends a formatted line, with a priority and a
 * tag, to the system log.
 *
 * Host build: lines go to syslog(3) with the tag as identity and the matching
 * syslog priority. When the environment variable DLOG_FILE names a file, each
 * line is also appended there as "[<priority>] <tag>: <message>\n", so tests
 * and operators can read the log on a machine without a syslog daemon.
 * Nothing is ever written to standard output.
 */
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Which log buffer a line belongs to. */
typedef enum {
  LOG_ID_MAIN = 0,
  LOG_ID_RADIO = 1,
  LOG_ID_SYSTEM = 2,
  LOG_ID_APPS = 3,
  LOG_ID_MAX
} log_id_t;

/* Priorities, lowest to highest. */
typedef enum {
  DLOG_UNKNOWN = 0,
  DLOG_DEFAULT = 1,
  DLOG_VERBOSE = 2,
  DLOG_DEBUG = 3,
  DLOG_INFO = 4,
  DLOG_WARN = 5,
  DLOG_ERROR = 6,
  DLOG_FATAL = 7,
  DLOG_SILENT = 8
} log_priority;

#define DLOG_ERROR_NONE 0
#define DLOG_ERROR_INVALID_PARAMETER (-22)

/* Logs one line.
 * Returns the number of bytes of the formatted message (>= 0), or
 * DLOG_ERROR_INVALID_PARAMETER when log_id or prio is out of range, or tag or
 * fmt is NULL; DLOG_SILENT lines are accepted and dropped (result 0).
 * In: log_id, one of log_id_t; prio, one of log_priority; tag, a short name
 *     such as "TESSERA"; fmt and the arguments, as for printf.
 * A trailing newline of the message is not doubled. */
int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif /* DLOG_H */
