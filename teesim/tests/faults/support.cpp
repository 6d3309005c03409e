/* Support of the fault tests; see support.h. */
#include "support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "teesim/uuid.h"

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

DescriptorLimit::DescriptorLimit(pid_t pid, unsigned long soft) : pid_(pid) {
  rlimit old{};
  if (::prlimit(pid, RLIMIT_NOFILE, nullptr, &old) != 0) return;
  old_soft_ = old.rlim_cur;
  rlimit lowered = old;
  lowered.rlim_cur = soft;
  ok_ = ::prlimit(pid, RLIMIT_NOFILE, &lowered, nullptr) == 0;
}

void DescriptorLimit::restore() {
  if (!ok_) return;
  rlimit now{};
  if (::prlimit(pid_, RLIMIT_NOFILE, nullptr, &now) == 0) {
    now.rlim_cur = old_soft_;
    (void)::prlimit(pid_, RLIMIT_NOFILE, &now, nullptr);
  }
  ok_ = false;
}

SilentConnections::SilentConnections(const std::string& socket, int count) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (socket.size() >= sizeof addr.sun_path) return;
  std::memcpy(addr.sun_path, socket.c_str(), socket.size() + 1);
  for (int i = 0; i < count; ++i) {
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(fd);
      return; /* EAGAIN: the backlog is full */
    }
    fds_.push_back(fd);
  }
}

void SilentConnections::release() {
  for (int fd : fds_) ::close(fd);
  fds_.clear();
}

long long cpu_ticks(pid_t pid) {
  std::string text = read_text("/proc/" + std::to_string(pid) + "/stat");
  size_t p = text.rfind(')');
  if (p == std::string::npos) return -1;
  /* after ")": fields 3 (state) ... 14 utime, 15 stime */
  std::istringstream in(text.substr(p + 1));
  std::string field;
  long long utime = -1, stime = -1;
  for (int i = 3; i <= 15 && (in >> field); ++i) {
    if (i == 14) utime = std::atoll(field.c_str());
    if (i == 15) stime = std::atoll(field.c_str());
  }
  return utime < 0 || stime < 0 ? -1 : utime + stime;
}

teesim::UniqueFd raw_connect(const std::string& path) {
  teesim::UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) fd.reset();
  return fd;
}

bool raw_open(int fd, const TEEC_UUID& ta, teesim::UniqueFd* channel) {
  namespace w = teesim::wire;
  w::OpenSession open;
  open.ta = teesim::uuid_from_fields(ta.timeLow, ta.timeMid, ta.timeHiAndVersion, ta.clockSeqAndNode);
  if (!raw_send(fd, w::Hello{}) || !raw_send(fd, open, 2)) return false;
  std::vector<uint8_t> buf(w::kMaxFrameSize);
  teesim::FdList fds;
  for (int i = 0; i < 2; ++i) {
    if (teesim::recv_frame(fd, buf.data(), buf.size(), &fds) <= 0) return false;
  }
  if (fds.count != 1) return false;
  channel->reset(fds.fds[0].release());
  return true;
}

bool closed_by_peer(int fd) {
  std::vector<uint8_t> buf(teesim::wire::kMaxFrameSize);
  for (int i = 0; i < 600; ++i) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    uint8_t byte;
    if (::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) <= 0) return true;
    teesim::FdList fds;
    if (teesim::recv_frame(fd, buf.data(), buf.size(), &fds) <= 0) return true;
  }
  return false;
}

long peak_rss_kib(pid_t pid) {
  std::string text = read_text("/proc/" + std::to_string(pid) + "/status");
  size_t at = text.find("VmHWM:");
  if (at == std::string::npos) return -1;
  return std::atol(text.c_str() + at + 6);
}

}  // namespace faults
