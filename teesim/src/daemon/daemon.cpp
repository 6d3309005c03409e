/* The daemon's event loop: clients, TA instances and the sessions between them. */
#include "daemon/daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "daemon/child_watch.h"
#include "daemon/identity.h"
#include "daemon/keys.h"
#include "runtime/runtime.h"
#include "teesim/channel.h"
#include "teesim/uuid.h"
#include "teesim/wire.h"
#include "teesim_ta.h"

extern char** environ;

namespace teesim::daemon {
namespace {

/* Limits that keep one client from exhausting the daemon. */
constexpr int kMaxPendingOpensPerClient = 16;
constexpr size_t kMaxQueuedFramesPerClient = 64;
constexpr int kShutdownGraceMs = 3000;
/* Connections taken (or turned away) per wake-up, so a crowd at the door
 * cannot starve the clients already served. */
constexpr int kAcceptBudget = 64;
/* Out of descriptors with no spare one: the listener rests this long at
 * first, twice as long each time after, up to the maximum. */
constexpr int kListenerRestMinMs = 10;
constexpr int kListenerRestMaxMs = 1000;

/* A frame waiting to be sent, with the descriptors it carries. */
struct OutFrame {
  std::vector<uint8_t> bytes;
  std::vector<UniqueFd> fds;
  bool secret = false; /* wipe the bytes once they are gone */
  OutFrame() = default;
  OutFrame(OutFrame&&) = default;
  OutFrame& operator=(OutFrame&&) = default;
  ~OutFrame() {
    if (secret) wipe(bytes.data(), bytes.size());
  }
};

/* One end of a connection the daemon serves: a client or a TA instance. */
struct Conn {
  enum class Kind { Client, Instance } kind;
  uint64_t id = 0;
  UniqueFd fd;
  std::deque<OutFrame> out;
  bool waiting_writable = false;
  bool dead = false;
  explicit Conn(Kind k) : kind(k) {}
  virtual ~Conn() = default;
};

struct Client : Conn {
  Client() : Conn(Kind::Client) {}
  PeerCredentials creds;
  bool greeted = false;
  int pending_opens = 0;
};

/* Which file a TA is, as it was when looked at: a rebuilt or reinstalled
 * TA is a new file (another inode), or the same one rewritten (another
 * modification time or size). */
struct TaFile {
  dev_t dev = 0;
  ino_t ino = 0;
  int64_t mtime_ns = 0;
  off_t size = 0;
  static TaFile of(const struct stat& st) {
    return TaFile{st.st_dev, st.st_ino, int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec,
                  st.st_size};
  }
  bool operator==(const TaFile& o) const {
    return dev == o.dev && ino == o.ino && mtime_ns == o.mtime_ns && size == o.size;
  }
  bool operator!=(const TaFile& o) const { return !(*this == o); }
};

/* An open request on its way to a TA instance. Its frame may carry memref
 * bytes of the client, so it is wiped when dropped undelivered. */
struct PendingOpen {
  PendingOpen() = default;
  PendingOpen(PendingOpen&&) = default;
  PendingOpen& operator=(PendingOpen&&) = default;
  ~PendingOpen() { wipe(host_open.data(), host_open.size()); }
  uint32_t session_id = 0;
  uint64_t client_id = 0;
  uint32_t tag = 0;
  Uuid ta;
  TaFile ta_file;                 /* the TA's file when the open arrived */
  std::vector<uint8_t> host_open; /* the HOST_OPEN frame, encoded on arrival */
  std::vector<UniqueFd> shm_fds;
  UniqueFd client_end;            /* set once dispatched */
  uint64_t instance_id = 0;
};

struct Instance : Conn {
  Instance() : Conn(Kind::Instance) {}
  enum class State { Starting, Ready, Retiring } state = State::Starting;
  Uuid ta;
  TaFile ta_file; /* the file it was started from; new opens of another go elsewhere */
  bool outdated = false; /* its file was replaced: it serves only its own sessions */
  std::string ta_text;
  pid_t pid = 0;
  ChildWatch watch; /* is the process still running? */
  uint32_t instance_no = 0;
  uint32_t flags = 0;
  std::string name;
  int sessions = 0;
  int dispatched = 0; /* opens sent, not yet answered */
  std::deque<PendingOpen> queued; /* opens waiting for the instance to be ready */
};

/* What the daemon remembers of a process until it has been reaped. */
struct ChildRecord {
  std::string label;
  bool retiring = false;
};

std::string describe_status(int status) {
  if (WIFEXITED(status)) {
    int code = WEXITSTATUS(status);
    if (code == runtime::kPanicExitCode) return "ended by TEE_Panic";
    return "exited with status " + std::to_string(code);
  }
  if (WIFSIGNALED(status)) {
    int sig = WTERMSIG(status);
    const char* name = ::sigabbrev_np(sig);
    return "killed by signal " + std::to_string(sig) + " (SIG" + (name != nullptr ? name : "?") + ")";
  }
  return "ended";
}

/* The descriptors this process holds, or -1 when it cannot tell (reading
 * the list takes a descriptor of its own, which is not counted). */
int open_descriptors() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int n = 0;
  while (dirent* e = ::readdir(dir)) {
    if (e->d_name[0] != '.') ++n;
  }
  ::closedir(dir);
  return n - 1;
}

int64_t now_ms() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

class Daemon {
 public:
  Daemon(Settings settings, UniqueFd listener)
      : settings_(std::move(settings)), listener_(std::move(listener)), buf_(wire::kMaxFrameSize) {}

  int run();

 private:
  /* epoll keys: the low 62 bits are a connection id; these mark the rest. */
  static constexpr uint64_t kListenerKey = 1ull << 62;
  static constexpr uint64_t kSignalKey = 2ull << 62;

  bool setup();
  void on_listener();
  void admit(UniqueFd fd);
  void shed(int err);
  void refuse(UniqueFd fd, uint32_t result, const std::string& reason);
  void shortage_over();
  void rest_listener();
  void wake_listener();
  void on_signal();
  void on_conn(uint64_t id, uint32_t events);
  void read_frames(Conn& c);
  void on_client_frame(Client& c, const wire::Frame& f, FdList& fds);
  void on_instance_frame(Instance& in, const wire::Frame& f, FdList& fds);
  void open_session(Client& c, const wire::Frame& f, FdList& fds);
  void route(PendingOpen p);
  /* Each open handed to an instance is answered exactly once: by the
   * instance, or with TEE_ERROR_TARGET_DEAD when it dies first (at once when
   * it is dead already). enqueue: to wait until the instance is ready;
   * dispatch: sent now. */
  void enqueue(Instance& in, PendingOpen p);
  void dispatch(Instance& in, PendingOpen p);
  Instance* spawn(const Uuid& ta, const TaFile& file);
  void on_init_reply(Instance& in, const wire::HostInitReply& r);
  void on_open_reply(Instance& in, uint32_t tag, const wire::HostOpenReply& r);
  void maybe_retire(Instance& in);
  void instance_gone(Instance& in);
  void answer_open(uint64_t client_id, uint32_t tag, uint32_t result, wire::Origin origin,
                   uint32_t session_id, const wire::Params* params, UniqueFd channel);
  template <typename M>
  void send(Conn& c, uint32_t tag, const M& msg, std::vector<UniqueFd> fds = {}, bool secret = false);
  void flush(Conn& c);
  void update_events(Conn& c);
  void drop(Conn& c, const char* why);
  void reap();
  void collect_dead();
  void shutdown();
  Client* client(uint64_t id);
  Instance* instance(uint64_t id);

  Settings settings_;
  UniqueFd listener_;
  UniqueFd epoll_;
  UniqueFd signals_;
  std::vector<uint8_t> buf_;
  uint64_t next_conn_id_ = 1;
  uint32_t next_session_id_ = 1;
  std::unordered_map<uint64_t, std::unique_ptr<Conn>> conns_;
  std::multimap<Uuid, uint64_t> instances_by_ta_;
  std::map<Uuid, uint32_t> known_flags_;
  std::map<Uuid, uint32_t> instance_counts_;
  std::map<uint32_t, PendingOpen> dispatched_;
  std::map<pid_t, ChildRecord> children_;
  int clients_ = 0; /* client connections now */
  std::map<uid_t, unsigned> clients_by_uid_;
  /* Kept open to be closed when descriptors run out: the room to accept a
   * waiting client and tell it why it is turned away. */
  UniqueFd spare_;
  /* A descriptor shortage under way: since when, how many turned away. */
  bool short_of_fds_ = false;
  int64_t shortage_since_ = 0;
  uint64_t turned_away_ = 0;
  /* The listener's rest (out of descriptors and no spare): until when, and
   * how long the next one lasts. 0: listening. */
  int64_t listener_rests_until_ = 0;
  int listener_rest_ms_ = kListenerRestMinMs;
  bool stopping_ = false;
};

Client* Daemon::client(uint64_t id) {
  auto it = conns_.find(id);
  if (it == conns_.end() || it->second->dead || it->second->kind != Conn::Kind::Client) return nullptr;
  return static_cast<Client*>(it->second.get());
}

Instance* Daemon::instance(uint64_t id) {
  auto it = conns_.find(id);
  if (it == conns_.end() || it->second->kind != Conn::Kind::Instance) return nullptr;
  return static_cast<Instance*>(it->second.get());
}

/* Every client connection and TA instance costs a descriptor: take all the
 * system allows this process. */
void raise_descriptor_limit() {
  rlimit rl{};
  if (::getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur >= rl.rlim_max) return;
  rlim_t was = rl.rlim_cur;
  rl.rlim_cur = rl.rlim_max;
  if (::setrlimit(RLIMIT_NOFILE, &rl) == 0)
    TS_LOG_DEBUG("descriptor limit raised from %llu to %llu", static_cast<unsigned long long>(was),
                 static_cast<unsigned long long>(rl.rlim_cur));
}

bool Daemon::setup() {
  raise_descriptor_limit();
  spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  epoll_.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (!epoll_) return false;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGCHLD);
  signals_.reset(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  if (!signals_) return false;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kListenerKey;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), &ev) != 0) return false;
  ev.data.u64 = kSignalKey;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, signals_.get(), &ev) != 0) return false;
  return true;
}

int Daemon::run() {
  if (!setup()) {
    TS_LOG_ERROR("cannot set up the event loop: %s", std::strerror(errno));
    return 1;
  }
  int64_t deadline = 0;
  epoll_event events[32];
  for (;;) {
    int timeout = -1;
    if (stopping_) {
      bool alive = !children_.empty();
      if (!alive) break;
      int64_t left = deadline - now_ms();
      if (left <= 0) {
        for (auto& [pid, rec] : children_) {
          TS_LOG_WARN("%s did not end in time; killing it", rec.label.c_str());
          ::kill(pid, SIGKILL);
        }
        deadline = now_ms() + 1000000;
      }
      timeout = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left, 100)));
    }
    if (listener_rests_until_ != 0) {
      int64_t left = listener_rests_until_ - now_ms();
      if (left <= 0) {
        wake_listener();
      } else if (timeout < 0 || left < timeout) {
        timeout = static_cast<int>(left);
      }
    }
    int n = ::epoll_wait(epoll_.get(), events, 32, timeout);
    if (n < 0) {
      if (errno == EINTR) continue;
      TS_LOG_ERROR("epoll_wait failed: %s", std::strerror(errno));
      return 1;
    }
    for (int i = 0; i < n; ++i) {
      uint64_t key = events[i].data.u64;
      if (key == kListenerKey) {
        on_listener();
      } else if (key == kSignalKey) {
        bool was_stopping = stopping_;
        on_signal();
        if (stopping_ && !was_stopping) deadline = now_ms() + kShutdownGraceMs;
      } else {
        on_conn(key, events[i].events);
      }
    }
    collect_dead();
  }
  TS_LOG_INFO("teesim stopped");
  return 0;
}

void Daemon::on_listener() {
  for (int budget = 0; budget < kAcceptBudget && listener_; ++budget) {
    int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) {
      if (short_of_fds_) shortage_over();
      admit(UniqueFd(fd));
      continue;
    }
    const int err = errno;
    if (err == EINTR || err == ECONNABORTED) continue;
    if (err == EAGAIN) return;
    if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
      shed(err);
    } else {
      /* Whatever it is, retrying at once would only spin. */
      TS_LOG_WARN_LIMITED("accept failed: %s; pausing new connections", std::strerror(err));
      rest_listener();
    }
    return;
  }
}

void Daemon::admit(UniqueFd fd) {
  auto c = std::make_unique<Client>();
  if (!read_peer_credentials(fd.get(), &c->creds)) {
    TS_LOG_WARN_LIMITED("a client without credentials was turned away");
    return;
  }
  unsigned& of_user = clients_by_uid_[c->creds.uid];
  if (of_user >= settings_.max_clients_per_user) {
    TS_LOG_WARN_LIMITED("user %u already holds %u connections, the most allowed "
                        "(--max-clients-per-user); turning client pid %d away",
                        c->creds.uid, of_user, static_cast<int>(c->creds.pid));
    refuse(std::move(fd), TEE_ERROR_BUSY,
           "this user already holds " + std::to_string(of_user) +
               " connections to the TEE daemon, the most it allows");
    return;
  }
  c->id = next_conn_id_++;
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP;
  ev.data.u64 = c->id;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd.get(), &ev) != 0) {
    refuse(std::move(fd), TEE_ERROR_BUSY, "the TEE daemon cannot take more connections now");
    return;
  }
  c->fd = std::move(fd);
  ++of_user;
  TS_LOG_DEBUG("client pid %d (uid %u) connected", static_cast<int>(c->creds.pid), c->creds.uid);
  conns_[c->id] = std::move(c);
  ++clients_;
}

/* Tells a connection why it is not served, then closes it. The frame is
 * small and the connection fresh, so the send does not block. */
void Daemon::refuse(UniqueFd fd, uint32_t result, const std::string& reason) {
  wire::Refused msg;
  msg.result = result;
  msg.reason = reason;
  std::vector<uint8_t> frame;
  if (wire::encode(frame, 0, msg) == wire::Status::Ok)
    (void)send_frame(fd.get(), frame.data(), frame.size(), nullptr, 0, /*nonblocking=*/true);
}

/* Out of descriptors with clients waiting: each is accepted on the spare
 * descriptor, told it is turned away, and closed, so none waits in the
 * backlog and the listener stops waking the loop. Without a spare (another
 * process took the system's last file), the listener rests instead. */
void Daemon::shed(int err) {
  if (!short_of_fds_) {
    short_of_fds_ = true;
    shortage_since_ = now_ms();
    turned_away_ = 0;
    TS_LOG_WARN("out of descriptors (%s) with %d clients connected: turning new clients away "
                "until some leave",
                std::strerror(err), clients_);
  }
  for (int budget = 0; budget < kAcceptBudget && spare_; ++budget) {
    spare_.reset();
    int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int accept_err = errno;
    if (fd >= 0) {
      ++turned_away_;
      refuse(UniqueFd(fd), TEE_ERROR_BUSY, "the TEE daemon is out of descriptors; try again later");
    }
    spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (fd < 0 && (accept_err == EAGAIN || accept_err == EINTR || accept_err == ECONNABORTED)) return;
    if (fd < 0) break;
  }
  if (!spare_) rest_listener();
}

void Daemon::shortage_over() {
  short_of_fds_ = false;
  listener_rest_ms_ = kListenerRestMinMs;
  TS_LOG_INFO("descriptors available again after %lld ms; %llu client connection(s) were turned away",
              static_cast<long long>(now_ms() - shortage_since_),
              static_cast<unsigned long long>(turned_away_));
}

void Daemon::rest_listener() {
  if (listener_rests_until_ != 0 || !listener_) return;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
  listener_rests_until_ = now_ms() + listener_rest_ms_;
  listener_rest_ms_ = std::min(listener_rest_ms_ * 2, kListenerRestMaxMs);
}

void Daemon::wake_listener() {
  listener_rests_until_ = 0;
  if (!spare_) spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!listener_) return;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kListenerKey;
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, listener_.get(), &ev) != 0) {
    rest_listener();
    return;
  }
  on_listener(); /* whoever waits is taken (or turned away) now */
}

void Daemon::on_signal() {
  signalfd_siginfo si;
  while (::read(signals_.get(), &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
    if (si.ssi_signo == SIGCHLD) {
      reap();
    } else if (!stopping_) {
      TS_LOG_INFO("received %s; stopping", si.ssi_signo == SIGTERM ? "SIGTERM" : "SIGINT");
      shutdown();
    }
  }
}

void Daemon::reap() {
  for (;;) {
    int status = 0;
    pid_t pid = ::waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return;
    auto it = children_.find(pid);
    if (it == children_.end()) continue;
    const ChildRecord& rec = it->second;
    bool normal = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (normal && rec.retiring) {
      TS_LOG_DEBUG("%s ended", rec.label.c_str());
    } else if (normal) {
      TS_LOG_INFO_LIMITED("%s ended", rec.label.c_str());
    } else {
      /* Clients can make TAs crash as often as they like; yet each end is
       * worth its line while it is not a flood. */
      static log::RateLimit ends(30, 10000);
      log::write_limited(ends, log::Level::Warn, "%s %s", rec.label.c_str(),
                         describe_status(status).c_str());
    }
    children_.erase(it);
  }
}

void Daemon::shutdown() {
  stopping_ = true;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
  listener_.reset();
  listener_rests_until_ = 0;
  for (auto& [id, c] : conns_) {
    if (c->dead) continue;
    if (c->kind == Conn::Kind::Client) {
      drop(*c, nullptr);
    } else {
      auto& in = static_cast<Instance&>(*c);
      if (in.state != Instance::State::Retiring) {
        in.state = Instance::State::Retiring;
        children_[in.pid].retiring = true;
        send(in, 0, wire::HostDestroy{});
      }
    }
  }
}

void Daemon::on_conn(uint64_t id, uint32_t events) {
  auto it = conns_.find(id);
  if (it == conns_.end() || it->second->dead) return;
  Conn& c = *it->second;
  if (events & EPOLLOUT) flush(c);
  if (!c.dead && (events & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP))) read_frames(c);
}

void Daemon::read_frames(Conn& c) {
  FdList fds;
  for (int budget = 0; budget < 64 && !c.dead; ++budget) {
    ssize_t n = recv_frame(c.fd.get(), buf_.data(), buf_.size(), &fds, /*nonblocking=*/true);
    if (n == -EAGAIN) return;
    if (n == 0) {
      drop(c, nullptr);
      return;
    }
    if (n < 0) {
      drop(c, n == -EMSGSIZE ? "sent an oversized frame" : "connection failed");
      return;
    }
    wire::Frame frame;
    wire::Status st = wire::parse_frame(buf_.data(), static_cast<size_t>(n), &frame);
    if (st != wire::Status::Ok) {
      TS_LOG_WARN_LIMITED("malformed frame (%s)", wire::status_name(st));
      drop(c, "sent a malformed frame");
      return;
    }
    if (c.kind == Conn::Kind::Client) {
      on_client_frame(static_cast<Client&>(c), frame, fds);
    } else {
      on_instance_frame(static_cast<Instance&>(c), frame, fds);
    }
    wipe(buf_.data(), static_cast<size_t>(n)); /* memref bytes pass through here */
    fds.clear();
  }
}

void Daemon::on_client_frame(Client& c, const wire::Frame& f, FdList& fds) {
  if (!c.greeted) {
    wire::Hello hello;
    if (wire::decode(f, fds.count, &hello) != wire::Status::Ok) {
      drop(c, "did not start with a greeting");
      return;
    }
    c.greeted = true;
    wire::HelloReply reply;
    reply.daemon_pid = static_cast<uint32_t>(::getpid());
    reply.max_operation_bytes = settings_.max_operation_bytes;
    send(c, f.tag, reply);
    return;
  }
  if (f.type == wire::MsgType::OpenSession) {
    open_session(c, f, fds);
    return;
  }
  drop(c, "sent an unexpected message");
}

void Daemon::open_session(Client& c, const wire::Frame& f, FdList& fds) {
  wire::OpenSession msg;
  wire::Status st = wire::decode(f, fds.count, &msg);
  if (st != wire::Status::Ok) {
    TS_LOG_WARN_LIMITED("client pid %d: bad open-session request (%s)", static_cast<int>(c.creds.pid),
                wire::status_name(st));
    drop(c, "sent a malformed frame");
    return;
  }
  /* Counted until answered; every answer, refusals included, uncounts it. */
  ++c.pending_opens;
  auto refuse = [&](uint32_t result) {
    answer_open(c.id, f.tag, result, wire::Origin::Tee, 0, nullptr, UniqueFd());
  };
  if (stopping_) return refuse(TEE_ERROR_BUSY);
  if (c.pending_opens > kMaxPendingOpensPerClient) return refuse(TEE_ERROR_BUSY);
  Uuid identity;
  uint32_t r = client_identity(msg.login, msg.has_group, msg.group, c.creds, &identity);
  if (r != TEE_SUCCESS) {
    TS_LOG_INFO_LIMITED("client pid %d: login 0x%x refused (0x%08x)", static_cast<int>(c.creds.pid),
                static_cast<uint32_t>(msg.login), r);
    return refuse(r);
  }
  const std::string ta_text = uuid_to_string(msg.ta);
  const std::string path = settings_.ta_dir + "/" + ta_text + ".ta";
  struct stat sb{};
  if (::stat(path.c_str(), &sb) != 0 || !S_ISREG(sb.st_mode)) {
    TS_LOG_INFO_LIMITED("client pid %d asked for TA %s, which is not installed in %s",
                static_cast<int>(c.creds.pid), ta_text.c_str(), settings_.ta_dir.c_str());
    return refuse(TEE_ERROR_ITEM_NOT_FOUND);
  }

  PendingOpen p;
  p.session_id = next_session_id_++;
  if (next_session_id_ == 0) next_session_id_ = 1;
  p.client_id = c.id;
  p.tag = f.tag;
  p.ta = msg.ta;
  p.ta_file = TaFile::of(sb);
  wire::HostOpen host_open;
  host_open.session_id = p.session_id;
  host_open.login = msg.login;
  host_open.client_id = identity;
  host_open.params = msg.params;
  if (wire::encode(p.host_open, 0, host_open) != wire::Status::Ok) return refuse(TEE_ERROR_BAD_PARAMETERS);
  for (size_t i = 0; i < fds.count; ++i) p.shm_fds.push_back(std::move(fds.fds[i]));
  fds.count = 0;
  TS_LOG_DEBUG("client pid %d opens session %u with TA %s", static_cast<int>(c.creds.pid),
               p.session_id, ta_text.c_str());
  route(std::move(p));
}

void Daemon::route(PendingOpen p) {
  auto known = known_flags_.find(p.ta);
  bool maybe_shared = known == known_flags_.end() || (known->second & TEESIM_TA_FLAG_SINGLE_INSTANCE);
  if (maybe_shared) {
    std::vector<uint64_t> candidates;
    auto range = instances_by_ta_.equal_range(p.ta);
    for (auto it = range.first; it != range.second; ++it) candidates.push_back(it->second);
    for (uint64_t id : candidates) {
      Instance* in = instance(id);
      if (in == nullptr || in->dead || in->outdated) continue;
      /* A TA rebuilt since this instance started: new sessions get the TA
       * as its file is now; this instance finishes the sessions it has. */
      if (in->ta_file != p.ta_file) {
        TS_LOG_INFO_LIMITED("TA %s has changed on disk; instance %u (pid %d) keeps only its sessions",
                            in->ta_text.c_str(), in->instance_no, static_cast<int>(in->pid));
        in->outdated = true;
        maybe_retire(*in);
        continue;
      }
      /* A client may learn of an instance's death (its session channel
       * broke) before this loop has read the end of the control channel -
       * or before the dying process has even released it. Only a process
       * whose threads are all exiting can have closed a session channel,
       * so that state, or the channel's end, settles it. The watch needs no
       * new descriptor: a shortage never passes for a death. */
      if (peer_gone(in->fd.get()) || in->watch.state() != ChildWatch::State::Running) {
        drop(*in, nullptr);
        continue;
      }
      if (in->state == Instance::State::Starting) {
        enqueue(*in, std::move(p));
        return;
      }
      if (in->state == Instance::State::Ready && (in->flags & TEESIM_TA_FLAG_SINGLE_INSTANCE)) {
        dispatch(*in, std::move(p));
        return;
      }
    }
  }
  Instance* in = spawn(p.ta, p.ta_file);
  if (in == nullptr) {
    answer_open(p.client_id, p.tag, TEE_ERROR_GENERIC, wire::Origin::Tee, 0, nullptr, UniqueFd());
    return;
  }
  enqueue(*in, std::move(p)); /* it may have died already, as it started */
}

Instance* Daemon::spawn(const Uuid& ta, const TaFile& file) {
  UniqueFd mine, theirs;
  if (make_channel(&mine, &theirs) != 0) {
    TS_LOG_ERROR_LIMITED("cannot make a control channel: %s", std::strerror(errno));
    return nullptr;
  }
  /* The child finds its channel on descriptor 3; a channel already there
   * would keep its close-on-exec flag through dup2, so move it first. */
  if (theirs.get() == 3) theirs.reset(::fcntl(theirs.get(), F_DUPFD_CLOEXEC, 10));
  ::fcntl(mine.get(), F_SETFL, O_NONBLOCK);

  uint32_t instance_no = ++instance_counts_[ta];
  std::string ta_text = uuid_to_string(ta);
  std::string daemon_pid = std::to_string(::getpid());
  std::vector<std::string> words = settings_.emulator;
  words.insert(words.end(), {settings_.host_path, ta_text, daemon_pid});
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs.get(), 3);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int s : {SIGTERM, SIGINT, SIGCHLD, SIGPIPE, SIGHUP}) sigaddset(&defaults, s);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  /* (spawnp: an emulator may be named without its folder) */
  int err = ::posix_spawnp(&pid, argv[0], &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (err != 0) {
    TS_LOG_ERROR_LIMITED("cannot start %s: %s", argv[0], std::strerror(err));
    return nullptr;
  }
  theirs.reset();

  auto in = std::make_unique<Instance>();
  in->id = next_conn_id_++;
  in->fd = std::move(mine);
  in->ta = ta;
  in->ta_file = file;
  in->ta_text = ta_text;
  in->pid = pid;
  in->watch = ChildWatch(pid);
  in->instance_no = instance_no;
  children_[pid].label = "TA " + ta_text + " instance " + std::to_string(instance_no) + " (pid " +
                         std::to_string(pid) + ")";
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP;
  ev.data.u64 = in->id;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, in->fd.get(), &ev);

  wire::HostInit init;
  init.ta = ta;
  init.instance_no = instance_no;
  init.log_level = static_cast<uint32_t>(settings_.log_level);
  init.log_flags = settings_.syslog ? 1 : 0;
  init.max_operation_bytes = settings_.max_operation_bytes;
  init.max_session_shm_bytes = settings_.max_session_shm_bytes;
  init.ta_path = settings_.ta_dir + "/" + ta_text + ".ta";
  init.storage_dir = settings_.storage_dir;
  TaKeys keys;
  bool ok = derive_ta_keys(settings_.installation_key, ta, &keys);
  init.storage_key = keys.storage.array();
  init.name_key = keys.names.array();
  if (settings_.deterministic_random) {
    Key256 rk;
    ok = ok && deterministic_random_key(settings_.random_seed, ta, instance_no, &rk);
    init.random_mode = 1;
    init.random_key = rk.array();
  }
  Instance* raw = in.get();
  instances_by_ta_.emplace(ta, raw->id);
  conns_[raw->id] = std::move(in);
  if (ok) send(*raw, 0, init, {}, /*secret=*/true);
  wipe(init.storage_key.data(), init.storage_key.size());
  wipe(init.name_key.data(), init.name_key.size());
  wipe(init.random_key.data(), init.random_key.size());
  if (!ok) {
    TS_LOG_ERROR("cannot derive the keys of TA %s", ta_text.c_str());
    ::kill(pid, SIGKILL);
    drop(*raw, nullptr);
    return nullptr;
  }
  TS_LOG_DEBUG("starting TA %s instance %u (pid %d)", ta_text.c_str(), instance_no,
               static_cast<int>(pid));
  return raw;
}

void Daemon::enqueue(Instance& in, PendingOpen p) {
  if (in.dead) {
    answer_open(p.client_id, p.tag, TEE_ERROR_TARGET_DEAD, wire::Origin::Tee, 0, nullptr, UniqueFd());
    return;
  }
  in.queued.push_back(std::move(p));
}

void Daemon::dispatch(Instance& in, PendingOpen p) {
  if (in.dead) {
    answer_open(p.client_id, p.tag, TEE_ERROR_TARGET_DEAD, wire::Origin::Tee, 0, nullptr, UniqueFd());
    return;
  }
  UniqueFd client_end, host_end;
  if (make_stream_channel(&client_end, &host_end) != 0) {
    TS_LOG_ERROR_LIMITED("cannot make a session channel: %s", std::strerror(errno));
    answer_open(p.client_id, p.tag, TEE_ERROR_OUT_OF_MEMORY, wire::Origin::Tee, 0, nullptr, UniqueFd());
    return;
  }
  OutFrame frame;
  frame.bytes = std::move(p.host_open);
  frame.secret = true; /* memref bytes of the client's open */
  frame.fds.push_back(std::move(host_end));
  for (UniqueFd& f : p.shm_fds) frame.fds.push_back(std::move(f));
  p.shm_fds.clear();
  /* Recorded before it is sent: a send that finds the instance dead drops
   * it, and dropping an instance answers every open recorded against it. */
  ++in.dispatched;
  p.client_end = std::move(client_end);
  p.instance_id = in.id;
  dispatched_[p.session_id] = std::move(p);
  in.out.push_back(std::move(frame));
  flush(in);
}

void Daemon::on_instance_frame(Instance& in, const wire::Frame& f, FdList& fds) {
  switch (f.type) {
    case wire::MsgType::HostInitReply: {
      wire::HostInitReply r;
      if (in.state != Instance::State::Starting || wire::decode(f, fds.count, &r) != wire::Status::Ok) break;
      on_init_reply(in, r);
      return;
    }
    case wire::MsgType::HostOpenReply: {
      wire::HostOpenReply r;
      if (wire::decode(f, fds.count, &r) != wire::Status::Ok) break;
      on_open_reply(in, f.tag, r);
      return;
    }
    case wire::MsgType::HostSessionClosed: {
      wire::HostSessionClosed r;
      if (wire::decode(f, fds.count, &r) != wire::Status::Ok) break;
      if (in.sessions > 0) --in.sessions;
      TS_LOG_DEBUG("session %u with TA %s closed", r.session_id, in.ta_text.c_str());
      maybe_retire(in);
      return;
    }
    default:
      break;
  }
  TS_LOG_ERROR_LIMITED("TA %s instance %u broke the protocol; stopping it", in.ta_text.c_str(), in.instance_no);
  ::kill(in.pid, SIGKILL);
  drop(in, nullptr);
}

void Daemon::on_init_reply(Instance& in, const wire::HostInitReply& r) {
  if (r.result != TEE_SUCCESS) {
    TS_LOG_ERROR_LIMITED("cannot start TA %s: %s", in.ta_text.c_str(), r.error.c_str());
    in.state = Instance::State::Retiring;
    children_[in.pid].retiring = true;
    std::deque<PendingOpen> queued = std::move(in.queued);
    in.queued.clear();
    for (PendingOpen& p : queued)
      answer_open(p.client_id, p.tag, r.result, r.origin, 0, nullptr, UniqueFd());
    return;
  }
  in.state = Instance::State::Ready;
  in.flags = r.ta_flags;
  in.name = r.name;
  known_flags_[in.ta] = r.ta_flags;
  children_[in.pid].label = "TA " + in.name + " (" + in.ta_text + ") instance " +
                            std::to_string(in.instance_no) + " (pid " + std::to_string(in.pid) + ")";
  TS_LOG_INFO_LIMITED("started TA %s (%s) instance %u, pid %d", in.name.c_str(), in.ta_text.c_str(),
              in.instance_no, static_cast<int>(in.pid));
  if (settings_.deterministic_random)
    TS_LOG_WARN("TA %s instance %u draws DETERMINISTIC random numbers (--random-seed)",
                in.name.c_str(), in.instance_no);
  std::deque<PendingOpen> queued = std::move(in.queued);
  in.queued.clear();
  bool first = true;
  for (PendingOpen& p : queued) {
    if (first || (in.flags & TEESIM_TA_FLAG_SINGLE_INSTANCE)) {
      dispatch(in, std::move(p));
    } else {
      route(std::move(p)); /* one instance per session: start another */
    }
    first = false;
  }
  maybe_retire(in);
}

void Daemon::on_open_reply(Instance& in, uint32_t, const wire::HostOpenReply& r) {
  auto it = dispatched_.find(r.session_id);
  if (it == dispatched_.end() || it->second.instance_id != in.id) {
    TS_LOG_ERROR_LIMITED("TA %s answered an unknown session %u", in.ta_text.c_str(), r.session_id);
    return;
  }
  PendingOpen p = std::move(it->second);
  dispatched_.erase(it);
  if (in.dispatched > 0) --in.dispatched;
  if (r.result == TEE_SUCCESS) {
    ++in.sessions;
    answer_open(p.client_id, p.tag, r.result, r.origin, r.session_id, &r.params,
                std::move(p.client_end));
  } else {
    answer_open(p.client_id, p.tag, r.result, r.origin, 0, &r.params, UniqueFd());
  }
  maybe_retire(in);
}

void Daemon::answer_open(uint64_t client_id, uint32_t tag, uint32_t result, wire::Origin origin,
                         uint32_t session_id, const wire::Params* params, UniqueFd channel) {
  Client* c = client(client_id);
  if (c == nullptr) return; /* gone: dropping the channel closes the session */
  if (c->pending_opens > 0) --c->pending_opens;
  wire::OpenSessionReply reply;
  reply.result = result;
  reply.origin = origin;
  reply.session_id = result == TEE_SUCCESS ? session_id : 0;
  if (params != nullptr) reply.params = *params;
  std::vector<UniqueFd> fds;
  if (result == TEE_SUCCESS) fds.push_back(std::move(channel));
  send(*c, tag, reply, std::move(fds), /*secret=*/params != nullptr);
}

void Daemon::maybe_retire(Instance& in) {
  if (in.state != Instance::State::Ready || in.dead) return;
  if (in.sessions > 0 || in.dispatched > 0 || !in.queued.empty()) return;
  const uint32_t keep = TEESIM_TA_FLAG_SINGLE_INSTANCE | TEESIM_TA_FLAG_KEEP_ALIVE;
  if ((in.flags & keep) == keep && !stopping_ && !in.outdated) return;
  in.state = Instance::State::Retiring;
  children_[in.pid].retiring = true;
  send(in, 0, wire::HostDestroy{});
}

template <typename M>
void Daemon::send(Conn& c, uint32_t tag, const M& msg, std::vector<UniqueFd> fds, bool secret) {
  if (c.dead) return;
  OutFrame frame;
  frame.secret = secret;
  frame.bytes.reserve(wire::kMaxFrameSize); /* no reallocation may leave a copy behind */
  if (wire::encode(frame.bytes, tag, msg) != wire::Status::Ok) {
    TS_LOG_ERROR("cannot encode a frame");
    return;
  }
  frame.fds = std::move(fds);
  c.out.push_back(std::move(frame));
  if (c.kind == Conn::Kind::Client && c.out.size() > kMaxQueuedFramesPerClient) {
    drop(c, "does not read its answers");
    return;
  }
  flush(c);
}

void Daemon::flush(Conn& c) {
  while (!c.out.empty() && !c.dead) {
    OutFrame& f = c.out.front();
    int raw[wire::kMaxFds];
    size_t n = std::min(f.fds.size(), wire::kMaxFds);
    for (size_t i = 0; i < n; ++i) raw[i] = f.fds[i].get();
    int r = send_frame(c.fd.get(), f.bytes.data(), f.bytes.size(), raw, n, /*nonblocking=*/true);
    if (r == -EAGAIN) break;
    if (r != 0) {
      drop(c, nullptr);
      return;
    }
    c.out.pop_front();
  }
  update_events(c);
}

void Daemon::update_events(Conn& c) {
  bool want = !c.out.empty();
  if (want == c.waiting_writable || c.dead) return;
  c.waiting_writable = want;
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP | (want ? EPOLLOUT : 0u);
  ev.data.u64 = c.id;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, c.fd.get(), &ev);
}

void Daemon::drop(Conn& c, const char* why) {
  if (c.dead) return;
  c.dead = true;
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, c.fd.get(), nullptr);
  c.fd.reset(); /* at once: the descriptor may be short */
  if (c.kind == Conn::Kind::Client) {
    auto& cl = static_cast<Client&>(c);
    if (why != nullptr) {
      TS_LOG_WARN_LIMITED("client pid %d %s; closing its connection", static_cast<int>(cl.creds.pid), why);
    } else {
      TS_LOG_DEBUG("client pid %d disconnected", static_cast<int>(cl.creds.pid));
    }
    auto of_user = clients_by_uid_.find(cl.creds.uid);
    if (of_user != clients_by_uid_.end() && --of_user->second == 0) clients_by_uid_.erase(of_user);
    /* The moment when whatever clients used should all be back: a leak
     * shows here as a count that grows from one report to the next. */
    if (--clients_ == 0 && log::level() >= log::Level::Debug)
      TS_LOG_DEBUG("no client connected; %d descriptors open", open_descriptors());
  } else {
    instance_gone(static_cast<Instance&>(c));
  }
}

void Daemon::instance_gone(Instance& in) {
  /* Whatever was on its way to this instance will never be answered. */
  for (auto it = dispatched_.begin(); it != dispatched_.end();) {
    if (it->second.instance_id == in.id) {
      answer_open(it->second.client_id, it->second.tag, TEE_ERROR_TARGET_DEAD, wire::Origin::Tee, 0,
                  nullptr, UniqueFd());
      it = dispatched_.erase(it);
    } else {
      ++it;
    }
  }
  std::deque<PendingOpen> queued = std::move(in.queued);
  in.queued.clear();
  for (PendingOpen& p : queued)
    answer_open(p.client_id, p.tag, TEE_ERROR_TARGET_DEAD, wire::Origin::Tee, 0, nullptr, UniqueFd());
  auto range = instances_by_ta_.equal_range(in.ta);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == in.id) {
      instances_by_ta_.erase(it);
      break;
    }
  }
  if (in.state != Instance::State::Retiring)
    TS_LOG_DEBUG("TA %s instance %u lost its control channel", in.ta_text.c_str(), in.instance_no);
}

void Daemon::collect_dead() {
  for (auto it = conns_.begin(); it != conns_.end();) {
    if (it->second->dead) {
      it = conns_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace

int serve(Settings settings, UniqueFd listener) {
  Daemon d(std::move(settings), std::move(listener));
  return d.run();
}

}  // namespace teesim::daemon
