/* The storage folder at start-up; see storage_folder.h. */
#include "daemon/storage_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/fs.h"
#include "teesim/uuid.h"

namespace teesim::daemon {
namespace {

bool is_uuid_name(const char* name) {
  Uuid u;
  return uuid_parse(name, &u);
}

bool holds_objects(int parent, const char* name) {
  int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  DIR* d = ::fdopendir(fd);
  if (d == nullptr) {
    ::close(fd);
    return false;
  }
  bool found = false;
  size_t plen = std::strlen(fs::kTempPrefix);
  while (dirent* e = ::readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    if (std::strncmp(e->d_name, fs::kTempPrefix, plen) == 0) continue;
    found = true;
    break;
  }
  ::closedir(d);
  return found;
}

}  // namespace

int lock_storage_folder(const std::string& dir, UniqueFd* out) {
  UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return -errno;
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return -errno;
  *out = std::move(fd);
  return 0;
}

int probe_writable(const std::string& dir) {
  std::string probe = dir + "/" + fs::kTempPrefix + "probe-XXXXXX";
  int fd = ::mkostemp(probe.data(), O_CLOEXEC);
  if (fd < 0) return -errno;
  ::close(fd);
  if (::unlink(probe.c_str()) != 0) return -errno;
  return 0;
}

std::vector<std::string> tas_with_objects(const std::string& dir) {
  std::vector<std::string> tas;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return tas;
  while (dirent* e = ::readdir(d)) {
    if (is_uuid_name(e->d_name) && holds_objects(::dirfd(d), e->d_name)) tas.emplace_back(e->d_name);
  }
  ::closedir(d);
  return tas;
}

int set_aside(const std::string& dir, const std::vector<std::string>& tas, const std::string& aside) {
  const std::string target = dir + "/" + aside;
  if (::mkdir(target.c_str(), 0700) != 0) return -errno;
  for (const std::string& ta : tas) {
    if (::rename((dir + "/" + ta).c_str(), (target + "/" + ta).c_str()) != 0) return -errno;
  }
  int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0) {
    (void)::fsync(fd);
    ::close(fd);
  }
  return 0;
}

}  // namespace teesim::daemon
