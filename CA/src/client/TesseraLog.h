/*
 * The keystore client's log line: one call of __dlog_print with log id 2
 * (system), tag "TESSERA" and the format "%s: %s(%d) > %s", whose arguments
 * are the base name of the logging source file, the logging function, the
 * source line and the message. The message is composed in a string stream,
 * so numbers are written as the stream writes them (unsigned decimal for the
 * unsigned codes logged here).
 *
 *   TESSERA_LOG(DLOG_ERROR, "Failed to open TEE session, result = " << r);
 *
 * Never log key material, seeds, PINs or buffers: lengths and codes only.
 */
#ifndef TESSERA_CLIENT_TESSERALOG_H
#define TESSERA_CLIENT_TESSERALOG_H

#include <sstream>
#include <string>

#include "dlog.h"

namespace client {
namespace detail {

/* The file name of a path: everything after its last '/'. */
constexpr const char* BaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

/* Sends one composed line. In: prio, a DLOG_* priority; file, the base name
 * of the source file; func, the logging function; line, its source line;
 * message, the text (borrowed). */
void LogLine(int prio, const char* file, const char* func, int line, const std::string& message);

}  // namespace detail
}  // namespace client

/* Logs as the named function (for helpers that log on a caller's behalf). */
#define TESSERA_LOG_AS(prio, func, stream_expr)                                            \
  do {                                                                                     \
    std::ostringstream tessera_log_text_;                                                  \
    tessera_log_text_ << stream_expr;                                                      \
    ::client::detail::LogLine((prio), ::client::detail::BaseName(__FILE__), (func), __LINE__, \
                              tessera_log_text_.str());                                    \
  } while (0)

/* Logs as the enclosing function. */
#define TESSERA_LOG(prio, stream_expr) TESSERA_LOG_AS(prio, __func__, stream_expr)

#endif  // TESSERA_CLIENT_TESSERALOG_H
