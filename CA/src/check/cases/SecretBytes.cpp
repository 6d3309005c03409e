// The wiping holder of secret bytes and the constant-time comparison.
#include "cases/SecretBytes.h"

#include <openssl/crypto.h>

#include <utility>

#include "secure_wipe.h"

namespace check {

SecretBytes::SecretBytes(const void* data, std::size_t size) {
  const auto* p = static_cast<const unsigned char*>(data);
  if (size != 0) bytes_.assign(p, p + size);
}

SecretBytes::~SecretBytes() { clear(); }

SecretBytes::SecretBytes(SecretBytes&& other) noexcept : bytes_(std::move(other.bytes_)) {
  other.bytes_.clear();  // a moved vector hands over its block: nothing is left to wipe
}

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept {
  if (this != &other) {
    clear();
    bytes_ = std::move(other.bytes_);
    other.bytes_.clear();
  }
  return *this;
}

void SecretBytes::clear() {
  tessera_secure_wipe(bytes_.data(), bytes_.size());
  bytes_.clear();
}

bool SecretEqual(const unsigned char* a, std::size_t a_size, const unsigned char* b,
                 std::size_t b_size) {
  if (a_size != b_size) return false;
  if (a_size == 0) return true;
  return CRYPTO_memcmp(a, b, a_size) == 0;
}

}  // namespace check
