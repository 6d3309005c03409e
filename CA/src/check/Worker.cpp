// The worker's loop: connection, credential, cases, the wallet left behind.
#include "Worker.h"

#include <exception>
#include <string>

#include "CallWatchdog.h"
#include "CaseContext.h"
#include "DeploymentCredential.h"
#include "Describe.h"
#include "KeystoreCalls.h"
#include "PlatformLogTail.h"
#include "TEEClient.h"
#include "TestData.h"
#include "keystore_ta.h"
#include "secure_wipe.h"
#include "securestorage.h"

namespace check {
namespace {

using Clock = std::chrono::steady_clock;

// Opens the connection step by step, timed like a keystore call so that
// the runner's deadline covers it. On failure *reason says which step
// failed, with the TEE's result, and what the client library logged.
bool OpenConnection(Listener& report, std::string* reason) {
  client::TEEClient& tee = client::TEEClient::getInstance();
  const PlatformLogTail log;
  static const char kFunction[] = "open the TEE connection";
  report.CallBegin(kFunction);
  const Clock::time_point start = Clock::now();
  const char* failed = nullptr;
  if (!tee.OpenContext()) {
    failed = "TEEC_InitializeContext (the default TEE)";
  } else if (!tee.OpenSession()) {
    failed = "TEEC_OpenSession (keystore TA " KEYSTORE_TA_UUID_TEXT ")";
  } else if (!tee.AllocateMemory()) {
    failed = "TEEC_AllocateSharedMemory (8192 bytes)";
  }
  const client::TEEClient::Outcome outcome = tee.lastOutcome();
  report.CallEnd({kFunction, CaseContext::Microseconds(start, Clock::now()), failed ? -3 : 0,
                  outcome.result, outcome.origin});
  if (failed == nullptr) return true;
  *reason = std::string("cannot reach the keystore TA: ") + failed + " failed with " +
            DescribeTeeResult(outcome.result, outcome.origin);
  const std::string said = log.LastMessage("TEEC");
  if (!said.empty()) *reason += "; the TEE client library says: " + said;
  return false;
}

uint64_t LimitUs(const WorkerPlan& plan) {
  return static_cast<uint64_t>(plan.callLimit.count()) * 1000;
}

void RunCase(const WorkerPlan& plan, const CaseInfo& info, unsigned run, const credential& cred,
             Listener& report) {
  report.CaseBegin(info.id, run);
  CaseContext ctx(report, cred, plan.ownSeed, LimitUs(plan));
  const Clock::time_point start = Clock::now();
  try {
    info.run(ctx);
  } catch (const CaseStopped&) {
    // the reason is the failed check recorded before
  } catch (const std::exception& e) {
    ctx.Check("the case ran to its end", false, "", "", std::string("unexpected error: ") + e.what());
  }
  std::string reason = ctx.firstFailure();
  if (ctx.failedChecks() > 1) {
    reason += " (and " + std::to_string(ctx.failedChecks() - 1) + " more failed check" +
              (ctx.failedChecks() > 2 ? "s)" : ")");
  }
  report.CaseEnd(ctx.failed() ? Verdict::kFailed : Verdict::kPassed, reason,
                 CaseContext::Microseconds(start, Clock::now()));
}

void LeaveWallet(const WorkerPlan& plan, const credential& cred, Listener& report) {
  CaseContext ctx(report, cred, nullptr, LimitUs(plan));
  const test::TestData data;
  try {
    if (plan.leaveSeed != nullptr) {
      keystore::Restore(ctx, plan.leaveSeed->data(), static_cast<unsigned>(plan.leaveSeed->size()),
                        "restore the seed given with --seed");
    } else {
      keystore::Restore(ctx, data.seed(), data.seedSize(), "restore data set 0");
    }
  } catch (const CaseStopped&) {
  }
  report.WalletLeft(!ctx.failed(), ctx.firstFailure());
}

}  // namespace

void RunWorker(const WorkerPlan& plan, Listener& out) {
  // Every poc_* call opens the connection; one log line per call would
  // flood the platform log (failures are still logged).
  client::TEEClient::getInstance().setOpenNotice(false);
  CallWatchdog report(out, plan.callLimit, [] { client::TEEClient::getInstance().RequestCancellation(); });
  std::string reason;
  if (plan.probe) {
    if (!OpenConnection(report, &reason)) {
      report.Unusable(reason);
      client::TEEClient::getInstance().Close();
      return;
    }
    report.Ready();
  }
  credential cred{};
  const int made = ss_init_credential(&cred, tessera::kCredentialWords[0], tessera::kCredentialWords[1],
                                      tessera::kCredentialWords[2], tessera::kCredentialWords[3],
                                      tessera::kCredentialWords[4], tessera::kCredentialVersion,
                                      tessera::kCredentialFlags);
  if (made != SS_SUCCESS) {
    report.Unusable("ss_init_credential failed with " + std::to_string(made));
  } else {
    for (const CaseInfo* info : plan.cases) {
      for (unsigned run = 1; run <= plan.repeat; ++run) RunCase(plan, *info, run, cred, report);
    }
    if (plan.leaveWallet) LeaveWallet(plan, cred, report);
  }
  tessera_secure_wipe(&cred, sizeof cred);
  client::TEEClient::getInstance().Close();
}

}  // namespace check
