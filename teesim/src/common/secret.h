/*
 * Holders for key material: wiped (by a call the compiler cannot drop) when
 * they die, when they are moved from and on request.
 */
#ifndef TEESIM_COMMON_SECRET_H
#define TEESIM_COMMON_SECRET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "secure_wipe.h"

namespace teesim {

/* Wipes n bytes at p with the project's one wipe (a store the compiler may
 * not drop, at memset's speed: it sits on the command path). */
inline void wipe(void* p, size_t n) { tessera_secure_wipe(p, n); }

/* A fixed-size secret. */
template <size_t N>
class SecretArray {
 public:
  SecretArray() { bytes_.fill(0); }
  SecretArray(const SecretArray& o) : bytes_(o.bytes_) {}
  SecretArray& operator=(const SecretArray& o) {
    bytes_ = o.bytes_;
    return *this;
  }
  SecretArray(SecretArray&& o) noexcept : bytes_(o.bytes_) { o.clear(); }
  SecretArray& operator=(SecretArray&& o) noexcept {
    bytes_ = o.bytes_;
    o.clear();
    return *this;
  }
  ~SecretArray() { clear(); }

  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }
  static constexpr size_t size() { return N; }
  void clear() { wipe(bytes_.data(), N); }
  std::array<uint8_t, N>& array() { return bytes_; }
  const std::array<uint8_t, N>& array() const { return bytes_; }

 private:
  std::array<uint8_t, N> bytes_;
};

using Key256 = SecretArray<32>;

/* A variable-size secret buffer; growth copies through wiped storage. */
class SecretBytes {
 public:
  SecretBytes() = default;
  explicit SecretBytes(size_t n) : v_(n, 0) {}
  SecretBytes(const uint8_t* p, size_t n) : v_(p, p + n) {}
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  SecretBytes(SecretBytes&& o) noexcept : v_(std::move(o.v_)) { o.v_.clear(); }
  SecretBytes& operator=(SecretBytes&& o) noexcept {
    if (this != &o) {
      clear();
      v_ = std::move(o.v_);
      o.v_.clear();
    }
    return *this;
  }
  ~SecretBytes() { clear(); }

  uint8_t* data() { return v_.data(); }
  const uint8_t* data() const { return v_.data(); }
  size_t size() const { return v_.size(); }
  bool empty() const { return v_.empty(); }

  /* Resizes, keeping the first min(old, n) bytes; never leaves an unwiped copy. */
  void resize(size_t n) {
    if (n <= v_.capacity()) {
      if (n < v_.size()) wipe(v_.data() + n, v_.size() - n);
      v_.resize(n, 0);
      return;
    }
    std::vector<uint8_t> grown(n, 0);
    if (!v_.empty()) std::copy(v_.begin(), v_.end(), grown.begin());
    clear();
    v_ = std::move(grown);
  }
  /* Bytes past size() were wiped when the buffer shrank, so wiping the
   * live part leaves nothing behind. */
  void clear() {
    wipe(v_.data(), v_.size());
    v_.clear();
  }

 private:
  std::vector<uint8_t> v_;
};

}  // namespace teesim

#endif  // TEESIM_COMMON_SECRET_H
