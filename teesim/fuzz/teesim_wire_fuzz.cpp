/*
 * Fuzzes the frame parser that every teesim peer runs on bytes from another
 * process. Input: one byte giving the number of descriptors that "came with"
 * the frame, then the frame. Each frame is offered to every decoder; whatever
 * a decoder accepts must re-encode to exactly the same bytes (the format has
 * one spelling per message), so the parser can neither accept slack nor lose
 * a field.
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "teesim/wire.h"

namespace w = teesim::wire;

namespace {

template <typename M>
void check(const uint8_t* data, size_t len, w::Frame frame, size_t nfds) {
  frame.type = M::kType;
  M msg;
  if (w::decode(frame, nfds, &msg) != w::Status::Ok) return;
  std::vector<uint8_t> again;
  if (w::encode(again, frame.tag, msg) != w::Status::Ok) abort();
  /* The input's header may name another type; compare all but that field. */
  if (again.size() != len) abort();
  if (std::memcmp(again.data(), data, 6) != 0) abort();
  if (std::memcmp(again.data() + 8, data + 8, len - 8) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t nfds = data[0] % (w::kMaxFds + 1);
  const uint8_t* frame_bytes = data + 1;
  size_t len = size - 1;
  w::Frame frame;
  if (w::parse_frame(frame_bytes, len, &frame) != w::Status::Ok) return 0;
  check<w::Hello>(frame_bytes, len, frame, nfds);
  check<w::HelloReply>(frame_bytes, len, frame, nfds);
  check<w::Refused>(frame_bytes, len, frame, nfds);
  check<w::OpenSession>(frame_bytes, len, frame, nfds);
  check<w::OpenSessionReply>(frame_bytes, len, frame, nfds);
  check<w::Invoke>(frame_bytes, len, frame, nfds);
  check<w::InvokeReply>(frame_bytes, len, frame, nfds);
  check<w::CloseSession>(frame_bytes, len, frame, nfds);
  check<w::CloseSessionReply>(frame_bytes, len, frame, nfds);
  check<w::ShmForget>(frame_bytes, len, frame, nfds);
  check<w::HostInit>(frame_bytes, len, frame, nfds);
  check<w::HostInitReply>(frame_bytes, len, frame, nfds);
  check<w::HostOpen>(frame_bytes, len, frame, nfds);
  check<w::HostOpenReply>(frame_bytes, len, frame, nfds);
  check<w::HostSessionClosed>(frame_bytes, len, frame, nfds);
  check<w::HostDestroy>(frame_bytes, len, frame, nfds);
  return 0;
}
