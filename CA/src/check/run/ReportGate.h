/*
 * Keeps the reports of consecutive case runs in order while the checks of
 * one case are still being made on the verifier thread and the next case
 * already runs: each case run gets a number and a Listener of its own
 * (Channel); its reports go straight through when every earlier run has
 * ended, and wait in a buffer otherwise, to follow the earlier run's end.
 * Safe to use from several threads.
 */
#ifndef TESSERA_CHECK_REPORTGATE_H
#define TESSERA_CHECK_REPORTGATE_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "cases/Listener.h"

namespace check {

class ReportGate {
 public:
  /* In: out, where reports go, in order (borrowed; must outlive this). */
  explicit ReportGate(Listener& out) : out_(out) {}

  /* Returns the listener of run number `seq` (0, 1, 2, ... in the order the
   * runs start), owned by the caller; it must not outlive the gate. */
  [[nodiscard]] std::unique_ptr<Listener> Channel(unsigned long seq);

  /* Run `seq` has reported its end: the next run's reports go out, those
   * that waited first. Runs end in the order of their numbers. */
  void Ended(unsigned long seq);

  /* Delivers one report of run `seq` now or later (used by Channel). */
  void Deliver(unsigned long seq, std::function<void(Listener&)> report);

 private:
  Listener& out_;
  std::mutex mutex_;
  unsigned long turn_ = 0;
  std::map<unsigned long, std::vector<std::function<void(Listener&)>>> waiting_;
};

}  // namespace check

#endif  // TESSERA_CHECK_REPORTGATE_H
