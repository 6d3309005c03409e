/* The encrypted, crash-safe object store; see object_store.h. */
#include "runtime/object_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

#include "common/crypto.h"
#include "common/fs.h"
#include "common/log.h"
#include "runtime/generation_record.h"
#include "teesim/unique_fd.h"

namespace teesim::runtime {
namespace {

constexpr uint8_t kMagic[4] = {'T', 'S', 'O', 'B'};
constexpr uint8_t kFormatV1 = 1;      /* no generation: written before generation records */
constexpr uint8_t kFormatVersion = 2; /* u64 generation first */
constexpr size_t kHeaderSize = 8;
constexpr size_t kNonceAt = 8;
constexpr size_t kCipherAt = kNonceAt + crypto::kGcmNonceSize;

TEE_Result io_error(int neg_errno) {
  if (neg_errno == -ENOSPC || neg_errno == -EDQUOT) return TEE_ERROR_STORAGE_NO_SPACE;
  return TEE_ERROR_STORAGE_NOT_AVAILABLE;
}

/* A folder that refuses every change (a read-only mount, permissions):
 * normal for a storage that is served read-only, so said once per process
 * rather than at each write. */
bool refuses_writes(int neg_errno) {
  return neg_errno == -EROFS || neg_errno == -EACCES || neg_errno == -EPERM;
}

void log_write_failure(const std::string& dir, const char* what, int neg_errno) {
  static std::atomic<bool> said_read_only{false};
  if (!refuses_writes(neg_errno)) {
    TS_LOG_ERROR("cannot %s in %s: %s", what, dir.c_str(), std::strerror(-neg_errno));
  } else if (!said_read_only.exchange(true)) {
    TS_LOG_WARN("storage folder %s cannot be written (%s): writes answer "
                "TEE_ERROR_STORAGE_NOT_AVAILABLE (said once)", dir.c_str(), std::strerror(-neg_errno));
  }
}

void put_u32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

uint32_t get_u32(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

void put_u64(uint8_t* p, uint64_t v) {
  put_u32(p, static_cast<uint32_t>(v));
  put_u32(p + 4, static_cast<uint32_t>(v >> 32));
}

uint64_t get_u64(const uint8_t* p) { return uint64_t{get_u32(p)} | (uint64_t{get_u32(p + 4)} << 32); }

/* A lock on a TA's folder for one operation: shared to read, exclusive to
 * change, so that instances of a multi-instance TA (processes of their own)
 * never interleave an object's write with its record's. */
class FolderLock {
 public:
  /* Returns 0, -ENOENT when the folder does not exist, or -errno. */
  int take(const std::string& dir, bool exclusive) {
    fd_.reset(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd_) return -errno;
    while (::flock(fd_.get(), exclusive ? LOCK_EX : LOCK_SH) != 0) {
      if (errno != EINTR) return -errno;
    }
    return 0;
  }

 private:
  UniqueFd fd_; /* closing it releases the lock */
};

const char* state_text(ObjectState s) {
  return s == ObjectState::RolledBack ? "an older copy of it was put back, or its record removed"
                                      : "its file was removed behind the TEE's back";
}

}  // namespace

ObjectStore::ObjectStore(std::string dir, const Uuid& ta, const Key256& storage_key,
                         const Key256& name_key)
    : dir_(std::move(dir)), ta_(ta), storage_key_(storage_key), name_key_(name_key) {}

bool ObjectStore::name_of(const void* id, size_t id_len, ObjectName* mac, std::string* file) const {
  if (!crypto::hmac_sha256(mac->data(), name_key_.data(), name_key_.size(), id, id_len)) return false;
  static const char kHex[] = "0123456789abcdef";
  file->clear();
  file->reserve(64 + 4);
  for (uint8_t b : *mac) {
    file->push_back(kHex[b >> 4]);
    file->push_back(kHex[b & 0xF]);
  }
  *file += ".obj";
  return true;
}

std::string ObjectStore::file_name(const void* id, size_t id_len) const {
  ObjectName mac;
  std::string name;
  return name_of(id, id_len, &mac, &name) ? name : std::string();
}

TEE_Result ObjectStore::ensure_dir() {
  int r = fs::make_dirs(dir_, 0700);
  if (r != 0) {
    log_write_failure(dir_, "make the storage folder", r);
    return io_error(r);
  }
  return TEE_SUCCESS;
}

TEE_Result ObjectStore::read_record(GenerationRecord* record, bool* have) const {
  TEE_Result r = read_generation_record(dir_, ta_, storage_key_, record);
  *have = r == TEE_SUCCESS;
  if (r == TEE_ERROR_ITEM_NOT_FOUND) return TEE_SUCCESS;
  if (r == TEE_ERROR_CORRUPT_OBJECT)
    TS_LOG_ERROR("the generation record in %s is corrupt: no object of this TA can be trusted",
                 dir_.c_str());
  return r;
}

TEE_Result ObjectStore::decode(const std::vector<uint8_t>& file, const void* id, size_t id_len,
                               SecretBytes* data, uint64_t* generation) const {
  if (file.size() < kCipherAt + 4 + crypto::kGcmTagSize) return TEE_ERROR_CORRUPT_OBJECT;
  if (std::memcmp(file.data(), kMagic, 4) != 0 || (file[4] != kFormatVersion && file[4] != kFormatV1) ||
      file[5] != 0 || file[6] != 0 || file[7] != 0)
    return TEE_ERROR_CORRUPT_OBJECT;
  const size_t gen_len = file[4] == kFormatV1 ? 0 : 8;
  uint8_t aad[kHeaderSize + 16];
  std::memcpy(aad, file.data(), kHeaderSize);
  std::memcpy(aad + kHeaderSize, ta_.bytes.data(), 16);
  size_t ct_len = file.size() - kCipherAt - crypto::kGcmTagSize;
  if (ct_len < gen_len + 4) return TEE_ERROR_CORRUPT_OBJECT;
  SecretBytes plain(ct_len);
  if (!crypto::aes256gcm_open(plain.data(), storage_key_.data(), file.data() + kNonceAt, aad,
                              sizeof aad, file.data() + kCipherAt, ct_len,
                              file.data() + kCipherAt + ct_len))
    return TEE_ERROR_CORRUPT_OBJECT;
  *generation = gen_len == 0 ? 0 : get_u64(plain.data());
  const uint8_t* rest = plain.data() + gen_len;
  const size_t rest_len = ct_len - gen_len;
  uint32_t stored_id_len = get_u32(rest);
  if (stored_id_len != id_len || 4 + static_cast<size_t>(stored_id_len) > rest_len ||
      (id_len > 0 && std::memcmp(rest + 4, id, id_len) != 0))
    return TEE_ERROR_CORRUPT_OBJECT;
  size_t data_len = rest_len - 4 - id_len;
  if (data_len > kMaxObjectData) return TEE_ERROR_CORRUPT_OBJECT;
  SecretBytes out(rest + 4 + id_len, data_len);
  *data = std::move(out);
  return TEE_SUCCESS;
}

TEE_Result ObjectStore::load(const void* id, size_t id_len, SecretBytes* data) const {
  ObjectName mac;
  std::string name;
  if (!name_of(id, id_len, &mac, &name)) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  FolderLock lock;
  int r = lock.take(dir_, /*exclusive=*/false);
  if (r == -ENOENT) return TEE_ERROR_ITEM_NOT_FOUND;
  if (r != 0) return TEE_ERROR_STORAGE_NOT_AVAILABLE;

  std::vector<uint8_t> file;
  r = fs::read_file(dir_ + "/" + name, kMaxObjectData + kObjectFileOverhead + TEE_OBJECT_ID_MAX_LEN,
                    &file);
  if (r == -EFBIG || r == -EINVAL) return TEE_ERROR_CORRUPT_OBJECT;
  if (r != 0 && r != -ENOENT) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  const bool exists = r == 0;
  SecretBytes found;
  uint64_t generation = 0;
  if (exists) {
    TEE_Result res = decode(file, id, id_len, &found, &generation);
    if (res != TEE_SUCCESS) return res;
  }
  GenerationRecord record;
  bool have = false;
  TEE_Result res = read_record(&record, &have);
  if (res != TEE_SUCCESS) return res;
  switch (judge(have ? &record : nullptr, mac, exists, generation)) {
    case ObjectState::Current:
      *data = std::move(found);
      return TEE_SUCCESS;
    case ObjectState::Absent:
    case ObjectState::Deleted: return TEE_ERROR_ITEM_NOT_FOUND;
    case ObjectState::RolledBack:
    case ObjectState::Missing: {
      ObjectState s = exists ? ObjectState::RolledBack : ObjectState::Missing;
      TS_LOG_WARN("object file %s in %s is not its latest write (%s): reported corrupt", name.c_str(),
                  dir_.c_str(), state_text(s));
      return TEE_ERROR_CORRUPT_OBJECT;
    }
  }
  return TEE_ERROR_CORRUPT_OBJECT;
}

TEE_Result ObjectStore::exists(const void* id, size_t id_len) const {
  std::string name = file_name(id, id_len);
  if (name.empty()) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  struct stat st{};
  if (::lstat((dir_ + "/" + name).c_str(), &st) == 0) return TEE_SUCCESS;
  return errno == ENOENT ? TEE_ERROR_ITEM_NOT_FOUND : TEE_ERROR_STORAGE_NOT_AVAILABLE;
}

TEE_Result ObjectStore::save(const void* id, size_t id_len, const uint8_t* data, size_t len,
                             bool exclusive) {
  if (len > kMaxObjectData) return TEE_ERROR_STORAGE_NO_SPACE;
  if (id_len > TEE_OBJECT_ID_MAX_LEN) return TEE_ERROR_BAD_PARAMETERS;
  TEE_Result res = ensure_dir();
  if (res != TEE_SUCCESS) return res;
  ObjectName mac;
  std::string name;
  if (!name_of(id, id_len, &mac, &name)) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  FolderLock lock;
  if (lock.take(dir_, /*exclusive=*/true) != 0) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  GenerationRecord record;
  bool have = false;
  res = read_record(&record, &have);
  if (res != TEE_SUCCESS) return res;
  int err = 0;
  if (!have) {
    /* The record comes first, so that a file with a generation is never
     * without one (a missing record would otherwise hide rollbacks). */
    res = write_generation_record(dir_, ta_, storage_key_, record, &err);
    if (res != TEE_SUCCESS) {
      log_write_failure(dir_, "write the generation record", err);
      return res;
    }
  }
  const uint64_t generation = record.next();
  GenerationRecord updated = record;
  if (!updated.note(mac, generation, /*live=*/true)) return TEE_ERROR_STORAGE_NO_SPACE;

  size_t pt_len = 8 + 4 + id_len + len;
  SecretBytes plain(pt_len);
  put_u64(plain.data(), generation);
  put_u32(plain.data() + 8, static_cast<uint32_t>(id_len));
  if (id_len > 0) std::memcpy(plain.data() + 12, id, id_len);
  if (len > 0) std::memcpy(plain.data() + 12 + id_len, data, len);

  std::vector<uint8_t> file(kCipherAt + pt_len + crypto::kGcmTagSize);
  std::memcpy(file.data(), kMagic, 4);
  file[4] = kFormatVersion;
  if (!crypto::os_random(file.data() + kNonceAt, crypto::kGcmNonceSize))
    return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  uint8_t aad[kHeaderSize + 16];
  std::memcpy(aad, file.data(), kHeaderSize);
  std::memcpy(aad + kHeaderSize, ta_.bytes.data(), 16);
  if (!crypto::aes256gcm_seal(file.data() + kCipherAt, file.data() + kCipherAt + pt_len,
                              storage_key_.data(), file.data() + kNonceAt, aad, sizeof aad,
                              plain.data(), pt_len))
    return TEE_ERROR_STORAGE_NOT_AVAILABLE;

  int r = fs::write_file_atomic(dir_, name, file.data(), file.size(), 0600, exclusive);
  if (r == -EEXIST) return TEE_ERROR_ACCESS_CONFLICT;
  if (r != 0) {
    log_write_failure(dir_, "write an object file", r);
    return io_error(r);
  }
  /* The object is written whatever happens next: a record left behind
   * only means that the file is newer than its entry, which reads fine. */
  if (write_generation_record(dir_, ta_, storage_key_, updated, &err) != TEE_SUCCESS)
    log_write_failure(dir_, "write the generation record", err);
  return TEE_SUCCESS;
}

TEE_Result ObjectStore::remove(const void* id, size_t id_len) {
  ObjectName mac;
  std::string name;
  if (!name_of(id, id_len, &mac, &name)) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  FolderLock lock;
  int r = lock.take(dir_, /*exclusive=*/true);
  if (r == -ENOENT) return TEE_ERROR_ITEM_NOT_FOUND;
  if (r != 0) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  struct stat st{};
  if (::lstat((dir_ + "/" + name).c_str(), &st) != 0)
    return errno == ENOENT ? TEE_ERROR_ITEM_NOT_FOUND : TEE_ERROR_STORAGE_NOT_AVAILABLE;
  GenerationRecord record;
  bool have = false;
  TEE_Result res = read_record(&record, &have);
  if (res != TEE_SUCCESS) return res;
  /* The deletion is recorded before the file goes: a crash in between
   * leaves a file that reads as deleted. */
  if (!record.note(mac, record.next(), /*live=*/false)) return TEE_ERROR_STORAGE_NO_SPACE;
  int err = 0;
  res = write_generation_record(dir_, ta_, storage_key_, record, &err);
  if (res != TEE_SUCCESS) {
    log_write_failure(dir_, "write the generation record", err);
    return res;
  }
  r = fs::remove_file(dir_, name);
  if (r != 0 && r != -ENOENT) {
    log_write_failure(dir_, "delete an object file", r);
    return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  }
  return TEE_SUCCESS;
}

TEE_Result ObjectStore::rename(const void* old_id, size_t old_len, const void* new_id,
                               size_t new_len, const uint8_t* data, size_t len) {
  TEE_Result res = save(new_id, new_len, data, len, /*exclusive=*/true);
  if (res != TEE_SUCCESS) return res;
  res = remove(old_id, old_len);
  if (res == TEE_ERROR_ITEM_NOT_FOUND) res = TEE_SUCCESS; /* never saved: nothing to drop */
  return res;
}

}  // namespace teesim::runtime
