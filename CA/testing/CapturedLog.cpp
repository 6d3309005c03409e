// A capturing platform log for unit tests.
#include "CapturedLog.h"

#include <cstdarg>
#include <cstdio>

#include "dlog.h"

namespace captured_log {
namespace {

std::vector<Line>& Store() {
  static auto* lines = new std::vector<Line>;  // outlives every static destructor
  return *lines;
}

}  // namespace

const std::vector<Line>& Lines() { return Store(); }

void Clear() { Store().clear(); }

std::vector<std::string> Texts() {
  std::vector<std::string> texts;
  for (const Line& l : Store()) texts.push_back(l.text);
  return texts;
}

bool Contains(const std::string& needle) {
  for (const Line& l : Store()) {
    if (l.text.find(needle) != std::string::npos) return true;
  }
  return false;
}

}  // namespace captured_log

extern "C" int __dlog_print(log_id_t log_id, int prio, const char* tag, const char* fmt, ...) {
  if (static_cast<int>(log_id) < 0 || log_id >= LOG_ID_MAX || prio < DLOG_UNKNOWN ||
      prio > DLOG_SILENT || tag == nullptr || fmt == nullptr) {
    return DLOG_ERROR_INVALID_PARAMETER;
  }
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int len = std::vsnprintf(nullptr, 0, fmt, ap);
  va_end(ap);
  std::string text(len > 0 ? static_cast<std::size_t>(len) : 0u, '\0');
  if (len > 0) std::vsnprintf(&text[0], text.size() + 1, fmt, again);
  va_end(again);
  if (prio == DLOG_SILENT) return 0;
  captured_log::Store().push_back({static_cast<int>(log_id), prio, tag, text});
  return len;
}
