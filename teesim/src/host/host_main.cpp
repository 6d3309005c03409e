/*
 * teesim-tahost: the process of one TA instance.
 *
 * Started by the teesim daemon with its control channel on descriptor 3:
 *   teesim-tahost <ta-uuid> <daemon-pid>
 * It receives HOST_INIT (TA path, keys, log settings), loads the TA, runs its
 * create entry point, then serves HOST_OPEN requests from the daemon. Each
 * opened session gets a thread that serves the client directly over the
 * session channel; one mutex keeps the TA's entry points from overlapping.
 */
#include <dlfcn.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/fs.h"
#include "common/log.h"
#include "common/secret.h"
#include "host/operation.h"
#include "runtime/properties.h"
#include "runtime/runtime.h"
#include "teesim/channel.h"
#include "teesim/wire.h"
#include "teesim_ta.h"

namespace teesim::host {
namespace {

constexpr int kControlFd = 3;
constexpr size_t kMaxPropertiesFile = 64 * 1024;

/* Serialises the TA's entry points: a TA is single-threaded by contract. */
std::mutex g_ta_mutex;
/* Serialises frames this process sends to the daemon. */
std::mutex g_control_mutex;

const teesim_ta_descriptor* g_ta = nullptr;
/* The memory a client may make this process take (from HOST_INIT): memory
 * references of one operation, and shared memory one session keeps mapped. */
size_t g_max_operation_bytes = 0;
size_t g_max_session_shm_bytes = 0;
std::atomic<int> g_sessions{0};

class Session;
/* Sessions whose close entry point has not run yet; guarded by g_ta_mutex. */
std::set<Session*> g_live;

/* The login method as the TA reads it (TEE_LOGIN_*): the same numbers. */
static_assert(static_cast<uint32_t>(wire::Login::Public) == TEE_LOGIN_PUBLIC);
static_assert(static_cast<uint32_t>(wire::Login::User) == TEE_LOGIN_USER);
static_assert(static_cast<uint32_t>(wire::Login::Group) == TEE_LOGIN_GROUP);
static_assert(static_cast<uint32_t>(wire::Login::Application) == TEE_LOGIN_APPLICATION);
static_assert(static_cast<uint32_t>(wire::Login::UserApplication) == TEE_LOGIN_APPLICATION_USER);
static_assert(static_cast<uint32_t>(wire::Login::GroupApplication) == TEE_LOGIN_APPLICATION_GROUP);
uint32_t tee_login(wire::Login login) { return static_cast<uint32_t>(login); }

[[noreturn]] void die(const char* why) {
  TS_LOG_ERROR("TA instance stops: %s", why);
  ::_exit(1);
}

template <typename M>
bool send_control(const M& msg) {
  std::lock_guard<std::mutex> lock(g_control_mutex);
  static std::vector<uint8_t> frame;
  if (wire::encode(frame, 0, msg) != wire::Status::Ok) return false;
  return send_frame(kControlFd, frame.data(), frame.size()) == 0;
}

/* ---- one session ---------------------------------------------------------- */

/* What a client does wrong on its own session is answered to that client
 * (an error result, or the end of the session) and logged at debug level
 * only: a client can start a fresh instance process for each session, and
 * each process has a rate limit of its own, so warnings here would be a
 * flood the daemon cannot bound. */

class Session {
 public:
  Session(uint32_t id, UniqueFd channel, uint32_t login, const Uuid& client, void* ta_context,
          ShmCache cache)
      : id_(id), channel_(std::move(channel)), login_(login), client_(client),
        ta_context_(ta_context), cache_(std::move(cache)), op_(g_max_operation_bytes) {}

  void serve() {
    bool close_requested = serve_commands();
    {
      std::lock_guard<std::mutex> lock(g_ta_mutex);
      close_locked();
    }
    TS_LOG_DEBUG("session %u closed", id_);
    if (close_requested) {
      wire::CloseSessionReply reply;
      if (wire::encode(send_, close_tag_, reply) == wire::Status::Ok)
        (void)send_frame(channel_.get(), send_.data(), send_.size());
    }
    wire::HostSessionClosed closed;
    closed.session_id = id_;
    if (!send_control(closed)) die("lost the daemon");
  }

  /* Runs the TA's close entry point once; g_ta_mutex must be held. */
  void close_locked() {
    if (g_live.erase(this) == 0) return;
    runtime::set_current_client(login_, client_);
    g_ta->close_session(ta_context_);
    --g_sessions;
  }

 private:
  /* Serves commands until the client closes the session (true) or the
   * channel ends or breaks the protocol (false). */
  bool serve_commands() {
    FdList fds;
    for (;;) {
      const uint8_t* data = nullptr;
      ssize_t n = reader_.next(channel_.get(), &data);
      if (n == 0) return false;
      if (n < 0) {
        if (n == -EPROTO || n == -EMSGSIZE) {
          TS_LOG_DEBUG_LIMITED("session %u: malformed stream from the client (%s); ending the session", id_,
                      n == -EPROTO ? "bad or cut frame" : "too many descriptors");
        } else if (n != -ECONNRESET) {
          TS_LOG_DEBUG_LIMITED("session %u: receive failed: %s", id_, std::strerror(static_cast<int>(-n)));
        }
        return false;
      }
      wire::Frame frame;
      wire::Status st = wire::parse_frame(data, static_cast<size_t>(n), &frame);
      if (st == wire::Status::Ok) {
        switch (frame.type) {
          case wire::MsgType::Invoke: {
            wire::Invoke inv;
            st = wire::decode(frame, wire::kAnyFds, &inv);
            if (st != wire::Status::Ok) break;
            if (!reader_.take_fds(wire::attached_fds(inv.params), &fds)) {
              st = wire::Status::FdMismatch;
              break;
            }
            bool ok = invoke(frame.tag, inv, fds);
            reader_.wipe_consumed();
            if (!ok) return false;
            if (!stray_fds_ok()) return false;
            continue;
          }
          case wire::MsgType::ShmForget: {
            wire::ShmForget f;
            st = wire::decode(frame, 0, &f);
            if (st != wire::Status::Ok) break;
            cache_.forget(f.shm_id);
            if (!stray_fds_ok()) return false;
            continue;
          }
          case wire::MsgType::CloseSession: {
            wire::CloseSession c;
            st = wire::decode(frame, 0, &c);
            if (st != wire::Status::Ok) break;
            close_tag_ = frame.tag;
            return true;
          }
          default:
            st = wire::Status::WrongType;
            break;
        }
      }
      TS_LOG_DEBUG_LIMITED("session %u: malformed frame from the client (%s); ending the session", id_,
                  wire::status_name(st));
      return false;
    }
  }

  /* Descriptors come with the first byte of their frame: any left over once
   * every buffered frame has claimed its own belong to no frame. */
  bool stray_fds_ok() {
    if (reader_.queued_fds() == 0 || reader_.buffered() > 0) return true;
    TS_LOG_DEBUG_LIMITED("session %u: descriptors sent without a frame; ending the session", id_);
    return false;
  }

  bool invoke(uint32_t tag, const wire::Invoke& inv, FdList& fds) {
    wire::InvokeReply reply;
    std::string why;
    TEE_Result res = op_.prepare(inv.params, fds, 0, cache_, &why);
    fds.clear();
    if (res != TEE_SUCCESS) {
      TS_LOG_DEBUG_LIMITED("session %u: command 0x%x refused: %s", id_, inv.command, why.c_str());
      reply.result = res;
      reply.origin = wire::Origin::Tee;
      for (int i = 0; i < 4; ++i) reply.params[i].kind = inv.params[i].kind;
    } else {
      {
        std::lock_guard<std::mutex> lock(g_ta_mutex);
        runtime::set_current_client(login_, client_);
        res = g_ta->invoke_command(ta_context_, inv.command, op_.param_types(), op_.ta_params());
      }
      reply.result = res;
      reply.origin = wire::Origin::TrustedApp;
      op_.finish(&reply.params);
    }
    wire::Status st = wire::encode(send_, tag, reply);
    op_.release();
    if (st != wire::Status::Ok) {
      TS_LOG_ERROR("session %u: cannot encode a reply (%s)", id_, wire::status_name(st));
      return false;
    }
    int r = send_frame(channel_.get(), send_.data(), send_.size());
    wipe(send_.data(), send_.size());
    if (r != 0) {
      TS_LOG_DEBUG_LIMITED("session %u: client went away before its answer (%s)", id_, std::strerror(-r));
      return false;
    }
    return true;
  }

  uint32_t id_;
  UniqueFd channel_;
  uint32_t login_;
  Uuid client_;
  void* ta_context_;
  ShmCache cache_;
  Operation op_;
  StreamReader reader_;
  std::vector<uint8_t> send_;
  uint32_t close_tag_ = 0;
};

/* ---- start-up ------------------------------------------------------------- */

struct LoadError {
  TEE_Result result = TEE_SUCCESS;
  wire::Origin origin = wire::Origin::Tee;
  std::string message;
};

bool load_properties(const std::string& ta_path, std::map<std::string, std::string>* props,
                     LoadError* err) {
  std::string path = ta_path;
  if (path.size() > 3 && path.compare(path.size() - 3, 3, ".ta") == 0) path.resize(path.size() - 3);
  path += ".props";
  std::vector<uint8_t> text;
  int r = fs::read_file(path, kMaxPropertiesFile, &text);
  if (r == -ENOENT) return true;
  if (r != 0) {
    err->result = TEE_ERROR_BAD_FORMAT;
    err->message = "cannot read " + path + ": " + std::strerror(-r);
    return false;
  }
  std::string why;
  if (!runtime::parse_properties(std::string(text.begin(), text.end()), props, &why)) {
    err->result = TEE_ERROR_BAD_FORMAT;
    err->message = path + ": " + why;
    return false;
  }
  return true;
}

bool load_ta(const wire::HostInit& init, LoadError* err) {
  void* lib = ::dlopen(init.ta_path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (lib == nullptr) {
    err->result = TEE_ERROR_BAD_FORMAT;
    const char* e = ::dlerror();
    err->message = std::string("cannot load the TA: ") + (e != nullptr ? e : "unknown error");
    return false;
  }
  auto* d = static_cast<const teesim_ta_descriptor*>(::dlsym(lib, TEESIM_TA_DESCRIPTOR_SYMBOL));
  if (d == nullptr) {
    err->result = TEE_ERROR_BAD_FORMAT;
    err->message = "the TA exports no " TEESIM_TA_DESCRIPTOR_SYMBOL;
    return false;
  }
  if (d->abi_version != TEESIM_TA_ABI_VERSION) {
    err->result = TEE_ERROR_BAD_FORMAT;
    err->message = "the TA was built for descriptor version " + std::to_string(d->abi_version) +
                   ", this teesim loads version " + std::to_string(TEESIM_TA_ABI_VERSION);
    return false;
  }
  Uuid declared = uuid_from_fields(d->uuid.timeLow, d->uuid.timeMid, d->uuid.timeHiAndVersion,
                                   d->uuid.clockSeqAndNode);
  if (declared != init.ta) {
    err->result = TEE_ERROR_BAD_FORMAT;
    err->message = "the TA declares UUID " + uuid_to_string(declared) + ", not the " +
                   uuid_to_string(init.ta) + " of its file name";
    return false;
  }
  if (d->name == nullptr || d->create == nullptr || d->destroy == nullptr ||
      d->open_session == nullptr || d->close_session == nullptr || d->invoke_command == nullptr) {
    err->result = TEE_ERROR_BAD_FORMAT;
    err->message = "the TA descriptor lacks a name or an entry point";
    return false;
  }
  g_ta = d;
  return true;
}

void reply_init(const LoadError& err) {
  wire::HostInitReply reply;
  reply.result = err.result;
  reply.origin = err.result == TEE_SUCCESS ? wire::Origin::TrustedApp : err.origin;
  if (g_ta != nullptr) {
    reply.ta_flags = g_ta->flags;
    reply.name.assign(g_ta->name, strnlen(g_ta->name, 64));
  }
  reply.error = err.message.substr(0, wire::kMaxString);
  if (!send_control(reply)) die("lost the daemon");
}

/* ---- serving the daemon --------------------------------------------------- */

void open_session(uint32_t tag, const wire::HostOpen& msg, FdList& fds) {
  wire::HostOpenReply reply;
  reply.session_id = msg.session_id;
  UniqueFd channel(fds.fds[0].release());
  ShmCache cache(g_max_session_shm_bytes);
  Operation op(g_max_operation_bytes);
  std::string why;
  TEE_Result res = op.prepare(msg.params, fds, 1, cache, &why);
  fds.clear();
  void* ta_context = nullptr;
  if (res != TEE_SUCCESS) {
    TS_LOG_DEBUG_LIMITED("session %u: open refused: %s", msg.session_id, why.c_str());
    reply.result = res;
    reply.origin = wire::Origin::Tee;
    for (int i = 0; i < 4; ++i) reply.params[i].kind = msg.params[i].kind;
  } else {
    std::lock_guard<std::mutex> lock(g_ta_mutex);
    if (!(g_ta->flags & TEESIM_TA_FLAG_MULTI_SESSION) && g_sessions.load() > 0) {
      reply.result = TEE_ERROR_BUSY;
      reply.origin = wire::Origin::Tee;
      for (int i = 0; i < 4; ++i) reply.params[i].kind = msg.params[i].kind;
    } else {
      runtime::set_current_client(tee_login(msg.login), msg.client_id);
      res = g_ta->open_session(op.param_types(), op.ta_params(), &ta_context);
      reply.result = res;
      reply.origin = wire::Origin::TrustedApp;
      op.finish(&reply.params);
      if (res == TEE_SUCCESS) ++g_sessions;
    }
  }
  {
    /* Answer first: the daemon must learn of the session before anything
     * the session's thread could tell it. */
    std::lock_guard<std::mutex> lock(g_control_mutex);
    std::vector<uint8_t> frame;
    wire::Status st = wire::encode(frame, tag, reply);
    op.release();
    if (st != wire::Status::Ok || send_frame(kControlFd, frame.data(), frame.size()) != 0)
      die("lost the daemon");
  }
  if (reply.result == TEE_SUCCESS) {
    auto* s = new Session(msg.session_id, std::move(channel), tee_login(msg.login), msg.client_id, ta_context,
                          std::move(cache));
    {
      std::lock_guard<std::mutex> lock(g_ta_mutex);
      g_live.insert(s);
    }
    std::thread([s] {
      s->serve();
      delete s;
    }).detach();
  }
}

[[noreturn]] void serve_daemon() {
  std::vector<uint8_t> buf(wire::kMaxFrameSize);
  FdList fds;
  for (;;) {
    ssize_t n = recv_frame(kControlFd, buf.data(), buf.size(), &fds);
    if (n == 0) ::_exit(0); /* the daemon is gone; so is everything we serve */
    if (n < 0) die("control channel failed");
    wire::Frame frame;
    wire::Status st = wire::parse_frame(buf.data(), static_cast<size_t>(n), &frame);
    if (st == wire::Status::Ok && frame.type == wire::MsgType::HostOpen) {
      wire::HostOpen msg;
      st = wire::decode(frame, fds.count, &msg);
      if (st == wire::Status::Ok) {
        open_session(frame.tag, msg, fds);
        continue;
      }
    } else if (st == wire::Status::Ok && frame.type == wire::MsgType::HostDestroy) {
      std::lock_guard<std::mutex> lock(g_ta_mutex);
      /* Normally no session is left; at the daemon's shutdown they are
       * closed here, as the TA API promises, before the instance goes. */
      while (!g_live.empty()) (*g_live.begin())->close_locked();
      g_ta->destroy();
      runtime::close_all_object_handles();
      TS_LOG_DEBUG("TA %s instance destroyed", g_ta->name);
      ::_exit(0);
    } else if (st == wire::Status::Ok) {
      st = wire::Status::WrongType;
    }
    TS_LOG_ERROR("malformed frame from the daemon (%s)", wire::status_name(st));
    ::_exit(1);
  }
}

int run(int argc, char** argv) {
  struct stat st{};
  if (argc != 3 || ::fstat(kControlFd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
    std::fprintf(stderr,
                 "teesim-tahost runs one TA instance for the teesim daemon, which starts it;\n"
                 "it is not meant to be run by hand.\n");
    return 2;
  }
  /* Die with the daemon, as a secure world's TAs do; and if it already went,
   * stop now rather than serve nobody. */
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (std::to_string(::getppid()) != argv[2]) return 1;
#ifndef TESSERA_SANITIZE
  ::prctl(PR_SET_DUMPABLE, 0); /* keep same-user debuggers out of TA memory */
#endif
  ::signal(SIGPIPE, SIG_IGN);

  std::vector<uint8_t> buf(wire::kMaxFrameSize);
  FdList fds;
  ssize_t n = recv_frame(kControlFd, buf.data(), buf.size(), &fds);
  if (n <= 0) return 1;
  wire::Frame frame;
  wire::HostInit init;
  if (wire::parse_frame(buf.data(), static_cast<size_t>(n), &frame) != wire::Status::Ok ||
      wire::decode(frame, fds.count, &init) != wire::Status::Ok) {
    wipe(buf.data(), buf.size());
    return 1;
  }
  wipe(buf.data(), buf.size());

  log::Level level = log::Level::Info;
  if (init.log_level >= 1 && init.log_level <= 4) level = static_cast<log::Level>(init.log_level);
  log::init("teesim-ta", level, init.log_flags & 1);
  g_max_operation_bytes = init.max_operation_bytes;
  g_max_session_shm_bytes = init.max_session_shm_bytes;

  LoadError err;
  runtime::Config config;
  bool ok = load_ta(init, &err) && load_properties(init.ta_path, &config.properties, &err);
  if (ok) {
    config.uuid = init.ta;
    config.name = g_ta->name;
    config.ta_flags = g_ta->flags;
    Key256 storage_key, name_key;
    storage_key.array() = init.storage_key;
    name_key.array() = init.name_key;
    config.store = std::make_unique<runtime::ObjectStore>(
        init.storage_dir + "/" + uuid_to_string(init.ta), init.ta, storage_key, name_key);
    config.deterministic_random = init.random_mode == 1;
    config.random_key.array() = init.random_key;
    runtime::configure(std::move(config));
  }
  wipe(init.storage_key.data(), init.storage_key.size());
  wipe(init.name_key.data(), init.name_key.size());
  wipe(init.random_key.data(), init.random_key.size());
  if (!ok) {
    /* The daemon logs the reason it is sent (rate-limited there: a client
     * can ask for a broken TA again and again, each time a new process). */
    TS_LOG_DEBUG("%s: %s", init.ta_path.c_str(), err.message.c_str());
    reply_init(err);
    return 1;
  }

  TEE_Result res;
  {
    std::lock_guard<std::mutex> lock(g_ta_mutex);
    res = g_ta->create();
  }
  if (res != TEE_SUCCESS) {
    err.result = res;
    err.origin = wire::Origin::TrustedApp;
    char msg[64];
    std::snprintf(msg, sizeof msg, "TA_CreateEntryPoint returned 0x%08x", res);
    err.message = msg;
    TS_LOG_DEBUG("TA %s: %s", g_ta->name, msg); /* the daemon logs it too */
    reply_init(err);
    return 1;
  }
  TS_LOG_DEBUG("TA %s instance %u ready", g_ta->name, init.instance_no);
  reply_init(err);
  serve_daemon();
}

}  // namespace
}  // namespace teesim::host

int main(int argc, char** argv) { return teesim::host::run(argc, argv); }
