/*
 * A capturing stand-in for the platform log (__dlog_print), for unit tests:
 * every line is formatted as the real log would and kept in memory, so a
 * test can assert exactly which lines were logged, at which priority and
 * with which tag. Nothing is written anywhere.
 *
 * Not thread-safe; one test at a time.
 */
#ifndef TESSERA_CLIENT_TESTING_CAPTUREDLOG_H
#define TESSERA_CLIENT_TESTING_CAPTUREDLOG_H

#include <string>
#include <vector>

namespace captured_log {

struct Line {
  int log_id;
  int priority;
  std::string tag;
  std::string text;  // the formatted message
};

/* Every line since the last Clear(), in order. */
const std::vector<Line>& Lines();
/* Forgets every line. */
void Clear();
/* The texts of the lines, in order. */
std::vector<std::string> Texts();
/* True when some line's text contains `needle`. */
bool Contains(const std::string& needle);

}  // namespace captured_log

#endif  // TESSERA_CLIENT_TESTING_CAPTUREDLOG_H
