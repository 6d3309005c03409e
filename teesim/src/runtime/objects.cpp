/* TEE Internal API: persistent data objects in the TA's private storage. */
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "common/secret.h"
#include "runtime/runtime.h"
#include "tee_internal_api.h"

namespace teesim::runtime {
namespace {

using ObjectId = std::vector<uint8_t>;

struct Handle;

/* One object opened by one or more handles of this instance; they share
 * its data, so a write through one is seen through the others. */
struct OpenObject {
  ObjectId id;
  SecretBytes data;
  std::vector<Handle*> handles;
};

struct Handle {
  std::shared_ptr<OpenObject> object;
  uint32_t flags = 0;
  uint32_t position = 0;
};

std::map<ObjectId, std::weak_ptr<OpenObject>> g_open;
std::set<Handle*> g_handles;

constexpr uint32_t kAccessFlags = TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_ACCESS_WRITE |
                                  TEE_DATA_FLAG_ACCESS_WRITE_META | TEE_DATA_FLAG_SHARE_READ |
                                  TEE_DATA_FLAG_SHARE_WRITE;

/* A bad handle is a programming error of the TA: it ends the instance. */
Handle* checked(TEE_ObjectHandle object) {
  auto* h = reinterpret_cast<Handle*>(object);
  if (h == nullptr || g_handles.count(h) == 0) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  return h;
}

ObjectStore& store() {
  ObjectStore* s = config().store.get();
  if (s == nullptr) TEE_Panic(TEE_ERROR_STORAGE_NOT_AVAILABLE);
  return *s;
}

void check_id(const void* id, uint32_t len) {
  if (len > TEE_OBJECT_ID_MAX_LEN || (len > 0 && id == nullptr)) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
}

/* Sharing rules between a new opening with `flags` and every handle open on
 * the object: each side must allow what the other does, and a handle with
 * write-meta access stands alone. */
bool conflicts(const OpenObject& o, uint32_t flags) {
  for (const Handle* h : o.handles) {
    if ((flags | h->flags) & TEE_DATA_FLAG_ACCESS_WRITE_META) return true;
    if ((flags & TEE_DATA_FLAG_ACCESS_READ) && !(h->flags & TEE_DATA_FLAG_SHARE_READ)) return true;
    if ((flags & TEE_DATA_FLAG_ACCESS_WRITE) && !(h->flags & TEE_DATA_FLAG_SHARE_WRITE)) return true;
    if ((h->flags & TEE_DATA_FLAG_ACCESS_READ) && !(flags & TEE_DATA_FLAG_SHARE_READ)) return true;
    if ((h->flags & TEE_DATA_FLAG_ACCESS_WRITE) && !(flags & TEE_DATA_FLAG_SHARE_WRITE)) return true;
  }
  return false;
}

std::shared_ptr<OpenObject> find_open(const ObjectId& id) {
  auto it = g_open.find(id);
  if (it == g_open.end()) return nullptr;
  auto o = it->second.lock();
  if (!o) g_open.erase(it);
  return o;
}

TEE_ObjectHandle make_handle(std::shared_ptr<OpenObject> o, uint32_t flags) {
  auto* h = new Handle;
  h->object = std::move(o);
  h->flags = flags & kAccessFlags;
  h->object->handles.push_back(h);
  g_handles.insert(h);
  g_open[h->object->id] = h->object;
  return reinterpret_cast<TEE_ObjectHandle>(h);
}

void drop_handle(Handle* h) {
  auto& hs = h->object->handles;
  hs.erase(std::remove(hs.begin(), hs.end(), h), hs.end());
  if (hs.empty()) g_open.erase(h->object->id);
  g_handles.erase(h);
  delete h;
}

/* Replaces an open object's data with `next`, on disk first. */
TEE_Result commit(OpenObject& o, SecretBytes next) {
  TEE_Result r = store().save(o.id.data(), o.id.size(), next.data(), next.size(), false);
  if (r == TEE_SUCCESS) o.data = std::move(next);
  return r;
}

SecretBytes copy_of(const SecretBytes& b, size_t size) {
  SecretBytes out(size);
  std::memcpy(out.data(), b.data(), std::min(size, b.size()));
  return out;
}

}  // namespace

size_t open_object_handles() { return g_handles.size(); }

void close_all_object_handles() {
  while (!g_handles.empty()) drop_handle(*g_handles.begin());
  g_open.clear();
}

}  // namespace teesim::runtime

namespace rt = teesim::runtime;

extern "C" {

TEE_Result TEE_CreatePersistentObject(uint32_t storageID, const void* objectID,
                                      uint32_t objectIDLen, uint32_t flags,
                                      TEE_ObjectHandle attributes, const void* initialData,
                                      uint32_t initialDataLen, TEE_ObjectHandle* object) {
  if (object != nullptr) *object = TEE_HANDLE_NULL;
  if (storageID != TEE_STORAGE_PRIVATE) return TEE_ERROR_ITEM_NOT_FOUND;
  rt::check_id(objectID, objectIDLen);
  /* Only data objects exist here: there is no handle an attribute could come from. */
  if (attributes != TEE_HANDLE_NULL) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  if (initialDataLen > 0 && initialData == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  if (initialDataLen > rt::kMaxObjectData) return TEE_ERROR_STORAGE_NO_SPACE;

  rt::ObjectId id(static_cast<const uint8_t*>(objectID),
                  static_cast<const uint8_t*>(objectID) + objectIDLen);
  bool overwrite = flags & TEE_DATA_FLAG_OVERWRITE;
  auto existing = rt::find_open(id);
  if (existing) {
    /* Replacing an object that someone has open would pull it from under them. */
    return TEE_ERROR_ACCESS_CONFLICT;
  }
  TEE_Result r = rt::store().save(id.data(), id.size(), static_cast<const uint8_t*>(initialData),
                                  initialDataLen, /*exclusive=*/!overwrite);
  if (r != TEE_SUCCESS) return r;
  if (object == nullptr) return TEE_SUCCESS;
  auto o = std::make_shared<rt::OpenObject>();
  o->id = std::move(id);
  o->data = teesim::SecretBytes(static_cast<const uint8_t*>(initialData), initialDataLen);
  *object = rt::make_handle(std::move(o), flags);
  return TEE_SUCCESS;
}

TEE_Result TEE_OpenPersistentObject(uint32_t storageID, const void* objectID,
                                    uint32_t objectIDLen, uint32_t flags,
                                    TEE_ObjectHandle* object) {
  if (object == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  *object = TEE_HANDLE_NULL;
  if (storageID != TEE_STORAGE_PRIVATE) return TEE_ERROR_ITEM_NOT_FOUND;
  rt::check_id(objectID, objectIDLen);
  rt::ObjectId id(static_cast<const uint8_t*>(objectID),
                  static_cast<const uint8_t*>(objectID) + objectIDLen);
  auto o = rt::find_open(id);
  if (o) {
    if (rt::conflicts(*o, flags)) return TEE_ERROR_ACCESS_CONFLICT;
    *object = rt::make_handle(std::move(o), flags);
    return TEE_SUCCESS;
  }
  teesim::SecretBytes data;
  TEE_Result r = rt::store().load(id.data(), id.size(), &data);
  if (r != TEE_SUCCESS) return r;
  o = std::make_shared<rt::OpenObject>();
  o->id = std::move(id);
  o->data = std::move(data);
  *object = rt::make_handle(std::move(o), flags);
  return TEE_SUCCESS;
}

TEE_Result TEE_ReadObjectData(TEE_ObjectHandle object, void* buffer, uint32_t size,
                              uint32_t* count) {
  rt::Handle* h = rt::checked(object);
  if (!(h->flags & TEE_DATA_FLAG_ACCESS_READ) || count == nullptr ||
      (size > 0 && buffer == nullptr))
    TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  const teesim::SecretBytes& data = h->object->data;
  uint32_t n = 0;
  if (h->position < data.size()) {
    n = static_cast<uint32_t>(std::min<size_t>(size, data.size() - h->position));
    std::memcpy(buffer, data.data() + h->position, n);
    h->position += n;
  }
  *count = n;
  return TEE_SUCCESS;
}

TEE_Result TEE_WriteObjectData(TEE_ObjectHandle object, const void* buffer, uint32_t size) {
  rt::Handle* h = rt::checked(object);
  if (!(h->flags & TEE_DATA_FLAG_ACCESS_WRITE) || (size > 0 && buffer == nullptr))
    TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  uint64_t end = uint64_t{h->position} + size;
  if (end > TEE_DATA_MAX_POSITION) return TEE_ERROR_OVERFLOW;
  if (size == 0) return TEE_SUCCESS;
  if (end > rt::kMaxObjectData) return TEE_ERROR_STORAGE_NO_SPACE;
  rt::OpenObject& o = *h->object;
  /* A gap between the end of the data and the position reads as zeros. */
  teesim::SecretBytes next = rt::copy_of(o.data, std::max<size_t>(o.data.size(), end));
  std::memcpy(next.data() + h->position, buffer, size);
  TEE_Result r = rt::commit(o, std::move(next));
  if (r == TEE_SUCCESS) h->position = static_cast<uint32_t>(end);
  return r;
}

TEE_Result TEE_TruncateObjectData(TEE_ObjectHandle object, uint32_t size) {
  rt::Handle* h = rt::checked(object);
  if (!(h->flags & TEE_DATA_FLAG_ACCESS_WRITE)) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  if (size > rt::kMaxObjectData) return TEE_ERROR_STORAGE_NO_SPACE;
  rt::OpenObject& o = *h->object;
  if (size == o.data.size()) return TEE_SUCCESS;
  return rt::commit(o, rt::copy_of(o.data, size));
}

TEE_Result TEE_SeekObjectData(TEE_ObjectHandle object, int32_t offset, TEE_Whence whence) {
  rt::Handle* h = rt::checked(object);
  int64_t base;
  switch (whence) {
    case TEE_DATA_SEEK_SET: base = 0; break;
    case TEE_DATA_SEEK_CUR: base = h->position; break;
    case TEE_DATA_SEEK_END: base = static_cast<int64_t>(h->object->data.size()); break;
    default: TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  }
  int64_t pos = base + offset;
  if (pos > static_cast<int64_t>(TEE_DATA_MAX_POSITION)) return TEE_ERROR_OVERFLOW;
  h->position = pos < 0 ? 0 : static_cast<uint32_t>(pos);
  return TEE_SUCCESS;
}

TEE_Result TEE_RenamePersistentObject(TEE_ObjectHandle object, const void* newObjectID,
                                      uint32_t newObjectIDLen) {
  rt::Handle* h = rt::checked(object);
  if (!(h->flags & TEE_DATA_FLAG_ACCESS_WRITE_META)) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  rt::check_id(newObjectID, newObjectIDLen);
  rt::ObjectId next(static_cast<const uint8_t*>(newObjectID),
                    static_cast<const uint8_t*>(newObjectID) + newObjectIDLen);
  rt::OpenObject& o = *h->object;
  if (next == o.id) return TEE_SUCCESS;
  if (rt::find_open(next)) return TEE_ERROR_ACCESS_CONFLICT;
  TEE_Result r = rt::store().rename(o.id.data(), o.id.size(), next.data(), next.size(),
                                    o.data.data(), o.data.size());
  if (r != TEE_SUCCESS) return r;
  rt::g_open.erase(o.id);
  o.id = std::move(next);
  rt::g_open[o.id] = h->object;
  return TEE_SUCCESS;
}

TEE_Result TEE_CloseAndDeletePersistentObject1(TEE_ObjectHandle object) {
  if (object == TEE_HANDLE_NULL) return TEE_SUCCESS;
  rt::Handle* h = rt::checked(object);
  if (!(h->flags & TEE_DATA_FLAG_ACCESS_WRITE_META)) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  rt::ObjectId id = h->object->id;
  rt::drop_handle(h);
  TEE_Result r = rt::store().remove(id.data(), id.size());
  if (r == TEE_ERROR_ITEM_NOT_FOUND) r = TEE_SUCCESS;
  return r;
}

TEE_Result TEE_GetObjectInfo1(TEE_ObjectHandle object, TEE_ObjectInfo* objectInfo) {
  rt::Handle* h = rt::checked(object);
  if (objectInfo == nullptr) TEE_Panic(TEE_ERROR_BAD_PARAMETERS);
  std::memset(objectInfo, 0, sizeof *objectInfo);
  objectInfo->objectType = TEE_TYPE_DATA;
  objectInfo->objectUsage = 0xFFFFFFFFu;
  objectInfo->dataSize = static_cast<uint32_t>(h->object->data.size());
  objectInfo->dataPosition = h->position;
  objectInfo->handleFlags = h->flags | TEE_HANDLE_FLAG_PERSISTENT | TEE_HANDLE_FLAG_INITIALIZED;
  return TEE_SUCCESS;
}

void TEE_CloseObject(TEE_ObjectHandle object) {
  if (object == TEE_HANDLE_NULL) return;
  rt::drop_handle(rt::checked(object));
}

}  // extern "C"
