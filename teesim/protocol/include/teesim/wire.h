/*
 * The teesim wire format: every frame exchanged between libteec, the teesim
 * daemon and TA instance processes, with its one encoder and one parser
 * (fuzzed by fuzz/teesim_wire_fuzz.cpp).
 *
 * Transport. Links to and from the daemon are AF_UNIX SOCK_SEQPACKET
 * sockets: one recvmsg gives exactly one frame. Session channels (client to
 * TA instance, the command path) are SOCK_STREAM sockets, whose wake-ups are
 * cheaper; there frames are cut by the header's length (StreamReader in
 * channel.h). Either way file descriptors travel as SCM_RIGHTS with the
 * frame they belong to, and a frame is never larger than kMaxFrameSize.
 *
 * Byte format. All integers are little-endian and unaligned; there is no
 * padding. A frame is a header followed by a body:
 *
 *   header (16 bytes)
 *     u32 magic      kMagic (the bytes "TSIM")
 *     u16 version    kVersion
 *     u16 type       MsgType
 *     u32 body_len   bytes after the header; header + body = the frame exactly
 *     u32 tag        chosen by the sender of a request, echoed in its reply
 *
 *   bodies ("uuid" = 16 bytes, RFC 4122 order; "key" = 32 bytes;
 *           "str" = u32 length (<= kMaxString) + that many bytes, no NUL)
 *     HELLO                client -> daemon  u32 client_pid
 *     HELLO_REPLY          daemon -> client  u32 daemon_pid, u32 max_operation_bytes
 *                                            (the most bytes of memory references,
 *                                            sizes added up, one operation may carry)
 *     REFUSED              daemon -> client  u32 result, str reason
 *                                            (instead of any answer, when the
 *                                            daemon will not serve this connection;
 *                                            it closes the connection after it)
 *     OPEN_SESSION         client -> daemon  uuid ta, u32 login, u32 has_group (0|1),
 *                                            u32 group, request params
 *     OPEN_SESSION_REPLY   daemon -> client  u32 result, u32 origin, u32 session_id,
 *                                            reply params
 *                                            fds: the session channel iff result == 0
 *     INVOKE               client -> TA      u32 command, request params
 *     INVOKE_REPLY         TA -> client      u32 result, u32 origin, reply params
 *     CLOSE_SESSION        client -> TA      (empty)
 *     CLOSE_SESSION_REPLY  TA -> client      (empty)
 *     SHM_FORGET           client -> TA      u32 shm_id           (no reply)
 *     HOST_INIT            daemon -> TA      uuid ta, u32 instance_no, u32 log_level,
 *                                            u32 log_flags, u32 random_mode,
 *                                            u32 max_operation_bytes, u32 max_session_shm_bytes,
 *                                            key storage_key, key name_key, key random_key,
 *                                            str ta_path, str storage_dir
 *     HOST_INIT_REPLY      TA -> daemon      u32 result, u32 origin, u32 ta_flags, str name,
 *                                            str error
 *     HOST_OPEN            daemon -> TA      u32 session_id, u32 login, uuid client_id,
 *                                            request params
 *                                            fds: the session channel, then attached shm
 *     HOST_OPEN_REPLY      TA -> daemon      u32 session_id, u32 result, u32 origin,
 *                                            reply params
 *     HOST_SESSION_CLOSED  TA -> daemon      u32 session_id   (no reply)
 *     HOST_DESTROY         daemon -> TA      (empty; the instance exits, no reply)
 *
 *   request params
 *     u32 kinds      four 4-bit ParamKind values, parameter i in bits 4i..4i+3
 *     then for each parameter, in order:
 *       VALUE_IN, VALUE_INOUT     u32 a, u32 b
 *       VALUE_OUT                 (nothing)
 *       BUF_IN, BUF_INOUT         u32 size, size bytes
 *       BUF_OUT                   u32 size (the capacity the TA may fill)
 *       SHM_IN, SHM_OUT, SHM_INOUT u32 shm_id, u32 shm_flags, u64 offset, u32 size
 *     Buffers carried inline (BUF_*: the larger of bytes sent and capacity)
 *     add up to at most kMaxInlineBytes. SHM sizes and offset + size are at
 *     most kMaxShmSize. shm_flags holds only kShmFdAttached; one fd
 *     accompanies each SHM parameter that has it, in parameter order.
 *     shm_id 0 is a one-shot block and always has its fd attached.
 *
 *   reply params
 *     u32 kinds      the request's kinds, echoed
 *     then for each parameter:
 *       VALUE_OUT, VALUE_INOUT    u32 a, u32 b
 *       BUF_OUT, BUF_INOUT        u32 size (reported by the TA), u32 data_len
 *                                 (0 or size), data_len bytes
 *       SHM_OUT, SHM_INOUT        u32 size (reported by the TA; bytes are in the shm)
 *       inputs and NONE           (nothing)
 *
 * Decoded messages point into the frame they were decoded from (Param::data);
 * they are valid only while that buffer is.
 */
#ifndef TEESIM_WIRE_H
#define TEESIM_WIRE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "teesim/uuid.h"

namespace teesim::wire {

inline constexpr uint32_t kMagic = 0x4D495354u; /* "TSIM" */
inline constexpr uint16_t kVersion = 1;
inline constexpr size_t kHeaderSize = 16;
inline constexpr uint32_t kMaxInlineBytes = 32u * 1024u;
inline constexpr size_t kMaxFrameSize = kMaxInlineBytes + 1024u;
inline constexpr uint32_t kMaxShmSize = 64u * 1024u * 1024u;
inline constexpr uint32_t kMaxString = 4096u;
inline constexpr size_t kKeySize = 32;
/* Most descriptors a frame may carry: a session channel and four shm. */
inline constexpr size_t kMaxFds = 5;
/* Passed as nfds to a decoder: do not check the descriptor count (stream
 * links, where the caller claims the descriptors a message announces). */
inline constexpr size_t kAnyFds = static_cast<size_t>(-1);
/* shm_flags bit: the shared memory's descriptor comes with this frame. */
inline constexpr uint32_t kShmFdAttached = 1u;

enum class MsgType : uint16_t {
  Hello = 1,
  HelloReply = 2,
  OpenSession = 3,
  OpenSessionReply = 4,
  Invoke = 5,
  InvokeReply = 6,
  CloseSession = 7,
  CloseSessionReply = 8,
  ShmForget = 9,
  Refused = 10,
  HostInit = 16,
  HostInitReply = 17,
  HostOpen = 18,
  HostOpenReply = 19,
  HostSessionClosed = 20,
  HostDestroy = 21,
};

/* Where a result comes from (the u32 "origin" of replies). The numbers are
 * the GP client API's return origins: the client library hands them to its
 * caller unchanged and checks at compile time that the names agree. A value
 * read from a frame may be none of these; it is passed on as it is. */
enum class Origin : uint32_t {
  Api = 1,        /* the client library itself                   */
  Comms = 2,      /* the links between client, daemon and TA     */
  Tee = 3,        /* the daemon or the TA instance's host code   */
  TrustedApp = 4, /* the TA's own entry point                    */
};

/* How a client identifies itself when it opens a session (the u32 "login"
 * of OPEN_SESSION and HOST_OPEN). The numbers are the GP login methods,
 * the same on the client side and in the TA's view of its client; the
 * daemon refuses any other value. */
enum class Login : uint32_t {
  Public = 0,
  User = 1,
  Group = 2,
  Application = 4,
  UserApplication = 5,
  GroupApplication = 6,
};

/* Parameter kinds. Bits 0-1: direction (1 in, 2 out, 3 in/out); bits 2-3:
 * carrier (0 value, 1 inline buffer, 2 shared memory). */
enum class ParamKind : uint8_t {
  None = 0,
  ValueIn = 1,
  ValueOut = 2,
  ValueInOut = 3,
  BufIn = 5,
  BufOut = 6,
  BufInOut = 7,
  ShmIn = 9,
  ShmOut = 10,
  ShmInOut = 11,
};

inline bool is_value(ParamKind k) { return k == ParamKind::ValueIn || k == ParamKind::ValueOut || k == ParamKind::ValueInOut; }
inline bool is_buf(ParamKind k) { return k == ParamKind::BufIn || k == ParamKind::BufOut || k == ParamKind::BufInOut; }
inline bool is_shm(ParamKind k) { return k == ParamKind::ShmIn || k == ParamKind::ShmOut || k == ParamKind::ShmInOut; }
inline bool is_input(ParamKind k) { return k != ParamKind::None && (static_cast<uint8_t>(k) & 1u); }
inline bool is_output(ParamKind k) { return static_cast<uint8_t>(k) & 2u; }

/* One operation parameter, request or reply form (see the format above). */
struct Param {
  ParamKind kind = ParamKind::None;
  uint32_t a = 0, b = 0;          /* VALUE_*                                          */
  uint32_t size = 0;              /* BUF and SHM: bytes or capacity; reply: the TA size */
  const uint8_t* data = nullptr;  /* request BUF_IN/INOUT: size bytes; reply: data_len */
  uint32_t data_len = 0;          /* reply BUF_OUT/INOUT: bytes carried back          */
  uint32_t shm_id = 0;            /* SHM_*                                            */
  uint32_t shm_flags = 0;         /* SHM_*: kShmFdAttached or 0                       */
  uint64_t offset = 0;            /* SHM_*                                            */
};
using Params = std::array<Param, 4>;

/* Number of shm descriptors that request params say come with the frame. */
size_t attached_fds(const Params& params);

struct Hello {
  static constexpr MsgType kType = MsgType::Hello;
  uint32_t client_pid = 0;
};
struct HelloReply {
  static constexpr MsgType kType = MsgType::HelloReply;
  uint32_t daemon_pid = 0;
  uint32_t max_operation_bytes = 0; /* memref sizes added up, per operation */
};
/* Why the daemon turns a connection away: result is a TEE_ERROR_* code
 * (TEE_ERROR_BUSY: too many connections, or out of descriptors), reason a
 * sentence for the client's log. */
struct Refused {
  static constexpr MsgType kType = MsgType::Refused;
  uint32_t result = 0;
  std::string reason;
};
struct OpenSession {
  static constexpr MsgType kType = MsgType::OpenSession;
  Uuid ta;
  Login login{};
  bool has_group = false;
  uint32_t group = 0;
  Params params;
};
struct OpenSessionReply {
  static constexpr MsgType kType = MsgType::OpenSessionReply;
  uint32_t result = 0;
  Origin origin{};
  uint32_t session_id = 0;
  Params params;
};
struct Invoke {
  static constexpr MsgType kType = MsgType::Invoke;
  uint32_t command = 0;
  Params params;
};
struct InvokeReply {
  static constexpr MsgType kType = MsgType::InvokeReply;
  uint32_t result = 0;
  Origin origin{};
  Params params;
};
struct CloseSession {
  static constexpr MsgType kType = MsgType::CloseSession;
};
struct CloseSessionReply {
  static constexpr MsgType kType = MsgType::CloseSessionReply;
};
struct ShmForget {
  static constexpr MsgType kType = MsgType::ShmForget;
  uint32_t shm_id = 0;
};
struct HostInit {
  static constexpr MsgType kType = MsgType::HostInit;
  Uuid ta;
  uint32_t instance_no = 0;
  uint32_t log_level = 0;
  uint32_t log_flags = 0;
  uint32_t random_mode = 0; /* 0: from the OS; 1: deterministic from random_key */
  uint32_t max_operation_bytes = 0;   /* memref sizes added up, per operation */
  uint32_t max_session_shm_bytes = 0; /* shared memory a session may keep mapped */
  std::array<uint8_t, kKeySize> storage_key{};
  std::array<uint8_t, kKeySize> name_key{};
  std::array<uint8_t, kKeySize> random_key{};
  std::string ta_path;
  std::string storage_dir;
};
struct HostInitReply {
  static constexpr MsgType kType = MsgType::HostInitReply;
  uint32_t result = 0;
  Origin origin{};
  uint32_t ta_flags = 0;
  std::string name;
  std::string error;
};
struct HostOpen {
  static constexpr MsgType kType = MsgType::HostOpen;
  uint32_t session_id = 0;
  Login login{};
  Uuid client_id;
  Params params;
};
struct HostOpenReply {
  static constexpr MsgType kType = MsgType::HostOpenReply;
  uint32_t session_id = 0, result = 0;
  Origin origin{};
  Params params;
};
struct HostSessionClosed {
  static constexpr MsgType kType = MsgType::HostSessionClosed;
  uint32_t session_id = 0;
};
struct HostDestroy {
  static constexpr MsgType kType = MsgType::HostDestroy;
};

/* Why a frame was refused. */
enum class Status {
  Ok = 0,
  Truncated,     /* fewer bytes than the header or a field needs */
  BadMagic,
  BadVersion,
  BadLength,     /* body_len disagrees with the frame, or bytes left over */
  TooLarge,      /* frame, inline buffers, shm range or string over its limit */
  WrongType,     /* decoded as a message of another type */
  BadField,      /* a field out of its range (kind, flag, boolean, data_len) */
  FdMismatch,    /* descriptors received differ from what the frame says */
};
const char* status_name(Status s);

struct Frame {
  MsgType type = MsgType::Hello;
  uint32_t tag = 0;
  const uint8_t* body = nullptr;
  size_t body_len = 0;
};

/* Checks a received frame's header against its length.
 * Returns Ok and fills `out` (body points into `data`), or the reason.
 * In: data, len, the whole frame as received. */
[[nodiscard]] Status parse_frame(const uint8_t* data, size_t len, Frame* out);

/* Decoders: parse a frame's body as one message type.
 * Returns Ok, or WrongType when frame.type differs, or why the body is bad.
 * In: frame from parse_frame; nfds, how many descriptors came with it, or
 *     kAnyFds to leave the count to the caller.
 * Out: msg, filled only in part on failure. Views point into the frame. */
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, Hello* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HelloReply* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, Refused* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, OpenSession* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, OpenSessionReply* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, Invoke* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, InvokeReply* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, CloseSession* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, CloseSessionReply* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, ShmForget* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HostInit* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HostInitReply* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HostOpen* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HostOpenReply* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HostSessionClosed* msg);
[[nodiscard]] Status decode(const Frame& frame, size_t nfds, HostDestroy* msg);

/* Encoders: replace the contents of `out` with one whole frame.
 * Returns Ok, or TooLarge / BadField when the message breaks a limit of the
 * format (then `out` is left empty). `out` keeps its capacity between calls,
 * so a reused buffer costs no allocation.
 * In: tag, the header tag; msg. */
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const Hello& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HelloReply& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const Refused& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const OpenSession& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const OpenSessionReply& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const Invoke& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const InvokeReply& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const CloseSession& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const CloseSessionReply& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const ShmForget& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostInit& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostInitReply& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostOpen& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostOpenReply& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostSessionClosed& msg);
[[nodiscard]] Status encode(std::vector<uint8_t>& out, uint32_t tag, const HostDestroy& msg);

}  // namespace teesim::wire

#endif  // TEESIM_WIRE_H
