/*
 * How a TA instance turns the parameters of a request into the TEE_Param
 * array that a TA entry point gets, and the TA's answer back into reply
 * parameters.
 *
 * The TA never sees client memory: every memory reference is handed to it as
 * a private buffer, filled (for inputs) by one copy taken before the entry
 * point runs; output bytes are copied back after it returns. Shared memory
 * arrives as a memfd, which is checked (sealed against shrinking and
 * growing, large enough) before it is mapped: a block that could shrink
 * under us would fault this process.
 */
#ifndef TEESIM_HOST_OPERATION_H
#define TEESIM_HOST_OPERATION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tee_internal_api.h"
#include "teesim/channel.h"
#include "teesim/wire.h"

namespace teesim::host {

/* A client's shared memory block mapped into this process. */
class ShmMap {
 public:
  /* Checks and maps a memfd (the descriptor is not kept).
   * Returns nullptr with a reason in *why when it is not a sealed memfd of
   * 1 .. wire::kMaxShmSize bytes or cannot be mapped. */
  static std::unique_ptr<ShmMap> map(int fd, std::string* why);
  ~ShmMap();
  ShmMap(const ShmMap&) = delete;
  ShmMap& operator=(const ShmMap&) = delete;

  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool writable() const { return writable_; }

 private:
  ShmMap(uint8_t* data, size_t size, bool writable) : data_(data), size_(size), writable_(writable) {}
  uint8_t* data_;
  size_t size_;
  bool writable_;
};

/* The shared memory blocks a session's client has sent, by id, with a cap
 * on the bytes they map: a client may not make its instance map more than
 * `max_bytes` of its memory at once. */
class ShmCache {
 public:
  explicit ShmCache(size_t max_bytes = SIZE_MAX) : max_bytes_(max_bytes) {}
  /* Keeps `map` under `id` (replacing any block of that id).
   * Returns false, dropping `map`, when the cap would be passed. */
  [[nodiscard]] bool put(uint32_t id, std::unique_ptr<ShmMap> map) {
    auto it = maps_.find(id);
    size_t replaced = it == maps_.end() ? 0 : it->second->size();
    if (map->size() > max_bytes_ - (bytes_ - replaced)) return false;
    bytes_ = bytes_ - replaced + map->size();
    maps_[id] = std::move(map);
    return true;
  }
  ShmMap* find(uint32_t id) const {
    auto it = maps_.find(id);
    return it == maps_.end() ? nullptr : it->second.get();
  }
  void forget(uint32_t id) {
    auto it = maps_.find(id);
    if (it == maps_.end()) return;
    bytes_ -= it->second->size();
    maps_.erase(it);
  }
  size_t size() const { return maps_.size(); }
  /* The bytes of all blocks kept. */
  size_t bytes() const { return bytes_; }

 private:
  std::unordered_map<uint32_t, std::unique_ptr<ShmMap>> maps_;
  size_t max_bytes_;
  size_t bytes_ = 0;
};

/* One operation in flight. Reuse one object per session: its buffers keep
 * their capacity, so a steady stream of commands allocates nothing. */
class Operation {
 public:
  /* max_bytes: the most bytes of memory references (sizes added up) one
   * operation may hand the TA; each is copied, so this bounds the memory a
   * request makes this process take. */
  explicit Operation(size_t max_bytes = SIZE_MAX) : max_bytes_(max_bytes) {}

  /* Builds the TA's view of request parameters.
   * Returns TEE_SUCCESS; TEE_ERROR_EXCESS_DATA when the memory references
   * add up to more than max_bytes (checked before anything is mapped or
   * copied); TEE_ERROR_OUT_OF_MEMORY when a shared memory block would take
   * the session's cache past its cap; or TEE_ERROR_BAD_PARAMETERS (unknown
   * shm id, bad memfd, range outside the block, output to a read-only
   * block). Each with a reason in *why; each a fault of the client,
   * reported with origin TEE.
   * In: req, the decoded request; fds, the descriptors that came with the
   *     frame, of which the shm ones start at index first_shm_fd.
   * In/out: cache, the session's shm blocks; attached ones with an id are
   *     added to it. */
  [[nodiscard]] TEE_Result prepare(const wire::Params& req, FdList& fds, size_t first_shm_fd,
                                   ShmCache& cache, std::string* why);

  /* The parameter types word and array for the entry point. */
  uint32_t param_types() const { return param_types_; }
  TEE_Param* ta_params() { return ta_params_; }

  /* After the entry point returned: fills reply parameters (output values,
   * the sizes the TA reported, output bytes when they fit the capacity the
   * client gave) and copies output bytes of shared memory back into it.
   * Reply views point into this object until the next prepare(). */
  void finish(wire::Params* reply);

  /* Wipes the TA's private copies and drops one-shot mappings (call after
   * the reply has been sent). */
  void release();

 private:
  struct Slot {
    wire::ParamKind kind = wire::ParamKind::None;
    std::vector<uint8_t> copy;       /* the TA's private buffer */
    uint32_t capacity = 0;           /* bytes the client offered */
    ShmMap* shm = nullptr;           /* where shm outputs go back */
    std::unique_ptr<ShmMap> one_shot;
    uint64_t offset = 0;
  };
  Slot slots_[4];
  TEE_Param ta_params_[4]{};
  uint32_t param_types_ = 0;
  size_t max_bytes_;
};

}  // namespace teesim::host

#endif  // TEESIM_HOST_OPERATION_H
