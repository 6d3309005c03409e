/*
 * The runner: runs the chosen cases in worker processes and collects what
 * they report, so that no keystore call can stop the run.
 *
 * A worker (a child of this process, Worker.h) runs the cases in order and
 * reports over a pipe. When a keystore call is still running callLimit
 * after it started, the worker asks the TEE to cancel it and says so; when
 * the call has not returned `grace` later, the runner stops the worker
 * (SIGKILL), fails the case with the call's name and the limit, and starts
 * a new worker for the cases after it. A worker that dies on its own fails
 * its case the same way, and one that reports nothing for callLimit +
 * silenceLimit is stopped likewise. The first worker opens the TEE connection before
 * any case; when that fails the run ends as unusable.
 *
 * Cases are skipped, not run, when they are destructive and --allow-wipe
 * is not given, or need the operator's seed and none is given.
 */
#ifndef TESSERA_CHECK_RUNNER_H
#define TESSERA_CHECK_RUNNER_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "cases/CaseInfo.h"
#include "cases/Results.h"
#include "cases/SecretBytes.h"

namespace check {

struct RunSettings {
  std::vector<const CaseInfo*> cases;  // chosen, in order (borrowed)
  unsigned repeat = 1;
  bool allowWipe = false;
  const SecretBytes* ownSeed = nullptr;  // --seed (null: none)
  std::chrono::milliseconds callLimit{30000};
  std::chrono::milliseconds grace{1000};
  std::chrono::milliseconds silenceLimit{60000};
};

/* Returns true when the run will change the wallet and therefore leave it
 * in a known state at the end: --allow-wipe and a destructive case that
 * is run. */
[[nodiscard]] bool LeavesWallet(const RunSettings& settings);

/* Receives each case's outcome once it is final, in the order of the cases. */
class Progress {
 public:
  virtual ~Progress() = default;
  virtual void Finished(const CaseOutcome& outcome) = 0;
};

struct RunReport {
  /* False when the TEE could not be reached (or the worker could not make
   * its credential); `unusable` then says why, in one line. */
  bool usable = true;
  std::string unusable;
  std::vector<CaseOutcome> outcomes;  // every chosen case, in order
  std::vector<CallRecord> leaveCalls; // the keystore calls that left the wallet
  bool walletLeft = false;            // the run restored the announced seed ...
  bool walletLeftOk = true;           // ... successfully
  std::string walletDetail;           // why not
  uint64_t wallUs = 0;                // the whole run
};

/* Runs everything; never returns before every worker has ended. */
[[nodiscard]] RunReport Run(const RunSettings& settings, Progress& progress);

}  // namespace check

#endif  // TESSERA_CHECK_RUNNER_H
