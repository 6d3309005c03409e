// Case reports in the order of their runs.
#include "run/ReportGate.h"

#include <string>
#include <utility>

namespace check {
namespace {

class GateChannel : public Listener {
 public:
  GateChannel(ReportGate& gate, unsigned long seq) : gate_(gate), seq_(seq) {}
  void Ready() override { Send([](Listener& l) { l.Ready(); }); }
  void Unusable(const std::string& reason) override {
    Send([reason](Listener& l) { l.Unusable(reason); });
  }
  void CaseBegin(int id, unsigned run) override { Send([id, run](Listener& l) { l.CaseBegin(id, run); }); }
  void CallBegin(const std::string& function) override {
    Send([function](Listener& l) { l.CallBegin(function); });
  }
  void CallEnd(const CallRecord& call) override { Send([call](Listener& l) { l.CallEnd(call); }); }
  void CancelRequested(const std::string& function) override {
    Send([function](Listener& l) { l.CancelRequested(function); });
  }
  void Check(const CheckRecord& check) override { Send([check](Listener& l) { l.Check(check); }); }
  void CaseEnd(Verdict verdict, const std::string& reason, uint64_t duration_us) override {
    Send([verdict, reason, duration_us](Listener& l) { l.CaseEnd(verdict, reason, duration_us); });
  }
  void WalletLeft(bool ok, const std::string& detail) override {
    Send([ok, detail](Listener& l) { l.WalletLeft(ok, detail); });
  }

 private:
  void Send(std::function<void(Listener&)> report) { gate_.Deliver(seq_, std::move(report)); }
  ReportGate& gate_;
  unsigned long seq_;
};

}  // namespace

std::unique_ptr<Listener> ReportGate::Channel(unsigned long seq) {
  return std::make_unique<GateChannel>(*this, seq);
}

void ReportGate::Deliver(unsigned long seq, std::function<void(Listener&)> report) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (seq == turn_) {
    report(out_);
  } else {
    waiting_[seq].push_back(std::move(report));
  }
}

void ReportGate::Ended(unsigned long seq) {
  std::lock_guard<std::mutex> lock(mutex_);
  turn_ = seq + 1;
  const auto it = waiting_.find(turn_);
  if (it == waiting_.end()) return;
  for (auto& report : it->second) report(out_);
  waiting_.erase(it);
}

}  // namespace check
