// Worker processes, their deadlines, and the outcomes they report.
#include "run/Runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "run/EventCodec.h"
#include "run/Worker.h"

namespace check {
namespace {

using Clock = std::chrono::steady_clock;

std::string SkipReason(const RunSettings& settings, const CaseInfo& info) {
  const bool need_seed = info.needsOwnSeed && settings.ownSeed == nullptr;
  const bool need_wipe = info.destructive && !settings.allowWipe;
  if (need_seed && need_wipe) return "needs --seed HEX, and --allow-wipe (it replaces the wallet's seed)";
  if (need_seed) return "needs --seed HEX";
  if (need_wipe) return "destructive (replaces or deletes the wallet's seed or PIN): run with --allow-wipe";
  return "";
}

std::string Duration(std::chrono::milliseconds ms) {
  const long long n = ms.count();
  return n % 1000 == 0 ? std::to_string(n / 1000) + " s" : std::to_string(n) + " ms";
}

std::string Ending(int status) {
  if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    const char* name = strsignal(sig);
    return "ended by signal " + std::to_string(sig) + (name ? std::string(" (") + name + ")" : "");
  }
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  return "ended";
}

// The verdict over a case's runs: the first failed run decides.
void Conclude(CaseOutcome* outcome, unsigned repeat) {
  outcome->verdict = Verdict::kPassed;
  outcome->reason.clear();
  for (const CaseRun& run : outcome->runs) {
    if (run.verdict != Verdict::kFailed) continue;
    outcome->verdict = Verdict::kFailed;
    outcome->reason = repeat > 1 ? "run " + std::to_string(run.run) + " of " +
                                       std::to_string(repeat) + ": " + run.reason
                                 : run.reason;
    return;
  }
}

// Everything the run knows: the outcomes in case order, which of them are
// final, and what the current worker is doing.
class Collector : public Listener {
 public:
  Collector(const RunSettings& settings, Progress& progress)
      : settings_(settings), progress_(progress), outcomes_(settings.cases.size()),
        final_(settings.cases.size(), false) {}

  // ---- the run's bookkeeping ----
  std::vector<CaseOutcome>& outcomes() { return outcomes_; }
  void Skip(std::size_t i, const std::string& reason) {
    Start(i);
    outcomes_[i].verdict = Verdict::kSkipped;
    outcomes_[i].reason = reason;
    Finalize(i);
  }
  void Start(std::size_t i) {
    const CaseInfo& info = *settings_.cases[i];
    outcomes_[i].id = info.id;
    outcomes_[i].name = info.name;
    outcomes_[i].area = AreaName(info.id);
  }
  /* Prepares for a new worker that runs cases from index `first` on. */
  void NewWorker(std::size_t first) {
    cursor_ = first;
    in_case_ = in_call_ = cancel_requested_ = false;
    last_report_ = Clock::now();
  }
  bool IsFinal(std::size_t i) const { return final_[i]; }
  bool inCase() const { return in_case_; }
  bool inCall() const { return in_call_; }
  std::size_t cursor() const { return cursor_; }
  /* When the worker is stopped: `grace` after it asked for a call to be
   * cancelled, or when it has been silent longer than a call may last plus
   * silenceLimit (a healthy worker reports at least once a second outside
   * a call: EventCodec.h). */
  Clock::time_point deadline() const {
    if (cancel_requested_) return cancel_time_ + settings_.grace;
    return last_report_ + settings_.callLimit + settings_.silenceLimit;
  }
  void Reported() { last_report_ = Clock::now(); }
  /* The worker was stopped or died: why, for the case (or step) in progress. */
  std::string StopReason(bool killed, int status) const {
    if (!killed) return "the case's process " + Ending(status);
    if (cancel_requested_) {
      return call_ + " did not return within " + Duration(settings_.callLimit) +
             ": cancellation was requested, and the case's process was stopped " +
             Duration(settings_.grace) + " later";
    }
    return "the case reported nothing for " +
           Duration(settings_.callLimit + settings_.silenceLimit) + ": its process was stopped";
  }
  /* Fails the case in progress (or, before any, the next one) with `why`. */
  void FailCurrent(const std::string& why) {
    if (!in_case_) {
      run_ = CaseRun{};
      run_.run = static_cast<unsigned>(outcomes_[cursor_].runs.size()) + 1;
    }
    run_.verdict = Verdict::kFailed;
    run_.reason = why;
    run_.duration_us = in_case_ ? Since(case_start_) : 0;
    Start(cursor_);
    outcomes_[cursor_].runs.push_back(std::move(run_));
    run_ = CaseRun{};
    in_case_ = false;
    Finalize(cursor_);
  }

  /* Fails case `i`, which no worker began. */
  void FailUnrun(std::size_t i, const std::string& why) {
    cursor_ = i;
    in_case_ = false;
    FailCurrent(why);
  }

  // ---- what the worker reports ----
  void Ready() override {
    ready_ = true;
    Release();
  }
  /* Outcomes are handed to the progress only once the TEE was reached (or
   * nothing needs it): a run that cannot start prints no case. */
  void Release() {
    held_ = false;
    Emit();
  }
  void Unusable(const std::string& reason) override {
    unusable_ = true;
    unusable_reason_ = reason;
  }
  void CaseBegin(int id, unsigned run) override {
    while (cursor_ < settings_.cases.size() &&
           (settings_.cases[cursor_]->id != id || final_[cursor_])) {
      ++cursor_;
    }
    if (cursor_ == settings_.cases.size()) {
      malformed_ = true;
      return;
    }
    Start(cursor_);
    in_case_ = true;
    case_start_ = Clock::now();
    run_ = CaseRun{};
    run_.run = run;
  }
  void CallBegin(const std::string& function) override {
    in_call_ = true;
    cancel_requested_ = false;
    call_ = function;
  }
  void CallEnd(const CallRecord& call) override {
    in_call_ = false;
    cancel_requested_ = false;
    if (in_case_) {
      run_.calls.push_back(call);
    } else if (ready_) {
      leave_calls_.push_back(call);  // after the cases: leaving the wallet
    }
  }
  void CancelRequested(const std::string& function) override {
    cancel_requested_ = true;
    cancel_time_ = Clock::now();
    call_ = function;
  }
  void Check(const CheckRecord& check) override {
    if (in_case_) run_.checks.push_back(check);
  }
  void CaseEnd(Verdict verdict, const std::string& reason, uint64_t duration_us) override {
    if (!in_case_) {
      malformed_ = true;
      return;
    }
    run_.verdict = verdict;
    run_.reason = reason;
    run_.duration_us = duration_us;
    const unsigned run = run_.run;
    outcomes_[cursor_].runs.push_back(std::move(run_));
    run_ = CaseRun{};
    in_case_ = false;
    if (run >= settings_.repeat) Finalize(cursor_);
  }
  void WalletLeft(bool ok, const std::string& detail) override {
    wallet_left_ = true;
    wallet_ok_ = ok;
    wallet_detail_ = detail;
  }

  bool ready_ = false;
  bool unusable_ = false;
  std::string unusable_reason_;
  bool malformed_ = false;
  std::vector<CallRecord> leave_calls_;
  bool wallet_left_ = false;
  bool wallet_ok_ = true;
  std::string wallet_detail_;

 private:
  static uint64_t Since(Clock::time_point t) {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t).count());
  }
  void Finalize(std::size_t i) {
    if (outcomes_[i].verdict != Verdict::kSkipped) Conclude(&outcomes_[i], settings_.repeat);
    final_[i] = true;
    Emit();
  }
  void Emit() {
    while (!held_ && reported_ < final_.size() && final_[reported_]) {
      progress_.Finished(outcomes_[reported_++]);
    }
  }

  const RunSettings& settings_;
  Progress& progress_;
  std::vector<CaseOutcome> outcomes_;
  std::vector<bool> final_;
  std::size_t reported_ = 0;
  bool held_ = true;
  std::size_t cursor_ = 0;
  bool in_case_ = false;
  bool in_call_ = false;
  bool cancel_requested_ = false;
  std::string call_;
  Clock::time_point cancel_time_;
  Clock::time_point case_start_;
  Clock::time_point last_report_;
  CaseRun run_;
};

struct WorkerEnd {
  bool killed = false;
  int status = 0;
};

// Reads what is left in the pipe of a worker that has ended.
void Drain(int fd, LineSplitter& split, Collector& c) {
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    split.Feed(buffer, static_cast<std::size_t>(n));
  }
  std::string line;
  while (split.Next(&line)) {
    if (!DecodeLine(line, c)) c.malformed_ = true;
  }
}

pid_t Reap(pid_t pid, int* status) {
  pid_t r;
  do {
    r = ::waitpid(pid, status, 0);
  } while (r < 0 && errno == EINTR);
  return r;
}

// Follows one worker to its end, stopping it at its deadline.
WorkerEnd Supervise(pid_t pid, int fd, Collector& c) {
  LineSplitter split;
  char buffer[65536];
  WorkerEnd end;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(c.deadline() - Clock::now());
    if (left.count() <= 0 || c.malformed_) {
      ::kill(pid, SIGKILL);
      end.killed = true;
      break;
    }
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(std::min<long long>(left.count() + 1, 60000)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;  // the deadline is checked at the top
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the worker closed its end: it is exiting
    split.Feed(buffer, static_cast<std::size_t>(n));
    std::string line;
    while (split.Next(&line)) {
      c.Reported();
      if (!DecodeLine(line, c)) c.malformed_ = true;
    }
    if (split.malformed()) c.malformed_ = true;
  }
  Reap(pid, &end.status);
  Drain(fd, split, c);
  return end;
}

// Starts a worker for `plan`; returns its pid and the read end of its pipe.
bool Spawn(const WorkerPlan& plan, pid_t* pid, int* fd) {
  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t child = ::fork();
  if (child < 0) {
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
    return false;
  }
  if (child == 0) {
    ::close(pipe_fds[0]);
    // The worker neither reads input nor prints: only the pipe carries its
    // reports (and whatever it starts cannot hold the terminal or the
    // caller's output open).
    const int null_fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null_fd >= 0) {
      ::dup2(null_fd, STDIN_FILENO);
      ::dup2(null_fd, STDOUT_FILENO);
      ::close(null_fd);
    }
    {
      LineWriter writer(pipe_fds[1]);
      RunWorker(plan, writer);
    }
    ::_exit(0);  // the parent's exit handlers and buffers are not the worker's
  }
  ::close(pipe_fds[1]);
  *pid = child;
  *fd = pipe_fds[0];
  return true;
}

}  // namespace

bool LeavesWallet(const RunSettings& settings) {
  if (!settings.allowWipe) return false;
  for (const CaseInfo* info : settings.cases) {
    if (info->destructive && SkipReason(settings, *info).empty()) return true;
  }
  return false;
}

RunReport Run(const RunSettings& settings, Progress& progress) {
  const Clock::time_point started = Clock::now();
  RunReport report;
  Collector c(settings, progress);
  std::vector<std::size_t> to_run;  // indices into settings.cases
  for (std::size_t i = 0; i < settings.cases.size(); ++i) {
    const std::string skip = SkipReason(settings, *settings.cases[i]);
    if (skip.empty()) {
      to_run.push_back(i);
    } else {
      c.Skip(i, skip);
    }
  }
  const bool leave = LeavesWallet(settings);
  bool probed = false;
  std::size_t next = 0;  // into to_run
  bool wallet_done = !leave;
  while (!to_run.empty() && (next < to_run.size() || !wallet_done)) {
    WorkerPlan plan;
    for (std::size_t k = next; k < to_run.size(); ++k) plan.cases.push_back(settings.cases[to_run[k]]);
    plan.repeat = settings.repeat;
    plan.probe = !probed;
    plan.leaveWallet = leave;
    plan.leaveSeed = settings.ownSeed;
    plan.ownSeed = settings.ownSeed;
    plan.callLimit = settings.callLimit;

    pid_t pid = -1;
    int fd = -1;
    if (!Spawn(plan, &pid, &fd)) {
      report.usable = false;
      report.unusable = std::string("cannot start a worker process: ") + std::strerror(errno);
      break;
    }
    c.NewWorker(next < to_run.size() ? to_run[next] : settings.cases.size());
    const WorkerEnd end = Supervise(pid, fd, c);
    ::close(fd);

    if (c.unusable_) {
      report.usable = false;
      report.unusable = c.unusable_reason_;
      break;
    }
    if (!probed && !c.ready_) {
      report.usable = false;
      report.unusable = "cannot reach the keystore TA: " + c.StopReason(end.killed, end.status);
      break;
    }
    probed = true;
    if (c.wallet_left_) wallet_done = true;
    const bool clean = !end.killed && WIFEXITED(end.status) && WEXITSTATUS(end.status) == 0 &&
                       !c.malformed_;
    const std::string why = c.malformed_ ? "the case's process sent a malformed report"
                                         : c.StopReason(end.killed, end.status);
    c.malformed_ = false;
    if (clean) {  // it ran everything it was given; anything else is its fault
      for (std::size_t k = next; k < to_run.size(); ++k) {
        if (!c.IsFinal(to_run[k])) {
          c.FailUnrun(to_run[k], "the case's process ended without running it");
        }
      }
      next = to_run.size();
      if (!wallet_done) c.WalletLeft(false, "the case's process ended without leaving the wallet");
      wallet_done = true;
      continue;
    }
    // The case the worker was at: the last it began, or the first it was
    // given. An unfinished one fails with the reason the worker ended.
    std::size_t at = next;
    while (at < to_run.size() && to_run[at] != c.cursor()) ++at;
    if (at < to_run.size() && !c.IsFinal(to_run[at])) {
      c.FailCurrent(why);
      next = at + 1;
    } else if (at + 1 < to_run.size()) {
      next = at + 1;  // it ended between two cases
    } else {
      next = to_run.size();  // it ended while leaving the wallet
      if (!wallet_done) c.WalletLeft(false, why);
      wallet_done = true;
    }
  }
  if (report.usable) c.Release();
  report.outcomes = std::move(c.outcomes());
  report.leaveCalls = std::move(c.leave_calls_);
  report.walletLeft = c.wallet_left_;
  report.walletLeftOk = c.wallet_ok_;
  report.walletDetail = c.wallet_detail_;
  report.wallUs = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started).count());
  return report;
}

}  // namespace check
