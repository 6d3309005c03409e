/*
 * The generation record of one TA's objects: for each object, the
 * generation of its latest write or of its deletion, so that an older copy
 * of an object file put back in place (which would, say, reset a PIN retry
 * counter) reads as corrupt, and a deleted object's file put back reads as
 * deleted.
 *
 * Every write of an object carries a generation inside its encrypted file:
 * a number above every generation the record has seen (and, as a clock
 * step back after a crash cannot be ruled out otherwise, no lower than the
 * wall clock in microseconds). The object is written first, then the
 * record, so a crash in between leaves a file newer than its entry, which
 * is accepted; only a file older than its entry is refused.
 *
 * What it cannot catch: the record rolled back together with the objects
 * (a whole folder restored from a backup), since nothing outside the
 * storage folder remembers the latest generation. Whoever can write the
 * folder (the daemon's user) can also read the installation key, and so
 * forge any file; the record guards against mistakes and naive copies.
 *
 * File <TA folder>/generations:
 *   offset  size  field
 *   0       4     magic "TSGR"
 *   4       1     format version (1)
 *   5       3     zero
 *   8       12    AES-GCM nonce, fresh for every write
 *   20      n     ciphertext of: u64 last generation | u32 count |
 *                 count x (32-byte object name MAC | u64 generation | u8 live)
 *   20+n    16    GCM tag
 * Little-endian. Key: the TA's storage key. Authenticated data: the first 8
 * bytes and the TA's UUID (the magic keeps it apart from object files).
 */
#ifndef TEESIM_RUNTIME_GENERATION_RECORD_H
#define TEESIM_RUNTIME_GENERATION_RECORD_H

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "common/secret.h"
#include "tee_internal_api.h"
#include "teesim/uuid.h"

namespace teesim::runtime {

/* The record's file name in a TA's folder. */
inline constexpr const char* kGenerationRecordFile = "generations";
/* Most entries a record holds; deleted objects' entries go first. */
inline constexpr size_t kMaxGenerationEntries = 16384;

/* HMAC-SHA-256 of an object id under the TA's name key (its file's name). */
using ObjectName = std::array<uint8_t, 32>;

struct GenerationRecord {
  struct Entry {
    uint64_t generation = 0;
    bool live = true; /* false: the generation of its deletion */
  };
  uint64_t last = 0; /* the highest generation handed out */
  std::map<ObjectName, Entry> entries;

  /* The generation for the next write or deletion: above `last`, and no
   * lower than the wall clock in microseconds. */
  uint64_t next() const;

  /* Records a write (live) or a deletion of `name` at `generation`, and
   * drops the oldest deletions when the record is full.
   * Returns false when it is full of live objects. */
  [[nodiscard]] bool note(const ObjectName& name, uint64_t generation, bool live);
};

/* What the record says about an object file. */
enum class ObjectState {
  Current,    /* the latest write (or newer: the record's update was cut short) */
  RolledBack, /* an older write than the latest: put back */
  Deleted,    /* deleted since that write */
  Missing,    /* the record knows it live, yet its file is gone */
  Absent,     /* no file, and none expected */
};

/* In: the record (null when the TA has none yet); the object's name;
 * whether its file exists and, when it does, the generation inside it
 * (0 for a file written before records existed). */
ObjectState judge(const GenerationRecord* record, const ObjectName& name, bool file_exists,
                  uint64_t file_generation);

/* Reads <dir>/generations.
 * Returns TEE_SUCCESS; TEE_ERROR_ITEM_NOT_FOUND when there is none;
 * TEE_ERROR_CORRUPT_OBJECT when it fails authentication or its format;
 * TEE_ERROR_STORAGE_NOT_AVAILABLE on I/O errors. */
[[nodiscard]] TEE_Result read_generation_record(const std::string& dir, const Uuid& ta,
                                                const Key256& storage_key, GenerationRecord* out);

/* Writes <dir>/generations atomically (fs::write_file_atomic).
 * Returns TEE_SUCCESS, TEE_ERROR_STORAGE_NO_SPACE or
 * TEE_ERROR_STORAGE_NOT_AVAILABLE; *error_out gets the -errno of a failed
 * write (0 otherwise). */
[[nodiscard]] TEE_Result write_generation_record(const std::string& dir, const Uuid& ta,
                                                 const Key256& storage_key,
                                                 const GenerationRecord& record, int* error_out);

}  // namespace teesim::runtime

#endif  // TEESIM_RUNTIME_GENERATION_RECORD_H
