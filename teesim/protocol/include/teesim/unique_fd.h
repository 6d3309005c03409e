/*
 * Owning file descriptor: closed exactly once, when the holder dies or is
 * reset. Move-only.
 */
#ifndef TEESIM_UNIQUE_FD_H
#define TEESIM_UNIQUE_FD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace teesim {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  /* The descriptor, or -1 when empty; ownership stays here. */
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }

  /* Gives up ownership without closing. */
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  /* Closes the held descriptor (keeping errno intact) and takes `fd`. */
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace teesim

#endif  // TEESIM_UNIQUE_FD_H
