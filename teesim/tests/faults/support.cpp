/* Support of the fault tests; see support.h. */
#include "support.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

namespace faults {

PrivateDaemon::Options own_tas() {
  PrivateDaemon::Options o;
  o.copy_tas = true;
  return o;
}

bool eventually(const std::function<bool()>& cond, int ms) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() > end) return cond();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int run_bounded(int workers, const std::function<void(int)>& body, const std::function<void()>& release,
                int ms) {
  std::mutex mu;
  std::condition_variable done;
  int left = workers;
  std::vector<std::thread> threads;
  for (int i = 0; i < workers; ++i) {
    threads.emplace_back([&, i] {
      body(i);
      std::lock_guard<std::mutex> lock(mu);
      --left;
      done.notify_all();
    });
  }
  std::unique_lock<std::mutex> lock(mu);
  const auto bound = std::chrono::milliseconds(ms);
  done.wait_for(lock, bound, [&] { return left == 0; });
  const int hung = left;
  if (hung > 0) {
    lock.unlock();
    release();
    lock.lock();
    if (!done.wait_for(lock, bound, [&] { return left == 0; })) {
      std::fprintf(stderr, "%d worker(s) still blocked after the release; giving up\n", left);
      std::abort();
    }
  }
  lock.unlock();
  for (std::thread& t : threads) t.join();
  return hung;
}

bool write_props(const PrivateDaemon& d, const char* uuid_text, const std::string& text) {
  std::ofstream out(d.TaDir() + "/" + uuid_text + ".props", std::ios::trunc);
  out << text;
  out.close();
  return static_cast<bool>(out);
}

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

int daemon_descriptors(const PrivateDaemon& d) {
  static const std::string kReport = "no client connected; ";
  auto newest = [&]() -> std::pair<size_t, int> {
    std::string log = d.LogText();
    size_t at = log.rfind(kReport);
    if (at == std::string::npos) return {0, -1};
    return {at, std::atoi(log.c_str() + at + kReport.size())};
  };
  size_t before = newest().first;
  TEEC_Context ctx{};
  if (TEEC_InitializeContext(nullptr, &ctx) != TEEC_SUCCESS) return -1;
  TEEC_FinalizeContext(&ctx);
  /* The report follows the disconnection within the daemon's next turn. */
  std::pair<size_t, int> got{0, -1};
  eventually([&] {
    got = newest();
    return got.second >= 0 && got.first != before;
  });
  return got.first != before ? got.second : -1;
}

}  // namespace faults
