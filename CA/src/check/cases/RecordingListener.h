/*
 * Test support: a Listener that writes down every report as one line of
 * text, for tests to compare.
 */
#ifndef TESSERA_CHECK_RECORDINGLISTENER_H
#define TESSERA_CHECK_RECORDINGLISTENER_H

#include <mutex>
#include <string>
#include <vector>

#include "cases/Listener.h"

namespace check {

class RecordingListener : public Listener {
 public:
  void Ready() override { Add("ready"); }
  void Unusable(const std::string& reason) override { Add("unusable|" + reason); }
  void CaseBegin(int id, unsigned run) override {
    Add("case|" + std::to_string(id) + "|" + std::to_string(run));
  }
  void CallBegin(const std::string& function) override { Add("call|" + function); }
  void CallEnd(const CallRecord& c) override {
    Add("end|" + c.function + "|" + std::to_string(c.duration_us) + "|" + std::to_string(c.rc) +
        "|" + std::to_string(c.tee_result) + "|" + std::to_string(c.tee_origin));
  }
  void CancelRequested(const std::string& function) override { Add("cancel|" + function); }
  void Check(const CheckRecord& c) override {
    checks.push_back(c);
    Add(std::string("check|") + (c.passed ? "1" : "0") + "|" + std::to_string(c.at_us) + "|" + c.name +
        "|" + c.expected + "|" + c.actual + "|" + c.detail);
  }
  void CaseEnd(Verdict v, const std::string& reason, uint64_t us) override {
    Add(std::string("verdict|") + VerdictName(v) + "|" + std::to_string(us) + "|" + reason);
  }
  void WalletLeft(bool ok, const std::string& detail) override {
    Add(std::string("left|") + (ok ? "1" : "0") + "|" + detail);
  }

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<CheckRecord> checks;

 private:
  void Add(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace check

#endif  // TESSERA_CHECK_RECORDINGLISTENER_H
