// The keystore client's log line, in the platform log's format.
#include "TesseraLog.h"

namespace client {
namespace detail {

void LogLine(int prio, const char* file, const char* func, int line, const std::string& message) {
  __dlog_print(LOG_ID_SYSTEM, prio, "TESSERA", "%s: %s(%d) > %s", file, func, line,
               message.c_str());
}

}  // namespace detail
}  // namespace client
