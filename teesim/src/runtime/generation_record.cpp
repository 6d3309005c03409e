/* The generation record of a TA's objects; see generation_record.h. */
#include "runtime/generation_record.h"

#include <time.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/crypto.h"
#include "common/fs.h"

namespace teesim::runtime {
namespace {

constexpr uint8_t kMagic[4] = {'T', 'S', 'G', 'R'};
constexpr uint8_t kFormatVersion = 1;
constexpr size_t kHeaderSize = 8;
constexpr size_t kNonceAt = 8;
constexpr size_t kCipherAt = kNonceAt + crypto::kGcmNonceSize;
constexpr size_t kEntrySize = 32 + 8 + 1;
constexpr size_t kMaxFileSize =
    kCipherAt + 8 + 4 + kMaxGenerationEntries * kEntrySize + crypto::kGcmTagSize;

void put_u32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void put_u64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint32_t get_u32(const uint8_t* p) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}
uint64_t get_u64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

void make_aad(uint8_t aad[kHeaderSize + 16], const uint8_t* header, const Uuid& ta) {
  std::memcpy(aad, header, kHeaderSize);
  std::memcpy(aad + kHeaderSize, ta.bytes.data(), 16);
}

}  // namespace

uint64_t GenerationRecord::next() const {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  uint64_t now = static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
  return last + 1 > now ? last + 1 : now;
}

bool GenerationRecord::note(const ObjectName& name, uint64_t generation, bool live) {
  entries[name] = Entry{generation, live};
  if (generation > last) last = generation;
  while (entries.size() > kMaxGenerationEntries) {
    auto oldest = entries.end();
    for (auto it = entries.begin(); it != entries.end(); ++it) {
      if (!it->second.live && (oldest == entries.end() || it->second.generation < oldest->second.generation))
        oldest = it;
    }
    if (oldest == entries.end()) return false;
    entries.erase(oldest);
  }
  return true;
}

ObjectState judge(const GenerationRecord* record, const ObjectName& name, bool file_exists,
                  uint64_t file_generation) {
  if (record == nullptr) {
    /* Files with a generation are written only once a record exists, so
     * such a file without one means the record was removed. */
    if (!file_exists) return ObjectState::Absent;
    return file_generation == 0 ? ObjectState::Current : ObjectState::RolledBack;
  }
  auto it = record->entries.find(name);
  if (!file_exists) {
    return it != record->entries.end() && it->second.live ? ObjectState::Missing : ObjectState::Absent;
  }
  if (it == record->entries.end()) return ObjectState::Current;
  if (it->second.live)
    return file_generation >= it->second.generation ? ObjectState::Current : ObjectState::RolledBack;
  return file_generation > it->second.generation ? ObjectState::Current : ObjectState::Deleted;
}

TEE_Result read_generation_record(const std::string& dir, const Uuid& ta, const Key256& storage_key,
                                  GenerationRecord* out) {
  std::vector<uint8_t> file;
  int r = fs::read_file(dir + "/" + kGenerationRecordFile, kMaxFileSize, &file);
  if (r == -ENOENT) return TEE_ERROR_ITEM_NOT_FOUND;
  if (r == -EFBIG || r == -EINVAL) return TEE_ERROR_CORRUPT_OBJECT;
  if (r != 0) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  if (file.size() < kCipherAt + 12 + crypto::kGcmTagSize ||
      std::memcmp(file.data(), kMagic, 4) != 0 || file[4] != kFormatVersion || file[5] != 0 ||
      file[6] != 0 || file[7] != 0)
    return TEE_ERROR_CORRUPT_OBJECT;
  uint8_t aad[kHeaderSize + 16];
  make_aad(aad, file.data(), ta);
  const size_t ct_len = file.size() - kCipherAt - crypto::kGcmTagSize;
  std::vector<uint8_t> plain(ct_len);
  if (!crypto::aes256gcm_open(plain.data(), storage_key.data(), file.data() + kNonceAt, aad, sizeof aad,
                              file.data() + kCipherAt, ct_len, file.data() + kCipherAt + ct_len))
    return TEE_ERROR_CORRUPT_OBJECT;
  const uint32_t count = get_u32(plain.data() + 8);
  if (count > kMaxGenerationEntries || ct_len != 12 + static_cast<size_t>(count) * kEntrySize)
    return TEE_ERROR_CORRUPT_OBJECT;
  GenerationRecord record;
  record.last = get_u64(plain.data());
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* e = plain.data() + 12 + static_cast<size_t>(i) * kEntrySize;
    ObjectName name;
    std::memcpy(name.data(), e, 32);
    GenerationRecord::Entry entry{get_u64(e + 32), e[40] != 0};
    if (e[40] > 1 || entry.generation > record.last) return TEE_ERROR_CORRUPT_OBJECT;
    record.entries[name] = entry;
  }
  *out = std::move(record);
  return TEE_SUCCESS;
}

TEE_Result write_generation_record(const std::string& dir, const Uuid& ta, const Key256& storage_key,
                                   const GenerationRecord& record, int* error_out) {
  *error_out = 0;
  const size_t count = record.entries.size();
  if (count > kMaxGenerationEntries) return TEE_ERROR_STORAGE_NO_SPACE;
  std::vector<uint8_t> plain(12 + count * kEntrySize);
  put_u64(plain.data(), record.last);
  put_u32(plain.data() + 8, static_cast<uint32_t>(count));
  size_t at = 12;
  for (const auto& [name, entry] : record.entries) {
    std::memcpy(plain.data() + at, name.data(), 32);
    put_u64(plain.data() + at + 32, entry.generation);
    plain[at + 40] = entry.live ? 1 : 0;
    at += kEntrySize;
  }
  std::vector<uint8_t> file(kCipherAt + plain.size() + crypto::kGcmTagSize);
  std::memcpy(file.data(), kMagic, 4);
  file[4] = kFormatVersion;
  if (!crypto::os_random(file.data() + kNonceAt, crypto::kGcmNonceSize)) return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  uint8_t aad[kHeaderSize + 16];
  make_aad(aad, file.data(), ta);
  if (!crypto::aes256gcm_seal(file.data() + kCipherAt, file.data() + kCipherAt + plain.size(),
                              storage_key.data(), file.data() + kNonceAt, aad, sizeof aad,
                              plain.data(), plain.size()))
    return TEE_ERROR_STORAGE_NOT_AVAILABLE;
  int r = fs::write_file_atomic(dir, kGenerationRecordFile, file.data(), file.size(), 0600,
                                /*exclusive=*/false);
  if (r != 0) {
    *error_out = r;
    return r == -ENOSPC || r == -EDQUOT ? TEE_ERROR_STORAGE_NO_SPACE : TEE_ERROR_STORAGE_NOT_AVAILABLE;
  }
  return TEE_SUCCESS;
}

}  // namespace teesim::runtime
