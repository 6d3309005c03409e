/* The installation key and the keys derived from it per TA; see keys.h. */
#include "daemon/keys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/crypto.h"
#include "common/fs.h"
#include "teesim/unique_fd.h"

namespace teesim::daemon {

namespace {

bool read_key(const std::string& path, Key256* key, std::string* error) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  struct stat st{};
  if (::fstat(fd.get(), &st) != 0) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *error = path + " is not a regular file";
    return false;
  }
  if (st.st_uid != ::geteuid()) {
    *error = path + " belongs to uid " + std::to_string(st.st_uid) + ", not to us";
    return false;
  }
  if (st.st_mode & 077) {
    *error = path + " may be read by other users; it must be mode 0600 or 0400";
    return false;
  }
  if (st.st_size != static_cast<off_t>(key->size())) {
    *error = path + " is not a teesim installation key (" + std::to_string(st.st_size) +
             " bytes, expected " + std::to_string(key->size()) + ")";
    return false;
  }
  size_t got = 0;
  while (got < key->size()) {
    ssize_t n = ::read(fd.get(), key->data() + got, key->size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      *error = path + ": short read";
      key->clear();
      return false;
    }
    got += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool installation_key_missing(const std::string& storage_dir) {
  struct stat st{};
  return ::lstat((storage_dir + "/" + kInstallationKeyFile).c_str(), &st) != 0 && errno == ENOENT;
}

bool load_or_create_installation_key(const std::string& storage_dir, Key256* key, bool* created,
                                     std::string* error) {
  *created = false;
  std::string path = storage_dir + "/" + kInstallationKeyFile;
  struct stat st{};
  if (::lstat(path.c_str(), &st) == 0) return read_key(path, key, error);
  if (errno != ENOENT) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  Key256 fresh;
  if (!crypto::os_random(fresh.data(), fresh.size())) {
    *error = "no random numbers from the OS";
    return false;
  }
  int r = fs::write_file_atomic(storage_dir, kInstallationKeyFile, fresh.data(), fresh.size(), 0600,
                                /*exclusive=*/true);
  if (r == -EEXIST) return read_key(path, key, error);
  if (r != 0) {
    *error = "cannot create " + path + ": " + std::strerror(-r);
    return false;
  }
  *key = std::move(fresh);
  *created = true;
  return true;
}

bool derive_ta_keys(const Key256& installation, const Uuid& ta, TaKeys* out) {
  static const char kSalt[] = "teesim installation key v1";
  uint8_t info[8 + 16];
  std::memcpy(info, "storage:", 8);
  std::memcpy(info + 8, ta.bytes.data(), 16);
  if (!crypto::hkdf_sha256(out->storage.data(), out->storage.size(), installation.data(),
                           installation.size(), reinterpret_cast<const uint8_t*>(kSalt),
                           sizeof kSalt - 1, info, sizeof info))
    return false;
  std::memcpy(info, "names:  ", 8);
  return crypto::hkdf_sha256(out->names.data(), out->names.size(), installation.data(),
                             installation.size(), reinterpret_cast<const uint8_t*>(kSalt),
                             sizeof kSalt - 1, info, sizeof info);
}

bool deterministic_random_key(const std::string& seed, const Uuid& ta, uint32_t instance_no,
                              Key256* out) {
  static const char kLabel[] = "teesim deterministic random v1|";
  std::string material = kLabel + seed;
  Key256 master;
  if (!crypto::sha256(master.data(), material.data(), material.size())) return false;
  uint8_t context[16 + 4];
  std::memcpy(context, ta.bytes.data(), 16);
  for (int i = 0; i < 4; ++i) context[16 + i] = static_cast<uint8_t>(instance_no >> (8 * i));
  return crypto::hmac_sha256(out->data(), master.data(), master.size(), context, sizeof context);
}

}  // namespace teesim::daemon
