/* File-system helpers for the secure side's private folders; see fs.h. */
#include "common/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "teesim/unique_fd.h"

namespace teesim::fs {
namespace {

int sync_dir(const std::string& dir) {
  UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return -errno;
  if (::fsync(fd.get()) != 0) return -errno;
  return 0;
}

int write_all(int fd, const uint8_t* p, size_t len) {
  while (len > 0) {
    ssize_t n = ::write(fd, p, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    p += n;
    len -= static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace

int make_dirs(const std::string& path, mode_t mode) {
  if (path.empty()) return -EINVAL;
  std::string partial;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string::npos) slash = path.size();
    partial = path.substr(0, slash);
    pos = slash + 1;
    if (partial.empty()) continue;
    if (::mkdir(partial.c_str(), mode) != 0 && errno != EEXIST) return -errno;
  }
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0) return -errno;
  return S_ISDIR(st.st_mode) ? 0 : -ENOTDIR;
}

int check_private_dir(const std::string& path, std::string* why) {
  struct stat st{};
  if (::lstat(path.c_str(), &st) != 0) {
    int e = errno;
    *why = std::strerror(e);
    return -e;
  }
  if (!S_ISDIR(st.st_mode)) {
    *why = "not a folder";
    return -ENOTDIR;
  }
  if (st.st_uid != ::geteuid()) {
    *why = "owned by uid " + std::to_string(st.st_uid) + ", not by us (uid " +
           std::to_string(::geteuid()) + ")";
    return -EPERM;
  }
  if (st.st_mode & (S_IWGRP | S_IWOTH)) {
    *why = "writable by other users (mode " + std::to_string((st.st_mode >> 6) & 7) +
           std::to_string((st.st_mode >> 3) & 7) + std::to_string(st.st_mode & 7) + ")";
    return -EPERM;
  }
  return 0;
}

int write_file_atomic(const std::string& dir, const std::string& name, const uint8_t* data,
                      size_t len, mode_t mode, bool exclusive) {
  std::string tmp = dir + "/" + kTempPrefix + "XXXXXX";
  UniqueFd fd(::mkostemp(tmp.data(), O_CLOEXEC));
  if (!fd) return -errno;
  int r = 0;
  if (::fchmod(fd.get(), mode) != 0) r = -errno;
  if (r == 0) r = write_all(fd.get(), data, len);
  if (r == 0 && ::fsync(fd.get()) != 0) r = -errno;
  fd.reset();
  std::string target = dir + "/" + name;
  if (r == 0) {
    if (exclusive) {
      if (::link(tmp.c_str(), target.c_str()) != 0) r = -errno;
      ::unlink(tmp.c_str());
    } else if (::rename(tmp.c_str(), target.c_str()) != 0) {
      r = -errno;
    }
  }
  if (r != 0) {
    ::unlink(tmp.c_str());
    return r;
  }
  return sync_dir(dir);
}

int read_file(const std::string& path, size_t max_len, std::vector<uint8_t>* out) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) return -errno;
  struct stat st{};
  if (::fstat(fd.get(), &st) != 0) return -errno;
  if (!S_ISREG(st.st_mode)) return -EINVAL;
  if (static_cast<uint64_t>(st.st_size) > max_len) return -EFBIG;
  out->resize(static_cast<size_t>(st.st_size));
  size_t got = 0;
  while (got < out->size()) {
    ssize_t n = ::read(fd.get(), out->data() + got, out->size() - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    if (n == 0) break; /* shrank under us: report what is there */
    got += static_cast<size_t>(n);
  }
  out->resize(got);
  return 0;
}

int remove_file(const std::string& dir, const std::string& name) {
  std::string path = dir + "/" + name;
  if (::unlink(path.c_str()) != 0) return -errno;
  return sync_dir(dir);
}

int remove_flat_dir(const std::string& path) {
  DIR* d = ::opendir(path.c_str());
  if (d == nullptr) return -errno;
  int r = 0;
  while (dirent* e = ::readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    if (::unlinkat(::dirfd(d), e->d_name, 0) != 0 && r == 0) r = -errno;
  }
  ::closedir(d);
  if (r != 0) return r;
  if (::rmdir(path.c_str()) != 0) return -errno;
  return 0;
}

int remove_temp_files(const std::string& dir) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return 0;
  int removed = 0;
  size_t plen = std::strlen(kTempPrefix);
  while (dirent* e = ::readdir(d)) {
    if (std::strncmp(e->d_name, kTempPrefix, plen) != 0) continue;
    if (::unlinkat(::dirfd(d), e->d_name, 0) == 0) ++removed;
  }
  ::closedir(d);
  return removed;
}

}  // namespace teesim::fs
