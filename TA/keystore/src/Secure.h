/*
 * Holders for secret bytes: wiped on destruction with the project's wipe
 * (tessera_secure_wipe, which the compiler cannot drop), never copied, and
 * compared in constant time.
 */
#ifndef KEYSTORE_SECURE_H
#define KEYSTORE_SECURE_H

#include <openssl/crypto.h>

#include <cstddef>
#include <cstdint>
#include <new>

#include "secure_wipe.h"

namespace keystore {

/* True when a[0..n) equals b[0..n); the time taken depends only on n. */
inline bool ConstantTimeEqual(const void* a, const void* b, std::size_t n) {
  return CRYPTO_memcmp(a, b, n) == 0;
}

/* N secret bytes in place (on the stack or inside an object). */
template <std::size_t N>
class Secret {
 public:
  Secret() : bytes_{} {}
  ~Secret() { tessera_secure_wipe(bytes_, N); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  unsigned char* data() { return bytes_; }
  const unsigned char* data() const { return bytes_; }
  static constexpr std::size_t size() { return N; }
  unsigned char& operator[](std::size_t i) { return bytes_[i]; }
  unsigned char operator[](std::size_t i) const { return bytes_[i]; }
  void Clear() { tessera_secure_wipe(bytes_, N); }

 private:
  unsigned char bytes_[N];
};

/* A heap block of secret bytes of a size fixed at construction; zeroed when
 * made, wiped when destroyed or moved from. */
class SecretBuffer {
 public:
  SecretBuffer() = default;
  /* Throws std::bad_alloc when the block cannot be made. */
  explicit SecretBuffer(std::size_t n) : data_(n != 0 ? new unsigned char[n]() : nullptr), size_(n) {}
  ~SecretBuffer() { Release(); }
  SecretBuffer(SecretBuffer&& other) noexcept : data_(other.data_), size_(other.size_) {
    other.data_ = nullptr;
    other.size_ = 0;
  }
  SecretBuffer& operator=(SecretBuffer&& other) noexcept {
    if (this != &other) {
      Release();
      data_ = other.data_;
      size_ = other.size_;
      other.data_ = nullptr;
      other.size_ = 0;
    }
    return *this;
  }
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;

  unsigned char* data() { return data_; }
  const unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  void Release() {
    tessera_secure_wipe(data_, size_);
    delete[] data_;
    data_ = nullptr;
    size_ = 0;
  }
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace keystore

#endif  // KEYSTORE_SECURE_H
