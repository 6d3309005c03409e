// An in-memory GP Internal API for the keystore's unit tests and fuzzer.
#include "FakeInternalApi.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>

namespace fake_tee {
namespace {

struct Handle {
  std::string id;
  uint32_t flags;
  std::size_t position;
};

struct State {
  std::map<std::string, std::vector<unsigned char>> objects;
  std::map<std::string, std::string> properties;
  std::deque<std::pair<Op, TEE_Result>> failures;
  std::map<Op, int> crash_in;  // calls left until the crash, per op
  std::map<Op, int> counts;
  std::vector<std::string> traces;
  std::mt19937_64 random{1};
};

State& S() {
  static State* state = new State;
  return *state;
}

// Counts the call and says whether it must fail (and with what).
bool Failing(Op op, TEE_Result* result) {
  ++S().counts[op];
  for (auto it = S().failures.begin(); it != S().failures.end(); ++it) {
    if (it->first == op) {
      *result = it->second;
      S().failures.erase(it);
      return true;
    }
  }
  return false;
}

// Throws Crash when this call of `op` is the one that must crash.
void MaybeCrash(Op op) {
  auto it = S().crash_in.find(op);
  if (it != S().crash_in.end() && --it->second == 0) {
    S().crash_in.erase(it);
    throw Crash{};
  }
}

Handle* AsHandle(TEE_ObjectHandle h) { return reinterpret_cast<Handle*>(h); }

}  // namespace

void Reset(uint64_t seed) {
  S() = State{};
  S().random.seed(seed);
}

void FailNext(Op op, TEE_Result result) { S().failures.emplace_back(op, result); }
void ClearFailures() {
  S().failures.clear();
  S().crash_in.clear();
}
void CrashAfter(Op op, int n) { S().crash_in[op] = n; }
std::map<std::string, std::vector<unsigned char>>& Objects() { return S().objects; }
int Count(Op op) { return S().counts[op]; }
void SetProperty(const std::string& name, const std::string& value) { S().properties[name] = value; }
void RemoveProperty(const std::string& name) { S().properties.erase(name); }
const std::vector<std::string>& Traces() { return S().traces; }
void ClearTraces() { S().traces.clear(); }

}  // namespace fake_tee

using fake_tee::Op;
using fake_tee::Failing;
using fake_tee::S;

extern "C" {

void TEE_GenerateRandom(void* randomBuffer, uint32_t randomBufferLen) {
  auto* p = static_cast<unsigned char*>(randomBuffer);
  for (uint32_t i = 0; i < randomBufferLen; ++i) p[i] = static_cast<unsigned char>(S().random());
}

void TEE_Trace(uint32_t, const char* format, ...) {
  char line[512];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(line, sizeof line, format, ap);
  va_end(ap);
  S().traces.emplace_back(line);
}

void TEE_Panic(TEE_Result code) {
  std::fprintf(stderr, "TEE_Panic(0x%08x)\n", code);
  std::abort();
}

TEE_Result TEE_GetPropertyAsString(TEE_PropSetHandle propset, const char* name, char* valueBuffer,
                                   uint32_t* valueBufferLen) {
  if (propset != TEE_PROPSET_CURRENT_TA || name == nullptr || valueBufferLen == nullptr) {
    return TEE_ERROR_BAD_PARAMETERS;
  }
  auto it = S().properties.find(name);
  if (it == S().properties.end()) return TEE_ERROR_ITEM_NOT_FOUND;
  const uint32_t need = static_cast<uint32_t>(it->second.size() + 1);
  if (valueBuffer == nullptr || *valueBufferLen < need) {
    *valueBufferLen = need;
    return TEE_ERROR_SHORT_BUFFER;
  }
  std::memcpy(valueBuffer, it->second.c_str(), need);
  *valueBufferLen = need;
  return TEE_SUCCESS;
}

TEE_Result TEE_OpenPersistentObject(uint32_t storageID, const void* objectID, uint32_t objectIDLen,
                                    uint32_t flags, TEE_ObjectHandle* object) {
  TEE_Result failure = TEE_SUCCESS;
  if (Failing(Op::kOpen, &failure)) return failure;
  if (storageID != TEE_STORAGE_PRIVATE || objectID == nullptr || objectIDLen == 0 ||
      objectIDLen > TEE_OBJECT_ID_MAX_LEN || object == nullptr) {
    return TEE_ERROR_BAD_PARAMETERS;
  }
  const std::string id(static_cast<const char*>(objectID), objectIDLen);
  if (S().objects.count(id) == 0) return TEE_ERROR_ITEM_NOT_FOUND;
  *object = reinterpret_cast<TEE_ObjectHandle>(new fake_tee::Handle{id, flags, 0});
  return TEE_SUCCESS;
}

TEE_Result TEE_ReadObjectData(TEE_ObjectHandle object, void* buffer, uint32_t size, uint32_t* count) {
  TEE_Result failure = TEE_SUCCESS;
  if (Failing(Op::kRead, &failure)) return failure;
  fake_tee::Handle* h = fake_tee::AsHandle(object);
  if (h == nullptr || count == nullptr || (h->flags & TEE_DATA_FLAG_ACCESS_READ) == 0) {
    return TEE_ERROR_BAD_PARAMETERS;
  }
  const std::vector<unsigned char>& data = S().objects[h->id];
  const std::size_t n = h->position < data.size() ? std::min<std::size_t>(size, data.size() - h->position) : 0;
  if (n != 0) std::memcpy(buffer, data.data() + h->position, n);
  h->position += n;
  *count = static_cast<uint32_t>(n);
  return TEE_SUCCESS;
}

TEE_Result TEE_CreatePersistentObject(uint32_t storageID, const void* objectID, uint32_t objectIDLen,
                                      uint32_t flags, TEE_ObjectHandle attributes,
                                      const void* initialData, uint32_t initialDataLen,
                                      TEE_ObjectHandle* object) {
  TEE_Result failure = TEE_SUCCESS;
  if (Failing(Op::kCreate, &failure)) return failure;
  if (storageID != TEE_STORAGE_PRIVATE || objectID == nullptr || objectIDLen == 0 ||
      objectIDLen > TEE_OBJECT_ID_MAX_LEN || attributes != TEE_HANDLE_NULL ||
      (initialData == nullptr && initialDataLen != 0)) {
    return TEE_ERROR_BAD_PARAMETERS;
  }
  const std::string id(static_cast<const char*>(objectID), objectIDLen);
  if (S().objects.count(id) != 0 && (flags & TEE_DATA_FLAG_OVERWRITE) == 0) {
    return TEE_ERROR_ACCESS_CONFLICT;
  }
  const auto* bytes = static_cast<const unsigned char*>(initialData);
  S().objects[id].assign(bytes, bytes + initialDataLen);
  if (object != nullptr) *object = reinterpret_cast<TEE_ObjectHandle>(new fake_tee::Handle{id, flags, 0});
  fake_tee::MaybeCrash(Op::kCreate);
  return TEE_SUCCESS;
}

TEE_Result TEE_CloseAndDeletePersistentObject1(TEE_ObjectHandle object) {
  fake_tee::Handle* h = fake_tee::AsHandle(object);
  TEE_Result failure = TEE_SUCCESS;
  if (Failing(Op::kDelete, &failure)) {
    delete h;
    return failure;
  }
  if (h == nullptr) return TEE_ERROR_BAD_PARAMETERS;
  if ((h->flags & TEE_DATA_FLAG_ACCESS_WRITE_META) == 0) {
    delete h;
    return TEE_ERROR_ACCESS_CONFLICT;
  }
  S().objects.erase(h->id);
  delete h;
  fake_tee::MaybeCrash(Op::kDelete);
  return TEE_SUCCESS;
}

void TEE_CloseObject(TEE_ObjectHandle object) { delete fake_tee::AsHandle(object); }

}  // extern "C"
