/* Platform log for the host: syslog, plus an optional append-only file. */
#define _GNU_SOURCE
#include "dlog.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

static int syslog_priority(int prio) {
  switch (prio) {
    case DLOG_FATAL: return LOG_CRIT;
    case DLOG_ERROR: return LOG_ERR;
    case DLOG_WARN: return LOG_WARNING;
    case DLOG_INFO: return LOG_INFO;
    default: return LOG_DEBUG;
  }
}

/* openlog keeps the identity pointer, so the tag is copied into storage that
 * lives as long as the process; the lock keeps tag and line together. */
static pthread_mutex_t syslog_lock = PTHREAD_MUTEX_INITIALIZER;
static char syslog_ident[64];

static void to_syslog(int prio, const char* tag, const char* msg) {
  pthread_mutex_lock(&syslog_lock);
  if (strncmp(syslog_ident, tag, sizeof syslog_ident) != 0) {
    snprintf(syslog_ident, sizeof syslog_ident, "%s", tag);
    openlog(syslog_ident, LOG_PID, LOG_USER);
  }
  syslog(syslog_priority(prio), "%s", msg);
  pthread_mutex_unlock(&syslog_lock);
}

/* One write(2) per line so that lines of concurrent writers never interleave. */
static void to_file(const char* path, int prio, const char* tag, const char* msg) {
  char* line = NULL;
  int len = asprintf(&line, "[%d] %s: %s\n", prio, tag, msg);
  if (len < 0) return;
  int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    ssize_t done = 0;
    while (done < len) {
      ssize_t n = write(fd, line + done, (size_t)(len - done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += n;
    }
    close(fd);
  }
  free(line);
}

int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  if ((int)log_id < 0 || log_id >= LOG_ID_MAX || prio < DLOG_UNKNOWN || prio > DLOG_SILENT ||
      tag == NULL || fmt == NULL) {
    return DLOG_ERROR_INVALID_PARAMETER;
  }
  if (prio == DLOG_SILENT) return 0;

  char* msg = NULL;
  va_list ap;
  va_start(ap, fmt);
  int len = vasprintf(&msg, fmt, ap);
  va_end(ap);
  if (len < 0) return DLOG_ERROR_INVALID_PARAMETER;
  if (len > 0 && msg[len - 1] == '\n') msg[len - 1] = '\0';

  to_syslog(prio, tag, msg);
  const char* path = getenv("DLOG_FILE");
  if (path != NULL && path[0] != '\0') to_file(path, prio, tag, msg);
  free(msg);
  return len;
}
