/*
 * What a worker reports while it runs cases, in the order it happens. The
 * worker writes these reports into a pipe (EventCodec.h); the runner reads
 * them back into an implementation of the same interface.
 */
#ifndef TESSERA_CHECK_LISTENER_H
#define TESSERA_CHECK_LISTENER_H

#include <cstdint>
#include <string>

#include "cases/Results.h"

namespace check {

class Listener {
 public:
  virtual ~Listener() = default;

  /* The worker reached the TEE (the first worker only) and is ready. */
  virtual void Ready() = 0;
  /* The worker cannot work: no TEE, or no credential. `reason` is one line. */
  virtual void Unusable(const std::string& reason) = 0;
  /* Run `run` of case `id` starts. */
  virtual void CaseBegin(int id, unsigned run) = 0;
  /* A keystore call starts (its deadline starts with it). */
  virtual void CallBegin(const std::string& function) = 0;
  /* The keystore call has returned. */
  virtual void CallEnd(const CallRecord& call) = 0;
  /* The call in flight outlived its deadline; cancellation was requested. */
  virtual void CancelRequested(const std::string& function) = 0;
  /* A check was made. */
  virtual void Check(const CheckRecord& check) = 0;
  /* The case run ends with this verdict. */
  virtual void CaseEnd(Verdict verdict, const std::string& reason, uint64_t duration_us) = 0;
  /* The wallet was put in the state the run announced (ok), or could not be. */
  virtual void WalletLeft(bool ok, const std::string& detail) = 0;
};

}  // namespace check

#endif  // TESSERA_CHECK_LISTENER_H
