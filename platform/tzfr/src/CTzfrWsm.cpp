// The CTzfrWsm message serializer; the byte format is in CTzfrWsm.h.
#include "CTzfrWsm.h"

#include <cstring>

static_assert(sizeof(unsigned) == 4, "fields carry unsigned 32-bit values");

namespace {

constexpr unsigned char kMagic[4] = {'T', 'Z', 'W', '1'};
// The body length travels as a u32 that is a multiple of 4.
constexpr std::size_t kMaxBody = 0xFFFFFFFCu;

uint32_t LoadLe32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void StoreLe32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

// Payload length rounded up to the 4-byte grid, in 64 bits: a length near
// 2^32 would wrap around to 0 in a 32-bit size_t.
uint64_t Padded(uint32_t len) { return (uint64_t{len} + 3u) & ~uint64_t{3}; }

}  // namespace

CTzfrWsm::CTzfrWsm(void* buffer, std::size_t size)
    : buf_(static_cast<unsigned char*>(buffer)),
      cap_(0),
      cursor_(kHeaderSize),
      end_(kHeaderSize),
      state_(State::kWriting),
      started_(false) {
  if (buf_ != nullptr && size >= kHeaderSize) {
    // Only whole 4-byte units are used, and never more than a u32 body.
    cap_ = size & ~std::size_t{3};
    if (cap_ - kHeaderSize > kMaxBody) cap_ = kHeaderSize + kMaxBody;
  }
}

void CTzfrWsm::WriteHeader() {
  std::memcpy(buf_, kMagic, sizeof kMagic);
  StoreLe32(buf_ + 4, static_cast<uint32_t>(end_ - kHeaderSize));
  started_ = true;
}

bool CTzfrWsm::Append(uint32_t kind, const void* payload, uint32_t len) {
  if (cap_ == 0 || state_ != State::kWriting) return false;
  const uint64_t need = kFieldHeaderSize + Padded(len);
  if (need > cap_ - end_) return false;  // end_ <= cap_ always holds; need now fits a size_t

  unsigned char* field = buf_ + end_;
  StoreLe32(field, kind);
  StoreLe32(field + 4, len);
  if (len != 0) std::memmove(field + kFieldHeaderSize, payload, len);
  std::memset(field + kFieldHeaderSize + len, 0, static_cast<std::size_t>(Padded(len) - len));
  end_ += static_cast<std::size_t>(need);
  cursor_ = end_;
  WriteHeader();
  return true;
}

bool CTzfrWsm::PutUint(unsigned value) {
  unsigned char le[4];
  StoreLe32(le, static_cast<uint32_t>(value));
  return Append(kKindUint, le, sizeof le);
}

bool CTzfrWsm::PutBlob(const void* data, unsigned len) {
  if (data == nullptr && len != 0) return false;
  return Append(kKindBlob, data, static_cast<uint32_t>(len));
}

bool CTzfrWsm::PrepareReset(int mode) {
  if (mode != 0 && mode != 1) return false;
  cursor_ = kHeaderSize;
  end_ = kHeaderSize;
  if (mode == 0) {
    state_ = State::kWriting;
    if (cap_ == 0) return false;
    WriteHeader();
    return true;
  }
  state_ = State::kReading;
  if (cap_ == 0 || std::memcmp(buf_, kMagic, sizeof kMagic) != 0) return false;
  const uint32_t body = LoadLe32(buf_ + 4);
  if (body % 4 != 0 || body > cap_ - kHeaderSize) return false;
  end_ = kHeaderSize + body;
  return true;
}

bool CTzfrWsm::PeekField(uint32_t kind, uint32_t len, std::size_t* payload) const {
  if (cap_ == 0 || state_ != State::kReading) return false;
  const std::size_t left = end_ - cursor_;
  if (left < kFieldHeaderSize) return false;
  const unsigned char* field = buf_ + cursor_;
  if (LoadLe32(field) != kind || LoadLe32(field + 4) != len) return false;
  if (Padded(len) > left - kFieldHeaderSize) return false;
  *payload = cursor_ + kFieldHeaderSize;
  return true;
}

bool CTzfrWsm::GetUint(unsigned* value) {
  std::size_t at = 0;
  if (value == nullptr || !PeekField(kKindUint, 4, &at)) return false;
  *value = LoadLe32(buf_ + at);
  cursor_ = at + 4;
  return true;
}

const void* CTzfrWsm::GetBlob(unsigned len) {
  std::size_t at = 0;
  if (!PeekField(kKindBlob, static_cast<uint32_t>(len), &at)) return nullptr;
  cursor_ = at + static_cast<std::size_t>(Padded(static_cast<uint32_t>(len)));  // checked to fit
  return buf_ + at;
}

bool CTzfrWsm::AtEnd() const { return state_ == State::kReading && cap_ != 0 && cursor_ == end_; }

std::size_t CTzfrWsm::MessageSize() const {
  if (cap_ == 0) return 0;
  if (state_ == State::kWriting && !started_) return 0;
  return end_;
}
