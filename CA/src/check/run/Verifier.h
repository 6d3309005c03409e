/*
 * The worker's second thread: it makes the checks that need only the
 * client's own arithmetic (recovering a signer, the address of a key)
 * after a case's keystore calls are done, while the next case already
 * waits on the keystore, so that the two overlap on a machine with two
 * cores. Jobs run one at a time, in the order they were submitted.
 */
#ifndef TESSERA_CHECK_VERIFIER_H
#define TESSERA_CHECK_VERIFIER_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace check {

class Verifier {
 public:
  Verifier();
  /* Runs what was submitted, then stops the thread. */
  ~Verifier();
  Verifier(const Verifier&) = delete;
  Verifier& operator=(const Verifier&) = delete;

  /* Queues a job (it must catch what it throws). */
  void Submit(std::function<void()> job);
  /* Returns once every job submitted before the call has run. */
  void Drain();

 private:
  void Work();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  bool busy_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace check

#endif  // TESSERA_CHECK_VERIFIER_H
