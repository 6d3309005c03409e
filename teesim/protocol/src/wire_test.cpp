/* Round trips of every message and refusals of every malformed frame. */
#include "teesim/wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace teesim::wire {
namespace {

std::vector<uint8_t> bytes(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
  return v;
}

Uuid sample_uuid(uint8_t first) {
  Uuid u;
  for (int i = 0; i < 16; ++i) u.bytes[i] = static_cast<uint8_t>(first + i);
  return u;
}

/* A decoded message together with the frame its views point into. */
template <typename M>
struct Decoded {
  std::vector<uint8_t> frame;
  M msg;
};

/* Encodes, then parses and decodes the frame back, expecting success. */
template <typename M>
Decoded<M> round_trip(const M& in, size_t nfds, uint32_t tag = 0x01020304) {
  Decoded<M> d;
  EXPECT_EQ(encode(d.frame, tag, in), Status::Ok);
  Frame f;
  EXPECT_EQ(parse_frame(d.frame.data(), d.frame.size(), &f), Status::Ok);
  EXPECT_EQ(f.type, M::kType);
  EXPECT_EQ(f.tag, tag);
  EXPECT_EQ(f.body_len + kHeaderSize, d.frame.size());
  EXPECT_EQ(decode(f, nfds, &d.msg), Status::Ok);
  return d;
}

Params request_params_of_every_carrier(const std::vector<uint8_t>& in_bytes) {
  Params p;
  p[0].kind = ParamKind::ValueInOut;
  p[0].a = 0xdeadbeef;
  p[0].b = 7;
  p[1].kind = ParamKind::BufIn;
  p[1].size = static_cast<uint32_t>(in_bytes.size());
  p[1].data = in_bytes.data();
  p[2].kind = ParamKind::BufOut;
  p[2].size = 300;
  p[3].kind = ParamKind::ShmInOut;
  p[3].shm_id = 9;
  p[3].shm_flags = kShmFdAttached;
  p[3].offset = 4096;
  p[3].size = 8192;
  return p;
}

void expect_same_request_params(const Params& a, const Params& b) {
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(a[i].kind, b[i].kind);
    if (a[i].kind == ParamKind::ValueIn || a[i].kind == ParamKind::ValueInOut) {
      EXPECT_EQ(a[i].a, b[i].a);
      EXPECT_EQ(a[i].b, b[i].b);
    }
    if (is_buf(a[i].kind) || is_shm(a[i].kind)) {
      EXPECT_EQ(a[i].size, b[i].size);
    }
    if (a[i].kind == ParamKind::BufIn || a[i].kind == ParamKind::BufInOut) {
      EXPECT_EQ(0, memcmp(a[i].data, b[i].data, a[i].size));
    }
    if (is_shm(a[i].kind)) {
      EXPECT_EQ(a[i].shm_id, b[i].shm_id);
      EXPECT_EQ(a[i].shm_flags, b[i].shm_flags);
      EXPECT_EQ(a[i].offset, b[i].offset);
    }
  }
}

TEST(Wire, HelloAndReplyRoundTrip) {
  Hello h;
  h.client_pid = 4242;
  EXPECT_EQ(round_trip(h, 0).msg.client_pid, 4242u);
  HelloReply r;
  r.daemon_pid = 17;
  r.max_operation_bytes = kMaxShmSize;
  HelloReply r2 = round_trip(r, 0).msg;
  EXPECT_EQ(r2.daemon_pid, 17u);
  EXPECT_EQ(r2.max_operation_bytes, kMaxShmSize);
}

TEST(Wire, RefusedRoundTripsAndBoundsItsReason) {
  Refused m;
  m.result = 0xFFFF000Du;
  m.reason = "too many connections";
  Refused back = round_trip(m, 0).msg;
  EXPECT_EQ(back.result, m.result);
  EXPECT_EQ(back.reason, m.reason);
  m.reason.assign(kMaxString + 1, 'x');
  std::vector<uint8_t> frame;
  EXPECT_EQ(encode(frame, 1, m), Status::TooLarge);
  EXPECT_TRUE(frame.empty());
}

TEST(Wire, OpenSessionRoundTripsEveryCarrier) {
  auto data = bytes(1000, 3);
  OpenSession m;
  m.ta = sample_uuid(0x10);
  m.login = Login::Group;
  m.has_group = true;
  m.group = 1234;
  m.params = request_params_of_every_carrier(data);
  auto d = round_trip(m, 1);
  const OpenSession& out = d.msg;
  EXPECT_EQ(out.ta, m.ta);
  EXPECT_EQ(out.login, Login::Group);
  EXPECT_TRUE(out.has_group);
  EXPECT_EQ(out.group, 1234u);
  expect_same_request_params(m.params, out.params);
}

TEST(Wire, InvokeRoundTripsEveryKindInEverySlot) {
  const ParamKind kinds[] = {ParamKind::None,     ParamKind::ValueIn, ParamKind::ValueOut,
                             ParamKind::ValueInOut, ParamKind::BufIn, ParamKind::BufOut,
                             ParamKind::BufInOut, ParamKind::ShmIn,  ParamKind::ShmOut,
                             ParamKind::ShmInOut};
  auto data = bytes(64, 1);
  for (ParamKind k : kinds) {
    for (int slot = 0; slot < 4; ++slot) {
      Invoke m;
      m.command = 0x80000000u + static_cast<uint32_t>(k);
      Param& p = m.params[slot];
      p.kind = k;
      p.a = 11;
      p.b = 22;
      if (is_buf(k)) {
        p.size = 64;
        p.data = data.data();
      }
      if (is_shm(k)) {
        p.shm_id = 5;
        p.shm_flags = slot % 2 ? kShmFdAttached : 0;
        p.offset = 100;
        p.size = 64;
      }
      auto d = round_trip(m, attached_fds(m.params));
      const Invoke& out = d.msg;
      EXPECT_EQ(out.command, m.command);
      expect_same_request_params(m.params, out.params);
    }
  }
}

TEST(Wire, InvokeReplyCarriesValuesSizesAndOutputBytes) {
  auto data = bytes(40, 9);
  InvokeReply m;
  m.result = 0xFFFF0010u;
  m.origin = Origin::TrustedApp;
  m.params[0].kind = ParamKind::ValueOut;
  m.params[0].a = 1;
  m.params[0].b = 2;
  m.params[1].kind = ParamKind::BufInOut;
  m.params[1].size = 40;
  m.params[1].data_len = 40;
  m.params[1].data = data.data();
  m.params[2].kind = ParamKind::BufOut;
  m.params[2].size = 5000; /* a needed size: no bytes */
  m.params[3].kind = ParamKind::ShmOut;
  m.params[3].size = 77;
  auto d = round_trip(m, 0);
  const InvokeReply& out = d.msg;
  EXPECT_EQ(out.result, m.result);
  EXPECT_EQ(out.origin, Origin::TrustedApp);
  EXPECT_EQ(out.params[0].a, 1u);
  EXPECT_EQ(out.params[0].b, 2u);
  EXPECT_EQ(out.params[1].size, 40u);
  ASSERT_EQ(out.params[1].data_len, 40u);
  EXPECT_EQ(0, memcmp(out.params[1].data, data.data(), 40));
  EXPECT_EQ(out.params[2].size, 5000u);
  EXPECT_EQ(out.params[2].data_len, 0u);
  EXPECT_EQ(out.params[3].size, 77u);
}

TEST(Wire, OpenSessionReplyNeedsTheChannelExactlyOnSuccess) {
  OpenSessionReply ok;
  ok.session_id = 3;
  EXPECT_EQ(round_trip(ok, 1).msg.session_id, 3u);
  std::vector<uint8_t> frame;
  ASSERT_EQ(encode(frame, 0, ok), Status::Ok);
  Frame f;
  ASSERT_EQ(parse_frame(frame.data(), frame.size(), &f), Status::Ok);
  OpenSessionReply out;
  EXPECT_EQ(decode(f, 0, &out), Status::FdMismatch);
  OpenSessionReply fail;
  fail.result = 0xFFFF0008u;
  fail.origin = Origin::Tee;
  ASSERT_EQ(encode(frame, 0, fail), Status::Ok);
  ASSERT_EQ(parse_frame(frame.data(), frame.size(), &f), Status::Ok);
  EXPECT_EQ(decode(f, 1, &out), Status::FdMismatch);
  EXPECT_EQ(decode(f, 0, &out), Status::Ok);
  EXPECT_EQ(out.result, 0xFFFF0008u);
}

TEST(Wire, SmallMessagesRoundTrip) {
  round_trip(CloseSession{}, 0);
  round_trip(CloseSessionReply{}, 0);
  round_trip(HostDestroy{}, 0);
  ShmForget f;
  f.shm_id = 99;
  EXPECT_EQ(round_trip(f, 0).msg.shm_id, 99u);
  HostSessionClosed c;
  c.session_id = 12;
  EXPECT_EQ(round_trip(c, 0).msg.session_id, 12u);
}

/* Origins and logins are the GP numbers on the wire, and a number that no
 * name has travels unchanged (the daemon, not the parser, refuses it). */
TEST(Wire, OriginsAndLoginsTravelAsTheirNumbers) {
  InvokeReply r;
  r.origin = Origin::Comms;
  std::vector<uint8_t> frame;
  ASSERT_EQ(encode(frame, 1, r), Status::Ok);
  ASSERT_GE(frame.size(), kHeaderSize + 8);
  auto le32 = [&frame](size_t at) {
    return static_cast<uint32_t>(frame[at]) | static_cast<uint32_t>(frame[at + 1]) << 8 |
           static_cast<uint32_t>(frame[at + 2]) << 16 | static_cast<uint32_t>(frame[at + 3]) << 24;
  };
  EXPECT_EQ(le32(kHeaderSize + 4), 2u); /* after u32 result */
  r.origin = static_cast<Origin>(0x7777u);
  EXPECT_EQ(static_cast<uint32_t>(round_trip(r, 0).msg.origin), 0x7777u);

  OpenSession o;
  o.login = Login::GroupApplication;
  frame.clear();
  ASSERT_EQ(encode(frame, 1, o), Status::Ok);
  EXPECT_EQ(le32(kHeaderSize + 16), 6u); /* after the uuid */
  o.login = static_cast<Login>(7u);
  EXPECT_EQ(static_cast<uint32_t>(round_trip(o, 0).msg.login), 7u);
}

TEST(Wire, HostInitRoundTripsKeysAndPaths) {
  HostInit m;
  m.ta = sample_uuid(0x40);
  m.instance_no = 3;
  m.log_level = 2;
  m.log_flags = 1;
  m.random_mode = 1;
  m.max_operation_bytes = 0x01020304;
  m.max_session_shm_bytes = 0xA0B0C0D0;
  for (size_t i = 0; i < kKeySize; ++i) {
    m.storage_key[i] = static_cast<uint8_t>(i);
    m.name_key[i] = static_cast<uint8_t>(0x80 + i);
    m.random_key[i] = static_cast<uint8_t>(0xF0 ^ i);
  }
  m.ta_path = "/opt/ta/" + uuid_to_string(m.ta) + ".ta";
  m.storage_dir = "/var/lib/teesim";
  HostInit out = round_trip(m, 0).msg;
  EXPECT_EQ(out.ta, m.ta);
  EXPECT_EQ(out.instance_no, 3u);
  EXPECT_EQ(out.log_level, 2u);
  EXPECT_EQ(out.log_flags, 1u);
  EXPECT_EQ(out.random_mode, 1u);
  EXPECT_EQ(out.max_operation_bytes, 0x01020304u);
  EXPECT_EQ(out.max_session_shm_bytes, 0xA0B0C0D0u);
  EXPECT_EQ(out.storage_key, m.storage_key);
  EXPECT_EQ(out.name_key, m.name_key);
  EXPECT_EQ(out.random_key, m.random_key);
  EXPECT_EQ(out.ta_path, m.ta_path);
  EXPECT_EQ(out.storage_dir, m.storage_dir);
}

TEST(Wire, HostInitReplyAndOpenRoundTrip) {
  HostInitReply r;
  r.result = 0xFFFF0005u;
  r.origin = Origin::Tee;
  r.ta_flags = 0x1C;
  r.name = "echo";
  r.error = "descriptor UUID differs from the file name";
  HostInitReply r2 = round_trip(r, 0).msg;
  EXPECT_EQ(r2.result, r.result);
  EXPECT_EQ(r2.origin, Origin::Tee);
  EXPECT_EQ(r2.ta_flags, r.ta_flags);
  EXPECT_EQ(r2.name, r.name);
  EXPECT_EQ(r2.error, r.error);

  auto data = bytes(10, 0);
  HostOpen o;
  o.session_id = 77;
  o.login = Login::Application;
  o.client_id = sample_uuid(0xA0);
  o.params = request_params_of_every_carrier(data);
  auto d = round_trip(o, 2); /* channel + one shm */
  const HostOpen& o2 = d.msg;
  EXPECT_EQ(o2.session_id, 77u);
  EXPECT_EQ(o2.login, Login::Application);
  EXPECT_EQ(o2.client_id, o.client_id);
  expect_same_request_params(o.params, o2.params);

  HostOpenReply a;
  a.session_id = 77;
  a.result = 0;
  a.origin = Origin::TrustedApp;
  a.params[1].kind = ParamKind::ValueOut;
  a.params[1].a = 5;
  HostOpenReply a2 = round_trip(a, 0).msg;
  EXPECT_EQ(a2.session_id, 77u);
  EXPECT_EQ(a2.params[1].a, 5u);
}

/* ---- refusals ------------------------------------------------------------ */

std::vector<uint8_t> encoded_invoke() {
  static auto data = bytes(100, 5);
  Invoke m;
  m.command = 1;
  m.params = request_params_of_every_carrier(data);
  std::vector<uint8_t> frame;
  EXPECT_EQ(encode(frame, 0, m), Status::Ok);
  return frame;
}

void set_u32(std::vector<uint8_t>& f, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) f[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

Status decode_invoke(const std::vector<uint8_t>& frame, size_t nfds) {
  Frame f;
  Status s = parse_frame(frame.data(), frame.size(), &f);
  if (s != Status::Ok) return s;
  Invoke m;
  return decode(f, nfds, &m);
}

TEST(Wire, HeaderChecksMagicVersionAndLength) {
  auto good = encoded_invoke();
  EXPECT_EQ(decode_invoke(good, 1), Status::Ok);
  auto f = good;
  f[0] ^= 1;
  EXPECT_EQ(decode_invoke(f, 1), Status::BadMagic);
  f = good;
  f[4] = 2;
  EXPECT_EQ(decode_invoke(f, 1), Status::BadVersion);
  f = good;
  set_u32(f, 8, static_cast<uint32_t>(good.size() - kHeaderSize + 1));
  EXPECT_EQ(decode_invoke(f, 1), Status::BadLength);
  f = good;
  f.resize(kHeaderSize - 1);
  EXPECT_EQ(decode_invoke(f, 1), Status::Truncated);
  std::vector<uint8_t> big(kMaxFrameSize + 1, 0);
  Frame fr;
  EXPECT_EQ(parse_frame(big.data(), big.size(), &fr), Status::TooLarge);
  EXPECT_EQ(parse_frame(nullptr, 0, &fr), Status::Truncated);
}

TEST(Wire, EveryTruncationOfABodyIsRefused) {
  auto good = encoded_invoke();
  for (size_t len = kHeaderSize; len < good.size(); ++len) {
    auto f = good;
    f.resize(len);
    set_u32(f, 8, static_cast<uint32_t>(len - kHeaderSize));
    Status s = decode_invoke(f, 1);
    EXPECT_NE(s, Status::Ok) << "accepted a body cut to " << (len - kHeaderSize) << " bytes";
  }
}

TEST(Wire, TrailingBytesAreRefused) {
  auto f = encoded_invoke();
  f.push_back(0);
  set_u32(f, 8, static_cast<uint32_t>(f.size() - kHeaderSize));
  EXPECT_EQ(decode_invoke(f, 1), Status::BadLength);
}

TEST(Wire, DescriptorCountMustMatchAttachedShm) {
  auto f = encoded_invoke();
  EXPECT_EQ(decode_invoke(f, 0), Status::FdMismatch);
  EXPECT_EQ(decode_invoke(f, 2), Status::FdMismatch);
}

TEST(Wire, UnknownParamKindsAreRefused) {
  for (uint32_t bad : {4u, 8u, 12u, 13u, 14u, 15u}) {
    Invoke m;
    std::vector<uint8_t> frame;
    ASSERT_EQ(encode(frame, 0, m), Status::Ok);
    set_u32(frame, kHeaderSize + 4, bad << 8);
    EXPECT_EQ(decode_invoke(frame, 0), Status::BadField) << bad;
  }
  Invoke m;
  std::vector<uint8_t> frame;
  ASSERT_EQ(encode(frame, 0, m), Status::Ok);
  set_u32(frame, kHeaderSize + 4, 0x10000);
  EXPECT_EQ(decode_invoke(frame, 0), Status::BadField);
}

TEST(Wire, WrongMessageTypeIsRefused) {
  auto f = encoded_invoke();
  Frame fr;
  ASSERT_EQ(parse_frame(f.data(), f.size(), &fr), Status::Ok);
  InvokeReply r;
  EXPECT_EQ(decode(fr, 1, &r), Status::WrongType);
  OpenSession o;
  EXPECT_EQ(decode(fr, 1, &o), Status::WrongType);
}

TEST(Wire, InlineBuffersAreLimitedOnBothSides) {
  std::vector<uint8_t> data(kMaxInlineBytes, 1);
  Invoke m;
  m.params[0].kind = ParamKind::BufIn;
  m.params[0].size = kMaxInlineBytes;
  m.params[0].data = data.data();
  std::vector<uint8_t> frame;
  EXPECT_EQ(encode(frame, 0, m), Status::Ok);
  EXPECT_LE(frame.size(), kMaxFrameSize);
  m.params[1].kind = ParamKind::BufOut;
  m.params[1].size = 1; /* capacity counts too: the reply must fit */
  EXPECT_EQ(encode(frame, 0, m), Status::TooLarge);
  EXPECT_TRUE(frame.empty());

  /* A hand-made frame whose out-capacities add up past the limit. */
  Invoke two;
  two.params[0].kind = ParamKind::BufOut;
  two.params[0].size = kMaxInlineBytes;
  two.params[1].kind = ParamKind::BufOut;
  two.params[1].size = 0;
  ASSERT_EQ(encode(frame, 0, two), Status::Ok);
  set_u32(frame, kHeaderSize + 4 + 4 + 4, 1); /* second capacity := 1 */
  EXPECT_EQ(decode_invoke(frame, 0), Status::TooLarge);
}

TEST(Wire, ShmFieldsAreChecked) {
  Invoke m;
  m.params[0].kind = ParamKind::ShmIn;
  m.params[0].shm_id = 0; /* one-shot blocks must bring their fd */
  m.params[0].size = 1;
  std::vector<uint8_t> frame;
  EXPECT_EQ(encode(frame, 0, m), Status::BadField);
  m.params[0].shm_flags = kShmFdAttached | 2;
  EXPECT_EQ(encode(frame, 0, m), Status::BadField);
  m.params[0].shm_flags = kShmFdAttached;
  m.params[0].offset = kMaxShmSize;
  m.params[0].size = 1;
  EXPECT_EQ(encode(frame, 0, m), Status::TooLarge);
  m.params[0].offset = 0;
  m.params[0].size = kMaxShmSize;
  ASSERT_EQ(encode(frame, 0, m), Status::Ok);
  EXPECT_EQ(decode_invoke(frame, 1), Status::Ok);

  /* offset near 2^64 must not wrap into range */
  const size_t off_at = kHeaderSize + 4 + 4 + 4 + 4;
  auto f = frame;
  set_u32(f, off_at, 0xFFFFFFFFu);
  set_u32(f, off_at + 4, 0xFFFFFFFFu);
  EXPECT_EQ(decode_invoke(f, 1), Status::TooLarge);
  f = frame;
  set_u32(f, kHeaderSize + 4 + 4 + 4, 0x6); /* flags: unknown bit */
  EXPECT_EQ(decode_invoke(f, 1), Status::BadField);
  f = frame;
  set_u32(f, kHeaderSize + 4 + 4 + 4, 0); /* id 0 without its fd */
  EXPECT_EQ(decode_invoke(f, 0), Status::BadField);
}

TEST(Wire, ReplyBytesMustMatchTheReportedSize) {
  auto data = bytes(8, 0);
  InvokeReply m;
  m.params[0].kind = ParamKind::BufOut;
  m.params[0].size = 8;
  m.params[0].data_len = 4;
  m.params[0].data = data.data();
  std::vector<uint8_t> frame;
  EXPECT_EQ(encode(frame, 0, m), Status::BadField);
  m.params[0].data_len = 8;
  ASSERT_EQ(encode(frame, 0, m), Status::Ok);
  set_u32(frame, kHeaderSize + 8 + 4 + 4, 4); /* data_len := 4 */
  frame.resize(frame.size() - 4);
  set_u32(frame, 8, static_cast<uint32_t>(frame.size() - kHeaderSize));
  Frame f;
  ASSERT_EQ(parse_frame(frame.data(), frame.size(), &f), Status::Ok);
  InvokeReply out;
  EXPECT_EQ(decode(f, 0, &out), Status::BadField);
}

TEST(Wire, StringsAndFlagsOutOfRangeAreRefused) {
  HostInit m;
  m.ta_path.assign(kMaxString + 1, 'a');
  std::vector<uint8_t> frame;
  EXPECT_EQ(encode(frame, 0, m), Status::TooLarge);
  m.ta_path = "x";
  m.random_mode = 2;
  EXPECT_EQ(encode(frame, 0, m), Status::BadField);
  m.random_mode = 0;
  ASSERT_EQ(encode(frame, 0, m), Status::Ok);
  /* string length field claiming more than the limit */
  size_t len_at = kHeaderSize + 16 + 16 + 8 + 3 * kKeySize; /* uuid, 4 u32, 2 limits, keys */
  set_u32(frame, len_at, kMaxString + 1);
  Frame f;
  ASSERT_EQ(parse_frame(frame.data(), frame.size(), &f), Status::Ok);
  HostInit out;
  EXPECT_EQ(decode(f, 0, &out), Status::Truncated);

  OpenSession o;
  ASSERT_EQ(encode(frame, 0, o), Status::Ok);
  set_u32(frame, kHeaderSize + 16 + 4, 2); /* has_group := 2 */
  ASSERT_EQ(parse_frame(frame.data(), frame.size(), &f), Status::Ok);
  OpenSession oo;
  EXPECT_EQ(decode(f, 0, &oo), Status::BadField);
}

TEST(Wire, StatusNamesAreDistinct) {
  std::set<std::string> names;
  for (int s = 0; s <= static_cast<int>(Status::FdMismatch); ++s)
    names.insert(status_name(static_cast<Status>(s)));
  EXPECT_EQ(names.size(), static_cast<size_t>(Status::FdMismatch) + 1);
}

}  // namespace
}  // namespace teesim::wire
