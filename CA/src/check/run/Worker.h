/*
 * The worker: the process that makes the keystore calls. It runs a list of
 * cases in order, each as many times as asked, and reports everything to
 * a listener (in the program, the pipe to the runner). Only the runner's
 * child processes run this, so that a call that never returns can be ended
 * with its process (Runner.h).
 */
#ifndef TESSERA_CHECK_WORKER_H
#define TESSERA_CHECK_WORKER_H

#include <chrono>
#include <vector>

#include "cases/CaseInfo.h"
#include "cases/Listener.h"
#include "cases/SecretBytes.h"

namespace check {

struct WorkerPlan {
  std::vector<const CaseInfo*> cases;  // to run, in this order (borrowed)
  unsigned repeat = 1;                 // runs of each case
  /* Open the TEE connection before anything else and report Ready, or
   * Unusable with the reason (the first worker of a run). */
  bool probe = false;
  /* After the cases, restore `leaveSeed` (or data set 0's seed when it is
   * null) and report WalletLeft. */
  bool leaveWallet = false;
  const SecretBytes* leaveSeed = nullptr;
  const SecretBytes* ownSeed = nullptr;  // --seed, for the 8xxx cases (null: none)
  std::chrono::milliseconds callLimit{30000};
};

/* Runs the plan, reporting to `out` (which must take reports from the
 * worker's other threads too). A call that outlives callLimit is cancelled
 * (TEEClient::RequestCancellation) and reported (CancelRequested). A case
 * that throws anything but CaseStopped fails with the exception's message.
 * Returns when everything was reported; the connection is closed and the
 * credential wiped before it returns. */
void RunWorker(const WorkerPlan& plan, Listener& out);

}  // namespace check

#endif  // TESSERA_CHECK_WORKER_H
