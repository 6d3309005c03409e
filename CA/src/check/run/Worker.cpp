// The worker's loop: connection, credential, cases, the wallet left behind.
//
// Each case run has a context and a report channel of its own. The case's
// code runs on this thread; its deferred checks and its end go to the
// verifier thread, so that the next case's keystore calls overlap them; the
// report gate keeps every run's reports in order.
#include "run/Worker.h"

#include <exception>
#include <memory>
#include <string>

#include "DeploymentCredential.h"
#include "TEEClient.h"
#include "TestData.h"
#include "cases/CallWatchdog.h"
#include "cases/CaseContext.h"
#include "cases/Describe.h"
#include "cases/KeyMath.h"
#include "cases/KeystoreCalls.h"
#include "keystore_ta.h"
#include "run/PlatformLogTail.h"
#include "run/ReportGate.h"
#include "run/Verifier.h"
#include "secure_wipe.h"
#include "securestorage.h"

namespace check {
namespace {

using Clock = std::chrono::steady_clock;

// Opens the connection step by step, watched like a keystore call. On
// failure *reason says which step failed, with the TEE's result, and what
// the client library logged.
bool OpenConnection(Listener& report, CallWatchdog& watchdog, std::string* reason) {
  client::TEEClient& tee = client::TEEClient::getInstance();
  const PlatformLogTail log;
  static const char kFunction[] = "open the TEE connection";
  report.CallBegin(kFunction);
  watchdog.Begin(kFunction);
  const Clock::time_point start = Clock::now();
  const char* failed = nullptr;
  if (!tee.OpenContext()) {
    failed = "TEEC_InitializeContext (the default TEE)";
  } else if (!tee.OpenSession()) {
    failed = "TEEC_OpenSession (keystore TA " KEYSTORE_TA_UUID_TEXT ")";
  } else if (!tee.AllocateMemory()) {
    failed = "TEEC_AllocateSharedMemory (8192 bytes)";
  }
  watchdog.End();
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

// What the worker shares between its threads.
struct Pipeline {
  Pipeline(Listener& out, const WorkerPlan& plan)
      : gate(out),
        watchdog(plan.callLimit, [this, &out](const std::string& function) {
          client::TEEClient::getInstance().RequestCancellation();
          // The runner stops the worker for the case it heard of last: let
          // every earlier case's end go out first.
          verifier.Drain();
          out.CancelRequested(function);
        }) {}
  ReportGate gate;
  Verifier verifier;
  CallWatchdog watchdog;
  unsigned long next = 0;  // number of the next case run
};

// Runs one case's code here, then hands its deferred checks and its end to
// the verifier.
void RunCase(const WorkerPlan& plan, const CaseInfo& info, unsigned run, const credential& cred,
             Pipeline& p) {
  const unsigned long seq = p.next++;
  std::shared_ptr<Listener> channel = p.gate.Channel(seq);
  auto ctx = std::make_shared<CaseContext>(*channel, cred, plan.ownSeed, LimitUs(plan), &p.watchdog);
  channel->CaseBegin(info.id, run);
  const Clock::time_point start = Clock::now();
  try {
    info.run(*ctx);
  } catch (const CaseStopped&) {
    // the reason is the failed check recorded before
  } catch (const std::exception& e) {
    ctx->Check("the case ran to its end", false, "", "", std::string("unexpected error: ") + e.what());
  }
  const uint64_t own_us = CaseContext::Microseconds(start, Clock::now());
  auto deferred = std::make_shared<std::vector<CaseContext::Deferred>>(ctx->TakeDeferred());
  p.verifier.Submit([ctx, channel, deferred, own_us, seq, &p] {
    const Clock::time_point later = Clock::now();
    for (CaseContext::Deferred& check : *deferred) {
      try {
        check(*ctx);
      } catch (const CaseStopped&) {
      } catch (const std::exception& e) {
        ctx->Check("a deferred check ran to its end", false, "", "",
                   std::string("unexpected error: ") + e.what());
      }
    }
    deferred->clear();  // keys go now
    std::string reason = ctx->firstFailure();
    if (ctx->failedChecks() > 1) {
      reason += " (and " + std::to_string(ctx->failedChecks() - 1) + " more failed check" +
                (ctx->failedChecks() > 2 ? "s)" : ")");
    }
    channel->CaseEnd(ctx->failed() ? Verdict::kFailed : Verdict::kPassed, reason,
                     own_us + CaseContext::Microseconds(later, Clock::now()));
    p.gate.Ended(seq);
  });
}

void LeaveWallet(const WorkerPlan& plan, const credential& cred, Pipeline& p) {
  p.verifier.Drain();  // every case has ended
  std::unique_ptr<Listener> channel = p.gate.Channel(p.next++);
  CaseContext ctx(*channel, cred, nullptr, LimitUs(plan), &p.watchdog);
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
  channel->WalletLeft(!ctx.failed(), ctx.firstFailure());
}

}  // namespace

void RunWorker(const WorkerPlan& plan, Listener& out) {
  // Every poc_* call opens the connection; one log line per call would
  // flood the platform log (failures are still logged).
  client::TEEClient::getInstance().setOpenNotice(false);
  credential cred{};
  {
    Pipeline p(out, plan);
    p.verifier.Submit(PrepareKeyMath);  // beside the connection's opening
    std::string reason;
    if (plan.probe) {
      if (!OpenConnection(out, p.watchdog, &reason)) {
        out.Unusable(reason);
        client::TEEClient::getInstance().Close();
        return;
      }
      out.Ready();
    }
    const int made = ss_init_credential(&cred, tessera::kCredentialWords[0], tessera::kCredentialWords[1],
                                        tessera::kCredentialWords[2], tessera::kCredentialWords[3],
                                        tessera::kCredentialWords[4], tessera::kCredentialVersion,
                                        tessera::kCredentialFlags);
    if (made != SS_SUCCESS) {
      out.Unusable("ss_init_credential failed with " + std::to_string(made));
    } else {
      for (const CaseInfo* info : plan.cases) {
        for (unsigned run = 1; run <= plan.repeat; ++run) RunCase(plan, *info, run, cred, p);
      }
      if (plan.leaveWallet) LeaveWallet(plan, cred, p);
      p.verifier.Drain();
    }
  }  // the verifier and the watchdog stop here, before the credential goes
  tessera_secure_wipe(&cred, sizeof cred);
  client::TEEClient::getInstance().Close();
}

}  // namespace check
