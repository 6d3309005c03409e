/*
 * The encrypted, crash-safe store behind a TA's persistent objects.
 *
 * One file per object in the TA's folder, named by the hex HMAC-SHA-256 of
 * the object id under the TA's name key (ids never appear on disk), with
 * this content:
 *
 *   offset  size  field
 *   0       4     magic "TSOB"
 *   4       1     format version (2; 1 is still read: no generation)
 *   5       3     zero
 *   8       12    AES-GCM nonce, fresh for every write
 *   20      n     ciphertext of: u64 generation (LE) | u32 id_len (LE) | id | data
 *   20+n    16    GCM tag
 *
 * Key: the TA's storage key. Authenticated data: the first 8 bytes and the
 * TA's UUID. Loading checks the tag and that the id inside is the id asked
 * for, so a file altered, cut, moved to another name or copied from another
 * TA is reported as corrupt. Every change writes a whole new file atomically
 * (fs::write_file_atomic). The TA's generation record (generation_record.h)
 * tells the latest write of each object from an older copy of its file put
 * back, which is reported as corrupt too, and a deleted object's file put
 * back reads as deleted; a record rolled back along with the objects is not
 * noticed. Each operation holds a lock on the TA's folder (shared to read,
 * exclusive to change).
 */
#ifndef TEESIM_RUNTIME_OBJECT_STORE_H
#define TEESIM_RUNTIME_OBJECT_STORE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/secret.h"
#include "runtime/generation_record.h"
#include "tee_internal_api.h"
#include "teesim/uuid.h"

namespace teesim::runtime {

/* Largest data an object may hold, in bytes. */
inline constexpr uint32_t kMaxObjectData = 16u * 1024u * 1024u;
/* Bytes a file adds around the data: header, nonce, id length, tag. */
inline constexpr size_t kObjectFileOverhead = 20 + 8 + 4 + 16;

class ObjectStore {
 public:
  /* In: dir, the TA's own folder (made on the first save, mode 0700);
   *     ta, the TA's UUID; storage_key, name_key (copied). */
  ObjectStore(std::string dir, const Uuid& ta, const Key256& storage_key, const Key256& name_key);

  /* Reads an object's data.
   * Returns TEE_SUCCESS; TEE_ERROR_ITEM_NOT_FOUND (never written, or
   * deleted); TEE_ERROR_CORRUPT_OBJECT (bad tag, bad format, wrong id, an
   * older copy put back, a file removed behind the store's back, a corrupt
   * generation record); TEE_ERROR_STORAGE_NOT_AVAILABLE (I/O).
   * In: id, id_len (<= TEE_OBJECT_ID_MAX_LEN). Out: data. */
  [[nodiscard]] TEE_Result load(const void* id, size_t id_len, SecretBytes* data) const;

  /* TEE_SUCCESS when a file exists for the id, TEE_ERROR_ITEM_NOT_FOUND when
   * not, TEE_ERROR_STORAGE_NOT_AVAILABLE when that cannot be told. */
  [[nodiscard]] TEE_Result exists(const void* id, size_t id_len) const;

  /* Writes an object's whole data atomically.
   * Returns TEE_SUCCESS; TEE_ERROR_ACCESS_CONFLICT when `exclusive` and the
   * object exists; TEE_ERROR_STORAGE_NO_SPACE (disk full or data over
   * kMaxObjectData, or a record full of live objects);
   * TEE_ERROR_STORAGE_NOT_AVAILABLE (I/O, or a folder that cannot be
   * written: a read-only storage, logged once per process);
   * TEE_ERROR_CORRUPT_OBJECT (a corrupt generation record). */
  [[nodiscard]] TEE_Result save(const void* id, size_t id_len, const uint8_t* data, size_t len,
                                bool exclusive);

  /* Deletes an object (its deletion is recorded first).
   * TEE_ERROR_ITEM_NOT_FOUND when absent; otherwise as save(). */
  [[nodiscard]] TEE_Result remove(const void* id, size_t id_len);

  /* Gives an object a new id, keeping `data` (its current content). The new
   * file appears atomically before the old one goes; a crash in between
   * leaves both, each whole. TEE_ERROR_ACCESS_CONFLICT when new_id exists. */
  [[nodiscard]] TEE_Result rename(const void* old_id, size_t old_len, const void* new_id,
                                  size_t new_len, const uint8_t* data, size_t len);

  /* The file name used for an id (for tests and diagnostics). */
  std::string file_name(const void* id, size_t id_len) const;
  const std::string& dir() const { return dir_; }

 private:
  TEE_Result ensure_dir();
  /* The MAC naming an id's file, and the file's name. False on a crypto failure. */
  bool name_of(const void* id, size_t id_len, ObjectName* mac, std::string* file) const;
  /* The TA's record; *have false (and TEE_SUCCESS) when it has none yet. */
  TEE_Result read_record(GenerationRecord* record, bool* have) const;
  /* Opens an object file's bytes: its data and generation (0 for format 1). */
  TEE_Result decode(const std::vector<uint8_t>& file, const void* id, size_t id_len,
                    SecretBytes* data, uint64_t* generation) const;

  std::string dir_;
  Uuid ta_;
  Key256 storage_key_;
  Key256 name_key_;
};

}  // namespace teesim::runtime

#endif  // TEESIM_RUNTIME_OBJECT_STORE_H
