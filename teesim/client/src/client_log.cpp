/* libteec's log sink: syslog under "TEEC", and the DLOG_FILE file. */
#include "client_log.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace teec::log {
namespace {

constexpr const char* kIdent = "TEEC";
constexpr const char* kSyslogSocket = "/dev/log";

int syslog_severity(Level level) {
  switch (level) {
    case Level::Info: return LOG_INFO;
    case Level::Warn: return LOG_WARNING;
    case Level::Error: return LOG_ERR;
  }
  return LOG_ERR;
}

}  // namespace

std::string file_line(Level level, const std::string& message) {
  return "[" + std::to_string(static_cast<int>(level)) + "] " + kIdent + ": " + message + "\n";
}

std::string syslog_datagram(Level level, const std::string& message, time_t now, pid_t pid) {
  tm local{};
  ::localtime_r(&now, &local);
  char stamp[32];
  if (std::strftime(stamp, sizeof stamp, "%b %e %T", &local) == 0) stamp[0] = '\0';
  char head[96];
  std::snprintf(head, sizeof head, "<%d>%s %s[%d]: ", LOG_USER | syslog_severity(level), stamp, kIdent,
                static_cast<int>(pid));
  return head + message;
}

bool append_line(const std::string& path, const std::string& line) {
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  ssize_t n;
  do {
    n = ::write(fd, line.data(), line.size());
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  return n == static_cast<ssize_t>(line.size());
}

bool send_datagram(const std::string& socket_path, const std::string& datagram) {
  sockaddr_un addr{};
  if (socket_path.size() >= sizeof addr.sun_path) return false;
  addr.sun_family = AF_UNIX;
  socket_path.copy(addr.sun_path, socket_path.size());
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  ssize_t n;
  do {
    n = ::sendto(fd, datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  } while (n < 0 && errno == EINTR);
  ::close(fd);
  return n == static_cast<ssize_t>(datagram.size());
}

/* syslog(3) is not used: its identity belongs to the whole process, and
 * openlog("TEEC") would relabel the lines of the client's own log. The
 * datagram goes straight to the syslog socket instead, with our identity in
 * it, as syslog(3) would send it. */
void write(Level level, const char* fmt, ...) {
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  int len = std::vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  if (len < 0) return;
  std::string message(msg);
  if (!message.empty() && message.back() == '\n') message.pop_back();

  (void)send_datagram(kSyslogSocket, syslog_datagram(level, message, ::time(nullptr), ::getpid()));
  /* secure_getenv: a set-user-ID client never appends where its caller says. */
  const char* path = ::secure_getenv("DLOG_FILE");
  if (path != nullptr && path[0] != '\0') (void)append_line(path, file_line(level, message));
}

}  // namespace teec::log
