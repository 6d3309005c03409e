/* The secure side's log; see log.h. */
#include "common/log.h"

#include <fcntl.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace teesim::log {
namespace {

char g_program[32] = "teesim";
char g_file[4096] = ""; /* the log file, for reopen(); written before any signal can come */
std::atomic<int> g_level{static_cast<int>(Level::Info)};
std::atomic<bool> g_syslog{false};

int syslog_priority(Level l) {
  switch (l) {
    case Level::Error: return LOG_ERR;
    case Level::Warn: return LOG_WARNING;
    case Level::Info: return LOG_INFO;
    case Level::Debug: return LOG_DEBUG;
  }
  return LOG_INFO;
}

}  // namespace

void init(const char* program, Level lvl, bool to_syslog) {
  std::snprintf(g_program, sizeof g_program, "%s", program);
  g_level = static_cast<int>(lvl);
  g_syslog = to_syslog;
  if (to_syslog) ::openlog(g_program, LOG_PID, LOG_DAEMON);
}

void set_file(const char* path) { std::snprintf(g_file, sizeof g_file, "%s", path); }

int reopen() {
  int saved_errno = errno;
  int r = 0;
  if (g_file[0] == '\0') {
    r = -ENOENT;
  } else {
    int fd = ::open(g_file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
      r = -errno;
    } else {
      /* dup2 leaves close-on-exec off: TA instances started later inherit
       * the new file as their standard error. */
      if (fd != STDERR_FILENO && ::dup2(fd, STDERR_FILENO) < 0) r = -errno;
      if (fd != STDERR_FILENO) ::close(fd);
    }
  }
  errno = saved_errno;
  return r;
}

Level level() { return static_cast<Level>(g_level.load()); }
bool syslog_enabled() { return g_syslog.load(); }

bool parse_level(const char* text, Level* out) {
  static const struct {
    const char* name;
    Level level;
  } kLevels[] = {{"error", Level::Error}, {"warn", Level::Warn}, {"info", Level::Info},
                 {"debug", Level::Debug}};
  if (text == nullptr) return false;
  for (const auto& l : kLevels) {
    if (std::strcmp(text, l.name) == 0) {
      *out = l.level;
      return true;
    }
  }
  return false;
}

const char* level_name(Level l) {
  switch (l) {
    case Level::Error: return "error";
    case Level::Warn: return "warn";
    case Level::Info: return "info";
    case Level::Debug: return "debug";
  }
  return "?";
}

void vwrite(Level lvl, const char* fmt, va_list ap) {
  if (static_cast<int>(lvl) > g_level.load()) return;
  int saved_errno = errno;
  char msg[2048];
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(msg, sizeof msg, fmt, copy);
  va_end(copy);
  if (n < 0) {
    errno = saved_errno;
    return;
  }
  size_t len = static_cast<size_t>(n) < sizeof msg ? static_cast<size_t>(n) : sizeof msg - 1;
  while (len > 0 && msg[len - 1] == '\n') msg[--len] = '\0';

  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  tm t{};
  ::gmtime_r(&ts.tv_sec, &t);
  char line[2200];
  int m = std::snprintf(line, sizeof line, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ %s[%d] %s: %s\n",
                        t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                        ts.tv_nsec / 1000000, g_program, static_cast<int>(::getpid()),
                        level_name(lvl), msg);
  if (m > 0) {
    size_t total = static_cast<size_t>(m) < sizeof line ? static_cast<size_t>(m) : sizeof line - 1;
    ssize_t w;
    do {
      w = ::write(STDERR_FILENO, line, total);
    } while (w < 0 && errno == EINTR);
  }
  if (g_syslog.load()) ::syslog(syslog_priority(lvl), "%s", msg);
  errno = saved_errno;
}

bool RateLimit::admit(int64_t now_ms, uint64_t* held_back) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!started_ || now_ms - window_start_ >= interval_ms_) {
    started_ = true;
    window_start_ = now_ms;
    in_window_ = 0;
  }
  if (in_window_ >= burst_) {
    ++held_back_;
    return false;
  }
  ++in_window_;
  *held_back = held_back_;
  held_back_ = 0;
  return true;
}

void write_limited(RateLimit& limit, Level lvl, const char* fmt, ...) {
  if (static_cast<int>(lvl) > g_level.load()) return;
  int saved_errno = errno;
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  uint64_t held_back = 0;
  if (!limit.admit(int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000, &held_back)) {
    errno = saved_errno;
    return;
  }
  char msg[2048];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  errno = saved_errno;
  if (n < 0) return;
  if (held_back == 0) {
    write(lvl, "%s", msg);
  } else {
    write(lvl, "%s; %llu similar line(s) held back", msg, static_cast<unsigned long long>(held_back));
  }
}

void write(Level lvl, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vwrite(lvl, fmt, ap);
  va_end(ap);
}

}  // namespace teesim::log
