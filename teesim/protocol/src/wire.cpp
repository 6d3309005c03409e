/* The one encoder and parser of the wire format documented in teesim/wire.h. */
#include "teesim/wire.h"

#include <cstring>

namespace teesim::wire {
namespace {

/* Bounds-checked little-endian reader over one body. Every get fails (and
 * keeps failing) once a field would run past the end. */
class Reader {
 public:
  Reader(const uint8_t* p, size_t n) : p_(p), n_(n) {}
  bool ok() const { return ok_; }
  bool at_end() const { return ok_ && pos_ == n_; }

  uint32_t u32() {
    uint8_t b[4];
    if (!take(b, 4)) return 0;
    return uint32_t{b[0]} | (uint32_t{b[1]} << 8) | (uint32_t{b[2]} << 16) | (uint32_t{b[3]} << 24);
  }
  uint64_t u64() {
    uint64_t lo = u32();
    uint64_t hi = u32();
    return lo | (hi << 32);
  }
  /* A view of the next n bytes, or nullptr (failing the reader) if short. */
  const uint8_t* bytes(size_t n) {
    if (!ok_ || n > n_ - pos_) {
      ok_ = false;
      return nullptr;
    }
    const uint8_t* v = p_ + pos_;
    pos_ += n;
    return v;
  }
  bool take(uint8_t* dst, size_t n) {
    const uint8_t* v = bytes(n);
    if (v == nullptr) return false;
    std::memcpy(dst, v, n);
    return true;
  }
  void fail() { ok_ = false; }

 private:
  const uint8_t* p_;
  size_t n_;
  size_t pos_ = 0;
  bool ok_ = true;
};

/* Appends little-endian fields to a frame under construction. */
class Writer {
 public:
  explicit Writer(std::vector<uint8_t>& out) : out_(out) { out_.clear(); }
  void u16(uint16_t v) {
    uint8_t b[2] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
    raw(b, 2);
  }
  void u32(uint32_t v) {
    uint8_t b[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8),
                    static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
    raw(b, 4);
  }
  void u64(uint64_t v) {
    u32(static_cast<uint32_t>(v));
    u32(static_cast<uint32_t>(v >> 32));
  }
  void raw(const void* p, size_t n) {
    if (n == 0) return;
    size_t at = out_.size();
    out_.resize(at + n);
    std::memcpy(out_.data() + at, p, n);
  }
  size_t size() const { return out_.size(); }
  void patch_u32(size_t at, uint32_t v) {
    out_[at] = static_cast<uint8_t>(v);
    out_[at + 1] = static_cast<uint8_t>(v >> 8);
    out_[at + 2] = static_cast<uint8_t>(v >> 16);
    out_[at + 3] = static_cast<uint8_t>(v >> 24);
  }

 private:
  std::vector<uint8_t>& out_;
};

bool valid_kind(uint32_t k) {
  switch (k) {
    case 0: case 1: case 2: case 3: case 5: case 6: case 7: case 9: case 10: case 11:
      return true;
    default:
      return false;
  }
}

ParamKind kind_at(uint32_t kinds, int i) { return static_cast<ParamKind>((kinds >> (4 * i)) & 0xFu); }

uint32_t pack_kinds(const Params& params) {
  uint32_t kinds = 0;
  for (int i = 0; i < 4; ++i) kinds |= uint32_t{static_cast<uint8_t>(params[i].kind)} << (4 * i);
  return kinds;
}

Status read_kinds(Reader& r, Params* params) {
  uint32_t kinds = r.u32();
  if (!r.ok()) return Status::Truncated;
  if (kinds > 0xFFFFu) return Status::BadField;
  for (int i = 0; i < 4; ++i) {
    uint32_t k = (kinds >> (4 * i)) & 0xFu;
    if (!valid_kind(k)) return Status::BadField;
    (*params)[i] = Param{};
    (*params)[i].kind = kind_at(kinds, i);
  }
  return Status::Ok;
}

bool shm_range_ok(uint64_t offset, uint32_t size) {
  return size <= kMaxShmSize && offset <= kMaxShmSize && offset + size <= kMaxShmSize;
}

Status read_request_params(Reader& r, Params* params) {
  Status s = read_kinds(r, params);
  if (s != Status::Ok) return s;
  uint64_t inline_total = 0;
  for (Param& p : *params) {
    switch (p.kind) {
      case ParamKind::None:
      case ParamKind::ValueOut:
        break;
      case ParamKind::ValueIn:
      case ParamKind::ValueInOut:
        p.a = r.u32();
        p.b = r.u32();
        break;
      case ParamKind::BufIn:
      case ParamKind::BufInOut:
        p.size = r.u32();
        if (!r.ok()) return Status::Truncated;
        inline_total += p.size;
        if (inline_total > kMaxInlineBytes) return Status::TooLarge;
        p.data = r.bytes(p.size);
        break;
      case ParamKind::BufOut:
        p.size = r.u32();
        inline_total += p.size;
        if (inline_total > kMaxInlineBytes) return Status::TooLarge;
        break;
      case ParamKind::ShmIn:
      case ParamKind::ShmOut:
      case ParamKind::ShmInOut:
        p.shm_id = r.u32();
        p.shm_flags = r.u32();
        p.offset = r.u64();
        p.size = r.u32();
        if (!r.ok()) return Status::Truncated;
        if ((p.shm_flags & ~kShmFdAttached) != 0) return Status::BadField;
        if (p.shm_id == 0 && !(p.shm_flags & kShmFdAttached)) return Status::BadField;
        if (!shm_range_ok(p.offset, p.size)) return Status::TooLarge;
        break;
      default:
        return Status::BadField;
    }
    if (!r.ok()) return Status::Truncated;
  }
  return Status::Ok;
}

Status write_request_params(Writer& w, const Params& params) {
  uint64_t inline_total = 0;
  for (const Param& p : params) {
    if (!valid_kind(static_cast<uint32_t>(p.kind))) return Status::BadField;
    if (p.kind == ParamKind::BufIn || p.kind == ParamKind::BufInOut || p.kind == ParamKind::BufOut) {
      inline_total += p.size;
      if ((p.kind != ParamKind::BufOut) && p.size != 0 && p.data == nullptr) return Status::BadField;
    }
    if (is_shm(p.kind)) {
      if ((p.shm_flags & ~kShmFdAttached) != 0) return Status::BadField;
      if (p.shm_id == 0 && !(p.shm_flags & kShmFdAttached)) return Status::BadField;
      if (!shm_range_ok(p.offset, p.size)) return Status::TooLarge;
    }
  }
  if (inline_total > kMaxInlineBytes) return Status::TooLarge;
  w.u32(pack_kinds(params));
  for (const Param& p : params) {
    switch (p.kind) {
      case ParamKind::ValueIn:
      case ParamKind::ValueInOut:
        w.u32(p.a);
        w.u32(p.b);
        break;
      case ParamKind::BufIn:
      case ParamKind::BufInOut:
        w.u32(p.size);
        w.raw(p.data, p.size);
        break;
      case ParamKind::BufOut:
        w.u32(p.size);
        break;
      case ParamKind::ShmIn:
      case ParamKind::ShmOut:
      case ParamKind::ShmInOut:
        w.u32(p.shm_id);
        w.u32(p.shm_flags);
        w.u64(p.offset);
        w.u32(p.size);
        break;
      default:
        break;
    }
  }
  return Status::Ok;
}

Status read_reply_params(Reader& r, Params* params) {
  Status s = read_kinds(r, params);
  if (s != Status::Ok) return s;
  uint64_t inline_total = 0;
  for (Param& p : *params) {
    switch (p.kind) {
      case ParamKind::ValueOut:
      case ParamKind::ValueInOut:
        p.a = r.u32();
        p.b = r.u32();
        break;
      case ParamKind::BufOut:
      case ParamKind::BufInOut:
        p.size = r.u32();
        p.data_len = r.u32();
        if (!r.ok()) return Status::Truncated;
        if (p.data_len != 0 && p.data_len != p.size) return Status::BadField;
        inline_total += p.data_len;
        if (inline_total > kMaxInlineBytes) return Status::TooLarge;
        p.data = r.bytes(p.data_len);
        break;
      case ParamKind::ShmOut:
      case ParamKind::ShmInOut:
        p.size = r.u32();
        break;
      default:
        break;
    }
    if (!r.ok()) return Status::Truncated;
  }
  return Status::Ok;
}

Status write_reply_params(Writer& w, const Params& params) {
  uint64_t inline_total = 0;
  for (const Param& p : params) {
    if (!valid_kind(static_cast<uint32_t>(p.kind))) return Status::BadField;
    if (p.kind == ParamKind::BufOut || p.kind == ParamKind::BufInOut) {
      if (p.data_len != 0 && (p.data_len != p.size || p.data == nullptr)) return Status::BadField;
      inline_total += p.data_len;
    }
  }
  if (inline_total > kMaxInlineBytes) return Status::TooLarge;
  w.u32(pack_kinds(params));
  for (const Param& p : params) {
    switch (p.kind) {
      case ParamKind::ValueOut:
      case ParamKind::ValueInOut:
        w.u32(p.a);
        w.u32(p.b);
        break;
      case ParamKind::BufOut:
      case ParamKind::BufInOut:
        w.u32(p.size);
        w.u32(p.data_len);
        w.raw(p.data, p.data_len);
        break;
      case ParamKind::ShmOut:
      case ParamKind::ShmInOut:
        w.u32(p.size);
        break;
      default:
        break;
    }
  }
  return Status::Ok;
}

bool read_string(Reader& r, std::string* s) {
  uint32_t n = r.u32();
  if (!r.ok() || n > kMaxString) {
    r.fail();
    return false;
  }
  const uint8_t* v = r.bytes(n);
  if (v == nullptr) return false;
  s->assign(reinterpret_cast<const char*>(v), n);
  return true;
}

void write_string(Writer& w, const std::string& s) {
  w.u32(static_cast<uint32_t>(s.size()));
  w.raw(s.data(), s.size());
}

void read_uuid(Reader& r, Uuid* u) { r.take(u->bytes.data(), u->bytes.size()); }

/* Starts a frame: header with a body length to be patched by finish(). */
void begin(Writer& w, MsgType type, uint32_t tag) {
  w.u32(kMagic);
  w.u16(kVersion);
  w.u16(static_cast<uint16_t>(type));
  w.u32(0);
  w.u32(tag);
}

Status finish(Writer& w, std::vector<uint8_t>& out, Status s) {
  if (s == Status::Ok && w.size() > kMaxFrameSize) s = Status::TooLarge;
  if (s != Status::Ok) {
    out.clear();
    return s;
  }
  w.patch_u32(8, static_cast<uint32_t>(w.size() - kHeaderSize));
  return Status::Ok;
}

/* Common tail of every decoder: the whole body consumed, descriptors as
 * announced. */
Status end(const Reader& r, size_t nfds, size_t expected_fds) {
  if (!r.ok()) return Status::Truncated;
  if (!r.at_end()) return Status::BadLength;
  if (nfds != kAnyFds && nfds != expected_fds) return Status::FdMismatch;
  return Status::Ok;
}

template <typename M>
bool type_is(const Frame& f) {
  return f.type == M::kType;
}

}  // namespace

size_t attached_fds(const Params& params) {
  size_t n = 0;
  for (const Param& p : params)
    if (is_shm(p.kind) && (p.shm_flags & kShmFdAttached)) ++n;
  return n;
}

const char* status_name(Status s) {
  switch (s) {
    case Status::Ok: return "ok";
    case Status::Truncated: return "truncated";
    case Status::BadMagic: return "bad magic";
    case Status::BadVersion: return "unsupported version";
    case Status::BadLength: return "length mismatch";
    case Status::TooLarge: return "over a size limit";
    case Status::WrongType: return "unexpected message type";
    case Status::BadField: return "field out of range";
    case Status::FdMismatch: return "descriptor count mismatch";
  }
  return "unknown";
}

Status parse_frame(const uint8_t* data, size_t len, Frame* out) {
  if (data == nullptr || len < kHeaderSize) return Status::Truncated;
  if (len > kMaxFrameSize) return Status::TooLarge;
  Reader r(data, kHeaderSize);
  uint32_t magic = r.u32();
  uint32_t ver_type = r.u32();
  uint32_t body_len = r.u32();
  uint32_t tag = r.u32();
  if (magic != kMagic) return Status::BadMagic;
  if ((ver_type & 0xFFFFu) != kVersion) return Status::BadVersion;
  if (body_len != len - kHeaderSize) return Status::BadLength;
  out->type = static_cast<MsgType>(ver_type >> 16);
  out->tag = tag;
  out->body = data + kHeaderSize;
  out->body_len = body_len;
  return Status::Ok;
}

/* ---- decoders ------------------------------------------------------------ */

Status decode(const Frame& f, size_t nfds, Hello* m) {
  if (!type_is<Hello>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->client_pid = r.u32();
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, HelloReply* m) {
  if (!type_is<HelloReply>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->daemon_pid = r.u32();
  m->max_operation_bytes = r.u32();
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, Refused* m) {
  if (!type_is<Refused>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->result = r.u32();
  if (!r.ok()) return Status::Truncated;
  if (!read_string(r, &m->reason)) return Status::Truncated;
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, OpenSession* m) {
  if (!type_is<OpenSession>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  read_uuid(r, &m->ta);
  m->login = static_cast<Login>(r.u32());
  uint32_t has_group = r.u32();
  m->group = r.u32();
  if (!r.ok()) return Status::Truncated;
  if (has_group > 1) return Status::BadField;
  m->has_group = has_group == 1;
  Status s = read_request_params(r, &m->params);
  if (s != Status::Ok) return s;
  return end(r, nfds, attached_fds(m->params));
}

Status decode(const Frame& f, size_t nfds, OpenSessionReply* m) {
  if (!type_is<OpenSessionReply>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->result = r.u32();
  m->origin = static_cast<Origin>(r.u32());
  m->session_id = r.u32();
  if (!r.ok()) return Status::Truncated;
  Status s = read_reply_params(r, &m->params);
  if (s != Status::Ok) return s;
  return end(r, nfds, m->result == 0 ? 1 : 0);
}

Status decode(const Frame& f, size_t nfds, Invoke* m) {
  if (!type_is<Invoke>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->command = r.u32();
  if (!r.ok()) return Status::Truncated;
  Status s = read_request_params(r, &m->params);
  if (s != Status::Ok) return s;
  return end(r, nfds, attached_fds(m->params));
}

Status decode(const Frame& f, size_t nfds, InvokeReply* m) {
  if (!type_is<InvokeReply>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->result = r.u32();
  m->origin = static_cast<Origin>(r.u32());
  if (!r.ok()) return Status::Truncated;
  Status s = read_reply_params(r, &m->params);
  if (s != Status::Ok) return s;
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, CloseSession*) {
  if (!type_is<CloseSession>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, CloseSessionReply*) {
  if (!type_is<CloseSessionReply>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, ShmForget* m) {
  if (!type_is<ShmForget>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->shm_id = r.u32();
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, HostInit* m) {
  if (!type_is<HostInit>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  read_uuid(r, &m->ta);
  m->instance_no = r.u32();
  m->log_level = r.u32();
  m->log_flags = r.u32();
  m->random_mode = r.u32();
  m->max_operation_bytes = r.u32();
  m->max_session_shm_bytes = r.u32();
  r.take(m->storage_key.data(), kKeySize);
  r.take(m->name_key.data(), kKeySize);
  r.take(m->random_key.data(), kKeySize);
  if (!r.ok()) return Status::Truncated;
  if (m->random_mode > 1) return Status::BadField;
  if (!read_string(r, &m->ta_path) || !read_string(r, &m->storage_dir)) return Status::Truncated;
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, HostInitReply* m) {
  if (!type_is<HostInitReply>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->result = r.u32();
  m->origin = static_cast<Origin>(r.u32());
  m->ta_flags = r.u32();
  if (!r.ok()) return Status::Truncated;
  if (!read_string(r, &m->name) || !read_string(r, &m->error)) return Status::Truncated;
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, HostOpen* m) {
  if (!type_is<HostOpen>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->session_id = r.u32();
  m->login = static_cast<Login>(r.u32());
  read_uuid(r, &m->client_id);
  if (!r.ok()) return Status::Truncated;
  Status s = read_request_params(r, &m->params);
  if (s != Status::Ok) return s;
  return end(r, nfds, 1 + attached_fds(m->params));
}

Status decode(const Frame& f, size_t nfds, HostOpenReply* m) {
  if (!type_is<HostOpenReply>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->session_id = r.u32();
  m->result = r.u32();
  m->origin = static_cast<Origin>(r.u32());
  if (!r.ok()) return Status::Truncated;
  Status s = read_reply_params(r, &m->params);
  if (s != Status::Ok) return s;
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, HostSessionClosed* m) {
  if (!type_is<HostSessionClosed>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  m->session_id = r.u32();
  return end(r, nfds, 0);
}

Status decode(const Frame& f, size_t nfds, HostDestroy*) {
  if (!type_is<HostDestroy>(f)) return Status::WrongType;
  Reader r(f.body, f.body_len);
  return end(r, nfds, 0);
}

/* ---- encoders ------------------------------------------------------------ */

Status encode(std::vector<uint8_t>& out, uint32_t tag, const Hello& m) {
  Writer w(out);
  begin(w, Hello::kType, tag);
  w.u32(m.client_pid);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HelloReply& m) {
  Writer w(out);
  begin(w, HelloReply::kType, tag);
  w.u32(m.daemon_pid);
  w.u32(m.max_operation_bytes);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const Refused& m) {
  if (m.reason.size() > kMaxString) {
    out.clear();
    return Status::TooLarge;
  }
  Writer w(out);
  begin(w, Refused::kType, tag);
  w.u32(m.result);
  write_string(w, m.reason);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const OpenSession& m) {
  Writer w(out);
  begin(w, OpenSession::kType, tag);
  w.raw(m.ta.bytes.data(), m.ta.bytes.size());
  w.u32(static_cast<uint32_t>(m.login));
  w.u32(m.has_group ? 1 : 0);
  w.u32(m.group);
  return finish(w, out, write_request_params(w, m.params));
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const OpenSessionReply& m) {
  Writer w(out);
  begin(w, OpenSessionReply::kType, tag);
  w.u32(m.result);
  w.u32(static_cast<uint32_t>(m.origin));
  w.u32(m.session_id);
  return finish(w, out, write_reply_params(w, m.params));
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const Invoke& m) {
  Writer w(out);
  begin(w, Invoke::kType, tag);
  w.u32(m.command);
  return finish(w, out, write_request_params(w, m.params));
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const InvokeReply& m) {
  Writer w(out);
  begin(w, InvokeReply::kType, tag);
  w.u32(m.result);
  w.u32(static_cast<uint32_t>(m.origin));
  return finish(w, out, write_reply_params(w, m.params));
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const CloseSession&) {
  Writer w(out);
  begin(w, CloseSession::kType, tag);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const CloseSessionReply&) {
  Writer w(out);
  begin(w, CloseSessionReply::kType, tag);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const ShmForget& m) {
  Writer w(out);
  begin(w, ShmForget::kType, tag);
  w.u32(m.shm_id);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostInit& m) {
  if (m.ta_path.size() > kMaxString || m.storage_dir.size() > kMaxString || m.random_mode > 1) {
    out.clear();
    return m.random_mode > 1 ? Status::BadField : Status::TooLarge;
  }
  Writer w(out);
  begin(w, HostInit::kType, tag);
  w.raw(m.ta.bytes.data(), m.ta.bytes.size());
  w.u32(m.instance_no);
  w.u32(m.log_level);
  w.u32(m.log_flags);
  w.u32(m.random_mode);
  w.u32(m.max_operation_bytes);
  w.u32(m.max_session_shm_bytes);
  w.raw(m.storage_key.data(), kKeySize);
  w.raw(m.name_key.data(), kKeySize);
  w.raw(m.random_key.data(), kKeySize);
  write_string(w, m.ta_path);
  write_string(w, m.storage_dir);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostInitReply& m) {
  if (m.name.size() > kMaxString || m.error.size() > kMaxString) {
    out.clear();
    return Status::TooLarge;
  }
  Writer w(out);
  begin(w, HostInitReply::kType, tag);
  w.u32(m.result);
  w.u32(static_cast<uint32_t>(m.origin));
  w.u32(m.ta_flags);
  write_string(w, m.name);
  write_string(w, m.error);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostOpen& m) {
  Writer w(out);
  begin(w, HostOpen::kType, tag);
  w.u32(m.session_id);
  w.u32(static_cast<uint32_t>(m.login));
  w.raw(m.client_id.bytes.data(), m.client_id.bytes.size());
  return finish(w, out, write_request_params(w, m.params));
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostOpenReply& m) {
  Writer w(out);
  begin(w, HostOpenReply::kType, tag);
  w.u32(m.session_id);
  w.u32(m.result);
  w.u32(static_cast<uint32_t>(m.origin));
  return finish(w, out, write_reply_params(w, m.params));
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostSessionClosed& m) {
  Writer w(out);
  begin(w, HostSessionClosed::kType, tag);
  w.u32(m.session_id);
  return finish(w, out, Status::Ok);
}

Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostDestroy&) {
  Writer w(out);
  begin(w, HostDestroy::kType, tag);
  return finish(w, out, Status::Ok);
}

}  // namespace teesim::wire
