// A FIFO of jobs on one thread.
#include "run/Verifier.h"

#include <utility>

namespace check {

Verifier::Verifier() : thread_([this] { Work(); }) {}

Verifier::~Verifier() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Verifier::Submit(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    jobs_.push_back(std::move(job));
  }
  changed_.notify_all();
}

void Verifier::Drain() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return jobs_.empty() && !busy_; });
}

void Verifier::Work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
    if (jobs_.empty()) return;  // stopping, and nothing left
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    busy_ = true;
    lock.unlock();
    job();
    job = nullptr;  // what the job held (a key) goes before the next one starts
    lock.lock();
    busy_ = false;
    changed_.notify_all();
  }
}

}  // namespace check
