/*
 * Bytes that may be secret (a private key, a phrase, an operator's seed):
 * held in one heap block that is wiped with the project's wipe when the
 * holder is destroyed, assigned over or moved from, and compared in
 * constant time.
 */
#ifndef TESSERA_CHECK_SECRETBYTES_H
#define TESSERA_CHECK_SECRETBYTES_H

#include <cstddef>
#include <vector>

namespace check {

class SecretBytes {
 public:
  SecretBytes() = default;
  /* Copies size bytes from data (may be null when size is 0). */
  SecretBytes(const void* data, std::size_t size);
  ~SecretBytes();
  SecretBytes(const SecretBytes&) = delete;
  SecretBytes& operator=(const SecretBytes&) = delete;
  /* Takes the other's bytes; the other is left empty. */
  SecretBytes(SecretBytes&& other) noexcept;
  SecretBytes& operator=(SecretBytes&& other) noexcept;

  [[nodiscard]] const unsigned char* data() const { return bytes_.data(); }
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  [[nodiscard]] bool empty() const { return bytes_.empty(); }

  /* Wipes the bytes and makes the holder empty. */
  void clear();

 private:
  std::vector<unsigned char> bytes_;
};

/* Returns true when a and b hold the same bytes. Sizes are compared first
 * (a size is no secret); equal-sized contents are compared in time that
 * does not depend on where they differ. */
[[nodiscard]] bool SecretEqual(const unsigned char* a, std::size_t a_size, const unsigned char* b,
                               std::size_t b_size);

}  // namespace check

#endif  // TESSERA_CHECK_SECRETBYTES_H
