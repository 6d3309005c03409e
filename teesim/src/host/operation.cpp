/* Request parameters to the TA's TEE_Param array and its answer back; see operation.h. */
#include "host/operation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "common/secret.h"

namespace teesim::host {

using wire::ParamKind;

/* Private buffers up to this size are kept between commands; larger ones
 * are given back. */
constexpr size_t kKeepCapacity = 1u << 20;

std::unique_ptr<ShmMap> ShmMap::map(int fd, std::string* why) {
  int seals = ::fcntl(fd, F_GET_SEALS);
  if (seals < 0) {
    *why = "shared memory is not a memfd";
    return nullptr;
  }
  const int needed = F_SEAL_SHRINK | F_SEAL_GROW;
  if ((seals & needed) != needed) {
    *why = "shared memory is not sealed against resizing";
    return nullptr;
  }
  struct stat st{};
  if (::fstat(fd, &st) != 0 || st.st_size <= 0 ||
      static_cast<uint64_t>(st.st_size) > wire::kMaxShmSize) {
    *why = "shared memory has a bad size";
    return nullptr;
  }
  size_t size = static_cast<size_t>(st.st_size);
  bool writable = !(seals & F_SEAL_WRITE);
  void* p = ::mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    *why = std::string("cannot map shared memory: ") + std::strerror(errno);
    return nullptr;
  }
  return std::unique_ptr<ShmMap>(new ShmMap(static_cast<uint8_t*>(p), size, writable));
}

ShmMap::~ShmMap() { ::munmap(data_, size_); }

TEE_Result Operation::prepare(const wire::Params& req, FdList& fds, size_t first_shm_fd,
                              ShmCache& cache, std::string* why) {
  param_types_ = 0;
  for (Slot& s : slots_) {
    s.kind = wire::ParamKind::None;
    s.shm = nullptr;
    s.one_shot.reset();
  }
  uint64_t total = 0;
  for (const wire::Param& p : req) {
    if (wire::is_buf(p.kind) || wire::is_shm(p.kind)) total += p.size;
  }
  if (total > max_bytes_) {
    *why = "memory references of " + std::to_string(total) + " bytes, more than the " +
           std::to_string(max_bytes_) + " one operation may carry";
    return TEE_ERROR_EXCESS_DATA;
  }
  size_t next_fd = first_shm_fd;
  for (int i = 0; i < 4; ++i) {
    const wire::Param& p = req[i];
    Slot& s = slots_[i];
    s.kind = p.kind;
    s.shm = nullptr;
    s.one_shot.reset();
    s.capacity = 0;
    s.offset = 0;
    TEE_Param& t = ta_params_[i];
    std::memset(&t, 0, sizeof t);
    uint32_t ta_type = TEE_PARAM_TYPE_NONE;

    if (wire::is_value(p.kind)) {
      ta_type = static_cast<uint32_t>(p.kind); /* value kinds share the TA's numbering */
      if (p.kind != ParamKind::ValueOut) {
        t.value.a = p.a;
        t.value.b = p.b;
      }
    } else if (wire::is_buf(p.kind) || wire::is_shm(p.kind)) {
      const bool in = wire::is_input(p.kind), out = wire::is_output(p.kind);
      ta_type = in && out ? TEE_PARAM_TYPE_MEMREF_INOUT
                          : (in ? TEE_PARAM_TYPE_MEMREF_INPUT : TEE_PARAM_TYPE_MEMREF_OUTPUT);
      s.capacity = p.size;
      const uint8_t* source = nullptr;
      if (wire::is_buf(p.kind)) {
        source = p.data;
      } else {
        ShmMap* m = nullptr;
        if (p.shm_flags & wire::kShmFdAttached) {
          if (next_fd >= fds.count) {
            *why = "missing shared memory descriptor";
            return TEE_ERROR_BAD_PARAMETERS;
          }
          std::unique_ptr<ShmMap> mapped = ShmMap::map(fds.fds[next_fd++].get(), why);
          if (!mapped) return TEE_ERROR_BAD_PARAMETERS;
          m = mapped.get();
          if (p.shm_id == 0) {
            s.one_shot = std::move(mapped);
          } else if (!cache.put(p.shm_id, std::move(mapped))) {
            *why = "shared memory past the " + std::to_string(cache.bytes()) +
                   " bytes this session keeps mapped already";
            return TEE_ERROR_OUT_OF_MEMORY;
          }
        } else {
          m = cache.find(p.shm_id);
          if (m == nullptr) {
            *why = "unknown shared memory id " + std::to_string(p.shm_id);
            return TEE_ERROR_BAD_PARAMETERS;
          }
        }
        if (p.offset > m->size() || p.size > m->size() - p.offset) {
          *why = "memory reference outside its shared memory block";
          return TEE_ERROR_BAD_PARAMETERS;
        }
        if (out && !m->writable()) {
          *why = "output to read-only shared memory";
          return TEE_ERROR_BAD_PARAMETERS;
        }
        s.shm = m;
        s.offset = p.offset;
        source = m->data() + p.offset;
      }
      /* The one read of the client's bytes: the TA works on this copy. */
      if (in) {
        s.copy.assign(source, source + p.size);
      } else {
        s.copy.assign(p.size, 0);
      }
      t.memref.buffer = p.size > 0 ? s.copy.data() : nullptr;
      t.memref.size = p.size;
    }
    param_types_ |= ta_type << (4 * i);
  }
  return TEE_SUCCESS;
}

void Operation::finish(wire::Params* reply) {
  for (int i = 0; i < 4; ++i) {
    Slot& s = slots_[i];
    wire::Param& r = (*reply)[i];
    r = wire::Param{};
    r.kind = s.kind;
    const TEE_Param& t = ta_params_[i];
    if (s.kind == ParamKind::ValueOut || s.kind == ParamKind::ValueInOut) {
      r.a = t.value.a;
      r.b = t.value.b;
      continue;
    }
    if (!wire::is_output(s.kind) || wire::is_value(s.kind)) continue;
    r.size = t.memref.size;
    if (r.size > s.capacity) continue; /* a needed size, no bytes */
    if (wire::is_buf(s.kind)) {
      r.data_len = r.size;
      r.data = s.copy.data();
    } else if (r.size > 0) {
      std::memcpy(s.shm->data() + s.offset, s.copy.data(), r.size);
    }
  }
}

void Operation::release() {
  for (Slot& s : slots_) {
    s.one_shot.reset();
    s.shm = nullptr;
    /* The TA's copies may hold secrets (a keystore answer is a mnemonic). */
    wipe(s.copy.data(), s.copy.size());
    if (s.copy.capacity() > kKeepCapacity) std::vector<uint8_t>().swap(s.copy);
  }
}

}  // namespace teesim::host
