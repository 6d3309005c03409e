/*
 * The pipe between a worker and the runner: every Listener report as one
 * line of tab-separated fields, and back.
 *
 * Line format: a kind letter, then its fields, each separated by one tab,
 * ended by a newline. In text fields a backslash, tab and newline are
 * written as \\, \t and \n; numbers are unsigned decimal (rc and verdict
 * are written as their unsigned 32-bit pattern).
 *   R                                      Ready
 *   U  reason                              Unusable
 *   B  id  run                             CaseBegin
 *   C  function                            CallBegin
 *   D  function  us  rc  result  origin    CallEnd
 *   X  function                            CancelRequested
 *   K  passed  at_us  name  expected  actual  detail   Check
 *   E  verdict(p|f|s)  us  reason          CaseEnd
 *   L  ok  detail                          WalletLeft
 */
#ifndef TESSERA_CHECK_EVENTCODEC_H
#define TESSERA_CHECK_EVENTCODEC_H

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>

#include "cases/Listener.h"

namespace check {

/* Writes each report as a line to a file descriptor (the pipe's write end,
 * borrowed). Reports the runner acts on at once (a case ending, a
 * cancellation, readiness, ...) are written immediately; the others (calls,
 * checks) wait in a buffer for the next of those, or at most kMostBuffered,
 * so that a case costs one write and one wake-up of the runner, not one per
 * call, and a busy worker is still heard from at least once a second. Safe to
 * use from several threads (the watchdog reports cancellations). A write
 * that fails (the runner is gone) is dropped: the worker learns of it
 * through SIGPIPE. */
class LineWriter : public Listener {
 public:
  static constexpr std::chrono::milliseconds kMostBuffered{1000};

  explicit LineWriter(int fd) : fd_(fd) {}
  ~LineWriter() override { Flush(); }

  void Ready() override;
  void Unusable(const std::string& reason) override;
  void CaseBegin(int id, unsigned run) override;
  void CallBegin(const std::string& function) override;
  void CallEnd(const CallRecord& call) override;
  void CancelRequested(const std::string& function) override;
  void Check(const CheckRecord& check) override;
  void CaseEnd(Verdict verdict, const std::string& reason, uint64_t duration_us) override;
  void WalletLeft(bool ok, const std::string& detail) override;

  /* Writes what is buffered. */
  void Flush();

 private:
  void Add(const std::string& line, bool now);
  void WritePending();  // with mutex_ held
  int fd_;
  std::mutex mutex_;
  std::string pending_;
  std::chrono::steady_clock::time_point lastWrite_ = std::chrono::steady_clock::now();
};

/* Returns one line (without its newline) for a report, as LineWriter writes it. */
[[nodiscard]] std::string EncodeCheck(const CheckRecord& check);

/* Decodes one line (without its newline) and delivers it to `to`.
 * Returns false, delivering nothing, for a line that is not one of the
 * forms above (unknown kind, wrong field count, a number that does not
 * parse or overflows its type, a bad escape). */
[[nodiscard]] bool DecodeLine(const std::string& line, Listener& to);

/* Cuts a byte stream into lines. Feed() takes whatever read() returned;
 * Next() hands out complete lines one at a time. A line longer than
 * kMaxLine makes the stream malformed (Next() then returns false and
 * malformed() is true): a worker never writes one. */
class LineSplitter {
 public:
  static constexpr std::size_t kMaxLine = 1 << 20;
  void Feed(const char* data, std::size_t size);
  [[nodiscard]] bool Next(std::string* line);
  [[nodiscard]] bool malformed() const { return malformed_; }

 private:
  std::string buffer_;
  std::size_t start_ = 0;
  bool malformed_ = false;
};

}  // namespace check

#endif  // TESSERA_CHECK_EVENTCODEC_H
