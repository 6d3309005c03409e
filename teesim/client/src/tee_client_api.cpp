/*
 * The GlobalPlatform TEE Client API on top of the teesim daemon.
 *
 * A context is one connection to the daemon, used only to open sessions.
 * A session is a channel straight to the TA instance's process, handed over
 * by the daemon; commands go over it without the daemon. Allocated shared
 * memory is a sealed memfd mapped here and sent to an instance the first
 * time a session uses it; registered and temporary memory references travel
 * by copy (inline in the frame, or in a one-shot memfd when large).
 *
 * Every exit sets the return origin; failures start as failures and become
 * success only at the end.
 */
#include "tee_client_api.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "client_log.h"
#include "daemon_link.h"
#include "secure_wipe.h"
#include "teesim/channel.h"
#include "teesim/paths.h"
#include "teesim/uuid.h"
#include "teesim/wire.h"

#define TEEC_EXPORT extern "C" __attribute__((visibility("default")))

namespace teec {
namespace {

namespace w = teesim::wire;
using teesim::FdList;
using teesim::UniqueFd;

struct Session;
struct Shm;

struct Context {
  std::mutex mu; /* one open-session exchange at a time; guards the sets */
  UniqueFd fd;
  std::string socket;
  /* The daemon's bound on one operation's memory references, sizes added
   * up: larger operations are refused here, before anything is copied. */
  uint32_t max_operation_bytes = 0;
  uint32_t next_tag = 1;
  uint32_t next_shm_id = 1;
  std::set<Session*> sessions;
  std::set<Shm*> shms;
  std::vector<uint8_t> send;
  std::vector<uint8_t> recv;
};

struct Shm {
  Context* ctx = nullptr; /* null once its context was finalized */
  uint32_t id = 0;        /* allocated blocks: the id instances know it by */
  bool allocated = false;
  uint32_t flags = 0;
  size_t size = 0;
  uint8_t* buffer = nullptr; /* registered: the client's; allocated: our mapping */
  UniqueFd memfd;
  size_t map_len = 0;
};

struct Session {
  Context* ctx = nullptr;
  std::mutex mu; /* one command at a time on the channel */
  UniqueFd fd;
  uint32_t id = 0;
  uint32_t next_tag = 1;
  bool broken = false;
  TEEC_Result broken_result = TEEC_ERROR_GENERIC;
  uint32_t broken_origin = TEEC_ORIGIN_COMMS;
  std::unordered_set<uint32_t> shm_known;
  std::vector<uint8_t> send;
  teesim::StreamReader reader; /* the session channel is a stream */
};

/* Every live object, by the pointer kept in its public structure's `imp`:
 * a handle that is stale, released or never made is told apart from a live
 * one without touching it. */
enum class Kind { Context, Session, Shm };
std::mutex g_mu;
std::unordered_map<const void*, Kind> g_live;
std::unordered_set<const TEEC_Operation*> g_cancelled;

/* The daemon and TA instances speak of origins and login methods in the
 * protocol's terms; they are the client API's numbers. */
static_assert(static_cast<uint32_t>(w::Origin::Api) == TEEC_ORIGIN_API);
static_assert(static_cast<uint32_t>(w::Origin::Comms) == TEEC_ORIGIN_COMMS);
static_assert(static_cast<uint32_t>(w::Origin::Tee) == TEEC_ORIGIN_TEE);
static_assert(static_cast<uint32_t>(w::Origin::TrustedApp) == TEEC_ORIGIN_TRUSTED_APP);
static_assert(static_cast<uint32_t>(w::Login::Public) == TEEC_LOGIN_PUBLIC);
static_assert(static_cast<uint32_t>(w::Login::User) == TEEC_LOGIN_USER);
static_assert(static_cast<uint32_t>(w::Login::Group) == TEEC_LOGIN_GROUP);
static_assert(static_cast<uint32_t>(w::Login::Application) == TEEC_LOGIN_APPLICATION);
static_assert(static_cast<uint32_t>(w::Login::UserApplication) == TEEC_LOGIN_USER_APPLICATION);
static_assert(static_cast<uint32_t>(w::Login::GroupApplication) == TEEC_LOGIN_GROUP_APPLICATION);

void set_origin(uint32_t* origin, uint32_t value) {
  if (origin != nullptr) *origin = value;
}

/* An origin from a reply, handed to the caller as it came. */
void set_origin(uint32_t* origin, w::Origin value) { set_origin(origin, static_cast<uint32_t>(value)); }

template <typename T>
T* live(const void* imp, Kind kind) {
  if (imp == nullptr) return nullptr;
  std::lock_guard<std::mutex> lock(g_mu);
  auto it = g_live.find(imp);
  return it != g_live.end() && it->second == kind ? static_cast<T*>(const_cast<void*>(imp)) : nullptr;
}

void enliven(const void* p, Kind kind) {
  std::lock_guard<std::mutex> lock(g_mu);
  g_live[p] = kind;
}

bool kill_handle(const void* p) {
  std::lock_guard<std::mutex> lock(g_mu);
  return g_live.erase(p) == 1;
}

void log_error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_error(const char* fmt, ...) {
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  log::write(log::Level::Error, "%s", msg);
}

void log_warn(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_warn(const char* fmt, ...) {
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  log::write(log::Level::Warn, "%s", msg);
}

/* ---- parameters ------------------------------------------------------------ */

/* Where an output of one parameter goes once the TA has answered. */
struct OutputPlan {
  uint32_t teec_type = TEEC_NONE;
  uint8_t* dest = nullptr; /* client memory for copied outputs */
  size_t capacity = 0;
  int bounce = -1;          /* index into Marshal::bounce, or -1 */
};

/* One operation turned into wire parameters, with what it needs kept alive. */
struct Marshal {
  w::Params params;
  int fds[w::kMaxFds];
  size_t nfds = 0;
  UniqueFd bounce[4];
  std::vector<uint32_t> attached_ids;
  OutputPlan out[4];
  uint32_t inline_left = w::kMaxInlineBytes;
};

/* A one-shot memfd holding `size` bytes (copied from src when given). */
TEEC_Result make_bounce(const uint8_t* src, size_t size, UniqueFd* out) {
  UniqueFd fd(::memfd_create("teec-copy", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd) return TEEC_ERROR_OUT_OF_MEMORY;
  size_t len = size > 0 ? size : 1;
  if (::ftruncate(fd.get(), static_cast<off_t>(len)) != 0) return TEEC_ERROR_OUT_OF_MEMORY;
  size_t done = 0;
  while (src != nullptr && done < size) {
    ssize_t n = ::pwrite(fd.get(), src + done, size - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return TEEC_ERROR_OUT_OF_MEMORY;
    done += static_cast<size_t>(n);
  }
  if (::fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
    return TEEC_ERROR_OUT_OF_MEMORY;
  *out = std::move(fd);
  return TEEC_SUCCESS;
}

w::ParamKind buf_kind(uint32_t dir) {
  return dir == 1 ? w::ParamKind::BufIn : dir == 2 ? w::ParamKind::BufOut : w::ParamKind::BufInOut;
}
w::ParamKind shm_kind(uint32_t dir) {
  return dir == 1 ? w::ParamKind::ShmIn : dir == 2 ? w::ParamKind::ShmOut : w::ParamKind::ShmInOut;
}

/* Carries client memory by copy: inline while the operation's budget lasts,
 * else in a one-shot memfd. */
TEEC_Result carry_copy(Marshal* m, int i, uint32_t dir, uint8_t* mem, size_t size) {
  w::Param& p = m->params[i];
  m->out[i].dest = mem;
  m->out[i].capacity = size;
  if (size <= m->inline_left) {
    m->inline_left -= static_cast<uint32_t>(size);
    p.kind = buf_kind(dir);
    p.size = static_cast<uint32_t>(size);
    p.data = (dir & 1) ? mem : nullptr;
    return TEEC_SUCCESS;
  }
  TEEC_Result r = make_bounce((dir & 1) ? mem : nullptr, size, &m->bounce[i]);
  if (r != TEEC_SUCCESS) return r;
  m->out[i].bounce = i;
  p.kind = shm_kind(dir);
  p.shm_id = 0;
  p.shm_flags = w::kShmFdAttached;
  p.offset = 0;
  p.size = static_cast<uint32_t>(size);
  m->fds[m->nfds++] = m->bounce[i].get();
  return TEEC_SUCCESS;
}

/* The bytes of an operation's memory references, sizes added up, as the TA
 * instance will copy them (parameters that are not valid count 0; marshal()
 * refuses them). */
uint64_t memref_bytes(const TEEC_Operation* op) {
  uint64_t total = 0;
  for (int i = 0; i < 4; ++i) {
    const TEEC_Parameter& tp = op->params[i];
    switch (TEEC_PARAM_TYPE_GET(op->paramTypes, i)) {
      case TEEC_MEMREF_TEMP_INPUT:
      case TEEC_MEMREF_TEMP_OUTPUT:
      case TEEC_MEMREF_TEMP_INOUT:
        total += tp.tmpref.size;
        break;
      case TEEC_MEMREF_WHOLE:
        if (tp.memref.parent != nullptr) total += tp.memref.parent->size;
        break;
      case TEEC_MEMREF_PARTIAL_INPUT:
      case TEEC_MEMREF_PARTIAL_OUTPUT:
      case TEEC_MEMREF_PARTIAL_INOUT:
        total += tp.memref.size;
        break;
      default:
        break;
    }
  }
  return total;
}

/* Turns an operation into wire parameters.
 * known: the shm ids the session's instance holds (null: none, at open). */
TEEC_Result marshal(Context* ctx, const std::unordered_set<uint32_t>* known, TEEC_Operation* op,
                    Marshal* m) {
  if (op == nullptr) return TEEC_SUCCESS;
  if (op->paramTypes > 0xFFFFu) return TEEC_ERROR_BAD_PARAMETERS;
  /* Refused before anything is copied: the instance would refuse it too. */
  const uint64_t total = memref_bytes(op);
  if (total > ctx->max_operation_bytes) {
    log_error("an operation with %llu bytes of memory references, more than the %u the TEE takes",
              static_cast<unsigned long long>(total), ctx->max_operation_bytes);
    return TEEC_ERROR_EXCESS_DATA;
  }
  for (int i = 0; i < 4; ++i) {
    const uint32_t t = TEEC_PARAM_TYPE_GET(op->paramTypes, i);
    TEEC_Parameter& tp = op->params[i];
    w::Param& p = m->params[i];
    m->out[i].teec_type = t;
    switch (t) {
      case TEEC_NONE:
        break;
      case TEEC_VALUE_INPUT:
      case TEEC_VALUE_OUTPUT:
      case TEEC_VALUE_INOUT:
        p.kind = static_cast<w::ParamKind>(t); /* the same numbering */
        p.a = tp.value.a;
        p.b = tp.value.b;
        break;
      case TEEC_MEMREF_TEMP_INPUT:
      case TEEC_MEMREF_TEMP_OUTPUT:
      case TEEC_MEMREF_TEMP_INOUT: {
        if (tp.tmpref.buffer == nullptr && tp.tmpref.size != 0) return TEEC_ERROR_BAD_PARAMETERS;
        if (tp.tmpref.size > w::kMaxShmSize) return TEEC_ERROR_BAD_PARAMETERS;
        TEEC_Result r = carry_copy(m, i, t & 3u, static_cast<uint8_t*>(tp.tmpref.buffer), tp.tmpref.size);
        if (r != TEEC_SUCCESS) return r;
        break;
      }
      case TEEC_MEMREF_WHOLE:
      case TEEC_MEMREF_PARTIAL_INPUT:
      case TEEC_MEMREF_PARTIAL_OUTPUT:
      case TEEC_MEMREF_PARTIAL_INOUT: {
        TEEC_SharedMemory* parent = tp.memref.parent;
        Shm* shm = parent != nullptr ? live<Shm>(parent->imp, Kind::Shm) : nullptr;
        if (shm == nullptr || shm->ctx != ctx) return TEEC_ERROR_BAD_PARAMETERS;
        uint32_t dir;
        size_t offset = 0, size = shm->size;
        if (t == TEEC_MEMREF_WHOLE) {
          dir = shm->flags & (TEEC_MEM_INPUT | TEEC_MEM_OUTPUT);
        } else {
          dir = t & 3u;
          if ((shm->flags & dir) != dir) return TEEC_ERROR_BAD_PARAMETERS;
          offset = tp.memref.offset;
          size = tp.memref.size;
          if (offset > shm->size || size > shm->size - offset) return TEEC_ERROR_BAD_PARAMETERS;
        }
        if (!shm->allocated) {
          TEEC_Result r = carry_copy(m, i, dir, shm->buffer + offset, size);
          if (r != TEEC_SUCCESS) return r;
          break;
        }
        p.kind = shm_kind(dir);
        p.shm_id = shm->id;
        p.offset = offset;
        p.size = static_cast<uint32_t>(size);
        m->out[i].capacity = size;
        if (known == nullptr || known->count(shm->id) == 0) {
          bool already = false;
          for (uint32_t id : m->attached_ids) already = already || id == shm->id;
          /* Attach once per frame; later parameters name it by id. */
          if (!already) {
            p.shm_flags = w::kShmFdAttached;
            m->fds[m->nfds++] = shm->memfd.get();
            m->attached_ids.push_back(shm->id);
          }
        }
        break;
      }
      default:
        return TEEC_ERROR_BAD_PARAMETERS;
    }
  }
  return TEEC_SUCCESS;
}

/* Checks a reply's parameters against the request. */
bool reply_matches(const Marshal& m, const w::Params& reply) {
  for (int i = 0; i < 4; ++i) {
    if (reply[i].kind != m.params[i].kind) return false;
    if (w::is_buf(reply[i].kind) && reply[i].data_len > 0 && reply[i].size > m.out[i].capacity)
      return false;
  }
  return true;
}

/* Writes the TA's answer back into the operation. */
void unmarshal(TEEC_Operation* op, const Marshal& m, const w::Params& reply) {
  if (op == nullptr) return;
  for (int i = 0; i < 4; ++i) {
    const OutputPlan& plan = m.out[i];
    const w::Param& r = reply[i];
    TEEC_Parameter& tp = op->params[i];
    switch (plan.teec_type) {
      case TEEC_VALUE_OUTPUT:
      case TEEC_VALUE_INOUT:
        tp.value.a = r.a;
        tp.value.b = r.b;
        continue;
      case TEEC_MEMREF_TEMP_OUTPUT:
      case TEEC_MEMREF_TEMP_INOUT:
        tp.tmpref.size = r.size;
        break;
      case TEEC_MEMREF_WHOLE:
      case TEEC_MEMREF_PARTIAL_OUTPUT:
      case TEEC_MEMREF_PARTIAL_INOUT:
        if (!w::is_output(r.kind)) continue;
        tp.memref.size = r.size;
        break;
      default:
        continue;
    }
    if (r.size > plan.capacity || r.size == 0) continue; /* a needed size, or nothing */
    if (w::is_buf(r.kind) && r.data_len == r.size) {
      std::memcpy(plan.dest, r.data, r.size);
    } else if (plan.bounce >= 0) {
      size_t done = 0;
      while (done < r.size) {
        ssize_t n = ::pread(m.bounce[plan.bounce].get(), plan.dest + done, r.size - done,
                            static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
      }
    }
    /* allocated shared memory: the instance wrote the bytes in place */
  }
}

/* Marks an operation started, unless it was cancelled before it began. */
bool start_operation(TEEC_Operation* op) {
  if (op == nullptr) return true;
  std::lock_guard<std::mutex> lock(g_mu);
  if (g_cancelled.erase(op) == 1) return false;
  op->started = 1;
  return true;
}

/* ---- sessions --------------------------------------------------------------- */

/* A broken session channel: is the TA dead, or the whole TEE? */
void break_session(Session* s) {
  s->broken = true;
  if (teesim::peer_gone(s->ctx->fd.get())) {
    s->broken_result = TEEC_ERROR_COMMUNICATION;
    s->broken_origin = TEEC_ORIGIN_COMMS;
  } else {
    s->broken_result = TEEC_ERROR_TARGET_DEAD;
    s->broken_origin = TEEC_ORIGIN_TEE;
  }
}

/* Frames carry copies of memref bytes: they are wiped once used. */
void wipe(std::vector<uint8_t>& buf, size_t used) {
  tessera_secure_wipe(buf.data(), std::min(used, buf.size()));
}

/* Sends one frame and waits for the one answer of the expected type. The
 * answer's views point into the session's reader until its next call. */
template <typename Reply>
bool exchange(Session* s, size_t nfds, const int* fds, uint32_t tag, Reply* reply) {
  int sent = teesim::send_frame(s->fd.get(), s->send.data(), s->send.size(), fds, nfds);
  wipe(s->send, s->send.size());
  if (sent != 0) return false;
  const uint8_t* data = nullptr;
  ssize_t n = s->reader.next(s->fd.get(), &data);
  if (n <= 0) return false;
  w::Frame f;
  /* No answer carries descriptors. */
  if (w::parse_frame(data, static_cast<size_t>(n), &f) != w::Status::Ok || f.tag != tag ||
      w::decode(f, 0, reply) != w::Status::Ok || s->reader.queued_fds() != 0) {
    log_error("session %u: malformed answer from the TA instance", s->id);
    return false;
  }
  return true;
}

void close_session_locked(Session* s) {
  if (s->broken) return;
  w::CloseSession msg;
  uint32_t tag = s->next_tag++;
  if (w::encode(s->send, tag, msg) != w::Status::Ok) return;
  w::CloseSessionReply reply;
  (void)exchange(s, 0, nullptr, tag, &reply); /* either way the session is over */
}

}  // namespace
}  // namespace teec

using namespace teec;

/* ---- API ---------------------------------------------------------------------- */

TEEC_EXPORT TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
  if (context == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  context->imp = nullptr;
  std::string socket;
  if (name == nullptr) {
    socket = teesim::paths::socket_path();
  } else if (name[0] == '/') {
    socket = name; /* a TEE named by its daemon's socket */
  } else {
    log_error("TEEC_InitializeContext: no TEE named \"%s\" (give NULL for the default TEE, or the "
              "path of a teesim socket)", name);
    return TEEC_ERROR_ITEM_NOT_FOUND;
  }
  auto* ctx = new Context;
  std::string why;
  TEEC_Result r = TEEC_SUCCESS;
  TEEC_Result service = name == nullptr ? connect_service(&ctx->fd, &ctx->max_operation_bytes, &socket, &why)
                                         : TEEC_ERROR_ITEM_NOT_FOUND;
  ctx->socket = socket;
  if (service != TEEC_ERROR_ITEM_NOT_FOUND) {
    r = service;
  } else {
    r = connect_daemon(socket, /*may_start=*/true, &ctx->fd, &ctx->max_operation_bytes, &why);
  }
  if (r != TEEC_SUCCESS) {
    log_error("TEEC_InitializeContext: %s", why.c_str());
    delete ctx;
    return r;
  }
  ctx->send.reserve(w::kMaxFrameSize);
  enliven(ctx, Kind::Context);
  context->imp = ctx;
  return TEEC_SUCCESS;
}

TEEC_EXPORT void TEEC_FinalizeContext(TEEC_Context* context) {
  if (context == nullptr) return;
  Context* ctx = live<Context>(context->imp, Kind::Context);
  if (ctx == nullptr || !kill_handle(ctx)) return;
  context->imp = nullptr;
  std::set<Session*> sessions;
  {
    std::lock_guard<std::mutex> lock(ctx->mu);
    sessions.swap(ctx->sessions);
    if (!sessions.empty() || !ctx->shms.empty())
      log_warn("TEEC_FinalizeContext: %zu session(s) and %zu shared memory block(s) still open; "
               "closing the sessions", sessions.size(), ctx->shms.size());
    for (Shm* shm : ctx->shms) shm->ctx = nullptr;
    ctx->shms.clear();
  }
  for (Session* s : sessions) {
    if (!kill_handle(s)) continue;
    {
      std::lock_guard<std::mutex> lock(s->mu);
      close_session_locked(s);
    }
    delete s;
  }
  delete ctx;
}

TEEC_EXPORT TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem) {
  if (context == nullptr || sharedMem == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  Context* ctx = live<Context>(context->imp, Kind::Context);
  if (ctx == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  const uint32_t flags = sharedMem->flags;
  if (flags == 0 || (flags & ~(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT)) != 0) return TEEC_ERROR_BAD_PARAMETERS;
  if (sharedMem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) return TEEC_ERROR_BAD_PARAMETERS;
  if (sharedMem->buffer == nullptr && sharedMem->size != 0) return TEEC_ERROR_BAD_PARAMETERS;
  auto* shm = new Shm;
  shm->ctx = ctx;
  shm->flags = flags;
  shm->size = sharedMem->size;
  shm->buffer = static_cast<uint8_t*>(sharedMem->buffer);
  {
    std::lock_guard<std::mutex> lock(ctx->mu);
    ctx->shms.insert(shm);
  }
  enliven(shm, Kind::Shm);
  sharedMem->imp = shm;
  return TEEC_SUCCESS;
}

TEEC_EXPORT TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem) {
  if (context == nullptr || sharedMem == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  Context* ctx = live<Context>(context->imp, Kind::Context);
  if (ctx == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  const uint32_t flags = sharedMem->flags;
  if (flags == 0 || (flags & ~(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT)) != 0) return TEEC_ERROR_BAD_PARAMETERS;
  if (sharedMem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) return TEEC_ERROR_OUT_OF_MEMORY;
  size_t len = sharedMem->size > 0 ? sharedMem->size : 1;
  UniqueFd fd(::memfd_create("teec-shm", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd || ::ftruncate(fd.get(), static_cast<off_t>(len)) != 0) {
    log_error("TEEC_AllocateSharedMemory: cannot make %zu bytes of shared memory: %s", len,
              std::strerror(errno));
    return TEEC_ERROR_OUT_OF_MEMORY;
  }
  void* map = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (map == MAP_FAILED) return TEEC_ERROR_OUT_OF_MEMORY;
  /* Sealed so that no one can shrink it under the TA instance that maps it. */
  if (::fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
    ::munmap(map, len);
    return TEEC_ERROR_OUT_OF_MEMORY;
  }
  auto* shm = new Shm;
  shm->ctx = ctx;
  shm->allocated = true;
  shm->flags = flags;
  shm->size = sharedMem->size;
  shm->buffer = static_cast<uint8_t*>(map);
  shm->memfd = std::move(fd);
  shm->map_len = len;
  {
    std::lock_guard<std::mutex> lock(ctx->mu);
    shm->id = ctx->next_shm_id++;
    if (ctx->next_shm_id == 0) ctx->next_shm_id = 1;
    ctx->shms.insert(shm);
  }
  enliven(shm, Kind::Shm);
  sharedMem->buffer = map;
  sharedMem->imp = shm;
  return TEEC_SUCCESS;
}

TEEC_EXPORT void TEEC_ReleaseSharedMemory(TEEC_SharedMemory* sharedMem) {
  if (sharedMem == nullptr) return;
  Shm* shm = live<Shm>(sharedMem->imp, Kind::Shm);
  if (shm == nullptr || !kill_handle(shm)) return;
  sharedMem->imp = nullptr;
  if (shm->ctx != nullptr) {
    Context* ctx = shm->ctx;
    std::lock_guard<std::mutex> lock(ctx->mu);
    ctx->shms.erase(shm);
    if (shm->allocated) {
      /* Instances that mapped it let it go. */
      w::ShmForget forget;
      forget.shm_id = shm->id;
      for (Session* s : ctx->sessions) {
        std::lock_guard<std::mutex> slock(s->mu);
        if (s->shm_known.erase(shm->id) == 0 || s->broken) continue;
        if (w::encode(s->send, 0, forget) == w::Status::Ok)
          (void)teesim::send_frame(s->fd.get(), s->send.data(), s->send.size());
      }
    }
  }
  if (shm->allocated) {
    ::munmap(shm->buffer, shm->map_len);
    sharedMem->buffer = nullptr;
  }
  delete shm;
}

TEEC_EXPORT TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                                         const TEEC_UUID* destination, uint32_t connectionMethod,
                                         const void* connectionData, TEEC_Operation* operation,
                                         uint32_t* returnOrigin) {
  set_origin(returnOrigin, TEEC_ORIGIN_API);
  if (session != nullptr) session->imp = nullptr;
  if (context == nullptr || session == nullptr || destination == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  Context* ctx = live<Context>(context->imp, Kind::Context);
  if (ctx == nullptr) return TEEC_ERROR_BAD_PARAMETERS;

  w::OpenSession msg;
  msg.ta = teesim::uuid_from_fields(destination->timeLow, destination->timeMid,
                                    destination->timeHiAndVersion, destination->clockSeqAndNode);
  msg.login = static_cast<w::Login>(connectionMethod);
  switch (connectionMethod) {
    case TEEC_LOGIN_PUBLIC:
    case TEEC_LOGIN_USER:
    case TEEC_LOGIN_APPLICATION:
    case TEEC_LOGIN_USER_APPLICATION:
      if (connectionData != nullptr) return TEEC_ERROR_BAD_PARAMETERS;
      break;
    case TEEC_LOGIN_GROUP:
    case TEEC_LOGIN_GROUP_APPLICATION:
      if (connectionData == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
      msg.has_group = true;
      std::memcpy(&msg.group, connectionData, sizeof msg.group);
      break;
    default:
      return TEEC_ERROR_BAD_PARAMETERS;
  }
  if (!start_operation(operation)) return TEEC_ERROR_CANCEL;

  std::lock_guard<std::mutex> lock(ctx->mu);
  Marshal m;
  TEEC_Result r = marshal(ctx, nullptr, operation, &m);
  if (r != TEEC_SUCCESS) return r;
  msg.params = m.params;
  uint32_t tag = ctx->next_tag++;
  if (w::encode(ctx->send, tag, msg) != w::Status::Ok) return TEEC_ERROR_BAD_PARAMETERS;

  set_origin(returnOrigin, TEEC_ORIGIN_COMMS);
  int sent = teesim::send_frame(ctx->fd.get(), ctx->send.data(), ctx->send.size(), m.fds, m.nfds);
  wipe(ctx->send, ctx->send.size());
  if (sent != 0) {
    log_error("TEEC_OpenSession: the TEE daemon at %s is gone", ctx->socket.c_str());
    return TEEC_ERROR_COMMUNICATION;
  }
  ctx->recv.resize(w::kMaxFrameSize);
  FdList fds;
  ssize_t n = teesim::recv_frame(ctx->fd.get(), ctx->recv.data(), ctx->recv.size(), &fds);
  if (n <= 0) {
    log_error("TEEC_OpenSession: the TEE daemon at %s is gone", ctx->socket.c_str());
    return TEEC_ERROR_COMMUNICATION;
  }
  w::Frame f;
  w::OpenSessionReply reply;
  w::Status st = w::parse_frame(ctx->recv.data(), static_cast<size_t>(n), &f);
  if (st == w::Status::Ok && f.tag != tag) st = w::Status::BadField;
  if (st == w::Status::Ok) st = w::decode(f, fds.count, &reply);
  if (st != w::Status::Ok || (reply.origin == w::Origin::TrustedApp && !reply_matches(m, reply.params))) {
    wipe(ctx->recv, static_cast<size_t>(n));
    log_error("TEEC_OpenSession: malformed answer from the TEE daemon (%s)", w::status_name(st));
    return TEEC_ERROR_COMMUNICATION;
  }
  if (reply.origin == w::Origin::TrustedApp) unmarshal(operation, m, reply.params);
  wipe(ctx->recv, static_cast<size_t>(n));
  set_origin(returnOrigin, reply.origin);
  if (reply.result != TEEC_SUCCESS) return reply.result;

  auto* s = new Session;
  s->ctx = ctx;
  s->fd = std::move(fds.fds[0]);
  fds.count = 0;
  s->id = reply.session_id;
  s->shm_known.insert(m.attached_ids.begin(), m.attached_ids.end());
  s->send.reserve(w::kMaxFrameSize);
  ctx->sessions.insert(s);
  enliven(s, Kind::Session);
  session->imp = s;
  return TEEC_SUCCESS;
}

TEEC_EXPORT void TEEC_CloseSession(TEEC_Session* session) {
  if (session == nullptr) return;
  Session* s = live<Session>(session->imp, Kind::Session);
  if (s == nullptr || !kill_handle(s)) return;
  session->imp = nullptr;
  {
    std::lock_guard<std::mutex> lock(s->ctx->mu);
    s->ctx->sessions.erase(s);
  }
  {
    std::lock_guard<std::mutex> lock(s->mu);
    close_session_locked(s);
  }
  delete s;
}

TEEC_EXPORT TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t commandID,
                                           TEEC_Operation* operation, uint32_t* returnOrigin) {
  set_origin(returnOrigin, TEEC_ORIGIN_API);
  if (session == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  Session* s = live<Session>(session->imp, Kind::Session);
  if (s == nullptr) return TEEC_ERROR_BAD_PARAMETERS;
  if (!start_operation(operation)) return TEEC_ERROR_CANCEL;

  std::lock_guard<std::mutex> lock(s->mu);
  if (s->broken) {
    set_origin(returnOrigin, s->broken_origin);
    return s->broken_result;
  }
  Marshal m;
  TEEC_Result r = marshal(s->ctx, &s->shm_known, operation, &m);
  if (r != TEEC_SUCCESS) return r;
  w::Invoke msg;
  msg.command = commandID;
  msg.params = m.params;
  uint32_t tag = s->next_tag++;
  if (w::encode(s->send, tag, msg) != w::Status::Ok) return TEEC_ERROR_BAD_PARAMETERS;

  w::InvokeReply reply;
  if (!exchange(s, m.nfds, m.fds, tag, &reply) ||
      (reply.origin == w::Origin::TrustedApp && !reply_matches(m, reply.params))) {
    s->reader.wipe_consumed();
    break_session(s);
    set_origin(returnOrigin, s->broken_origin);
    return s->broken_result;
  }
  if (reply.origin == w::Origin::TrustedApp) {
    /* The TA ran, so the instance mapped and kept everything attached. */
    s->shm_known.insert(m.attached_ids.begin(), m.attached_ids.end());
    unmarshal(operation, m, reply.params);
  }
  s->reader.wipe_consumed();
  set_origin(returnOrigin, reply.origin);
  return reply.result;
}

TEEC_EXPORT void TEEC_RequestCancellation(TEEC_Operation* operation) {
  if (operation == nullptr) return;
  std::lock_guard<std::mutex> lock(g_mu);
  /* Not started yet: the operation is refused when it starts. Started: the
   * command runs to its end (TAs here cannot observe cancellation). */
  if (operation->started == 0) g_cancelled.insert(operation);
}
