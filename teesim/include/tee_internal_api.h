/*
 * GlobalPlatform TEE Internal Core API (v1.1 signatures): the subset that
 * teesim offers to Trusted Applications.
 *
 * A TA includes this header, implements the five entry points declared at
 * the end, and exports its descriptor (see teesim_ta.h). All functions are
 * called from the TA instance's own process, one call at a time.
 */
#ifndef TEE_INTERNAL_API_H
#define TEE_INTERNAL_API_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Results ---------------------------------------------------------- */

typedef uint32_t TEE_Result;

#define TEE_SUCCESS                        0x00000000u
#define TEE_ERROR_CORRUPT_OBJECT           0xF0100001u
#define TEE_ERROR_CORRUPT_OBJECT_2         0xF0100002u
#define TEE_ERROR_STORAGE_NOT_AVAILABLE    0xF0100003u
#define TEE_ERROR_STORAGE_NOT_AVAILABLE_2  0xF0100004u
#define TEE_ERROR_GENERIC                  0xFFFF0000u
#define TEE_ERROR_ACCESS_DENIED            0xFFFF0001u
#define TEE_ERROR_CANCEL                   0xFFFF0002u
#define TEE_ERROR_ACCESS_CONFLICT          0xFFFF0003u
#define TEE_ERROR_EXCESS_DATA              0xFFFF0004u
#define TEE_ERROR_BAD_FORMAT               0xFFFF0005u
#define TEE_ERROR_BAD_PARAMETERS           0xFFFF0006u
#define TEE_ERROR_BAD_STATE                0xFFFF0007u
#define TEE_ERROR_ITEM_NOT_FOUND           0xFFFF0008u
#define TEE_ERROR_NOT_IMPLEMENTED          0xFFFF0009u
#define TEE_ERROR_NOT_SUPPORTED            0xFFFF000Au
#define TEE_ERROR_NO_DATA                  0xFFFF000Bu
#define TEE_ERROR_OUT_OF_MEMORY            0xFFFF000Cu
#define TEE_ERROR_BUSY                     0xFFFF000Du
#define TEE_ERROR_COMMUNICATION            0xFFFF000Eu
#define TEE_ERROR_SECURITY                 0xFFFF000Fu
#define TEE_ERROR_SHORT_BUFFER             0xFFFF0010u
#define TEE_ERROR_EXTERNAL_CANCEL          0xFFFF0011u
#define TEE_ERROR_OVERFLOW                 0xFFFF300Fu
#define TEE_ERROR_TARGET_DEAD              0xFFFF3024u
#define TEE_ERROR_STORAGE_NO_SPACE         0xFFFF3041u

/* ---- Identities --------------------------------------------------------- */

typedef struct {
  uint32_t timeLow;
  uint16_t timeMid;
  uint16_t timeHiAndVersion;
  uint8_t clockSeqAndNode[8];
} TEE_UUID;

#define TEE_LOGIN_PUBLIC             0x00000000u
#define TEE_LOGIN_USER               0x00000001u
#define TEE_LOGIN_GROUP              0x00000002u
#define TEE_LOGIN_APPLICATION        0x00000004u
#define TEE_LOGIN_APPLICATION_USER   0x00000005u
#define TEE_LOGIN_APPLICATION_GROUP  0x00000006u
#define TEE_LOGIN_TRUSTED_APP        0xF0000000u

typedef struct {
  uint32_t login;
  TEE_UUID uuid;
} TEE_Identity;

/* ---- Parameters --------------------------------------------------------- */

#define TEE_PARAM_TYPE_NONE          0u
#define TEE_PARAM_TYPE_VALUE_INPUT   1u
#define TEE_PARAM_TYPE_VALUE_OUTPUT  2u
#define TEE_PARAM_TYPE_VALUE_INOUT   3u
#define TEE_PARAM_TYPE_MEMREF_INPUT  5u
#define TEE_PARAM_TYPE_MEMREF_OUTPUT 6u
#define TEE_PARAM_TYPE_MEMREF_INOUT  7u

#define TEE_PARAM_TYPES(t0, t1, t2, t3) \
  ((uint32_t)(t0) | ((uint32_t)(t1) << 4) | ((uint32_t)(t2) << 8) | ((uint32_t)(t3) << 12))
#define TEE_PARAM_TYPE_GET(t, i) (((uint32_t)(t) >> ((i) * 4)) & 0xFu)

/* A memref's buffer is private to the TA for the duration of the call: the
 * TA may read and write it freely; for output memrefs it sets `size` to the
 * number of bytes produced, or to the size it needs together with
 * TEE_ERROR_SHORT_BUFFER. */
typedef union {
  struct {
    void* buffer;
    uint32_t size;
  } memref;
  struct {
    uint32_t a;
    uint32_t b;
  } value;
} TEE_Param;

/* ---- TA entry points (implemented by every TA) -------------------------- */

TEE_Result TA_CreateEntryPoint(void);
void TA_DestroyEntryPoint(void);
TEE_Result TA_OpenSessionEntryPoint(uint32_t paramTypes, TEE_Param params[4],
                                    void** sessionContext);
void TA_CloseSessionEntryPoint(void* sessionContext);
TEE_Result TA_InvokeCommandEntryPoint(void* sessionContext, uint32_t commandID,
                                      uint32_t paramTypes, TEE_Param params[4]);

/* ---- Memory --------------------------------------------------------------- */

#define TEE_MALLOC_FILL_ZERO 0x00000000u
#define TEE_MALLOC_NO_FILL   0x00000001u

/* Allocates `size` bytes, zero-filled unless hint is TEE_MALLOC_NO_FILL.
 * Returns NULL when out of memory. A size of 0 returns a unique pointer. */
void* TEE_Malloc(uint32_t size, uint32_t hint);
/* Resizes a TEE_Malloc block; returns NULL (old block intact) on failure. */
void* TEE_Realloc(void* buffer, uint32_t newSize);
/* Frees a TEE_Malloc block; accepts NULL. */
void TEE_Free(void* buffer);
/* memmove semantics. */
void TEE_MemMove(void* dest, const void* src, uint32_t size);
/* Compares like memcmp (sign of the first difference); not constant time. */
int32_t TEE_MemCompare(const void* buffer1, const void* buffer2, uint32_t size);
/* Sets `size` bytes to the low byte of x. */
void TEE_MemFill(void* buffer, uint32_t x, uint32_t size);

/* ---- Panic, random, time ----------------------------------------------- */

/* Ends the TA instance at once; its sessions then report
 * TEEC_ERROR_TARGET_DEAD to their clients. Never returns. */
void TEE_Panic(TEE_Result panicCode) __attribute__((noreturn));

/* Fills the buffer with random bytes (from the OS, or deterministic when the
 * daemon was started with a random seed for tests). */
void TEE_GenerateRandom(void* randomBuffer, uint32_t randomBufferLen);

typedef struct {
  uint32_t seconds;
  uint32_t millis;
} TEE_Time;

/* Monotonic time since an arbitrary origin. */
void TEE_GetSystemTime(TEE_Time* time);
/* Wall-clock time of the normal world (seconds since 1970). */
void TEE_GetREETime(TEE_Time* time);

/* ---- Trace ---------------------------------------------------------------- */

#define TEE_TRACE_ERROR 1u
#define TEE_TRACE_INFO  2u
#define TEE_TRACE_DEBUG 3u

/* Writes one line to the daemon's log, prefixed with the TA's name. Lines
 * above the daemon's log level are dropped. Never log secrets. */
void TEE_Trace(uint32_t level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* ---- Properties ------------------------------------------------------------ */

typedef struct __TEE_PropSetHandle* TEE_PropSetHandle;
#define TEE_PROPSET_TEE_IMPLEMENTATION ((TEE_PropSetHandle)0xFFFFFFFDu)
#define TEE_PROPSET_CURRENT_CLIENT     ((TEE_PropSetHandle)0xFFFFFFFEu)
#define TEE_PROPSET_CURRENT_TA         ((TEE_PropSetHandle)0xFFFFFFFFu)

/* Reads a property as a NUL-terminated string. *valueBufferLen holds the
 * buffer's size on input and the string's size including the NUL on output.
 * Returns TEE_ERROR_ITEM_NOT_FOUND or TEE_ERROR_SHORT_BUFFER. */
TEE_Result TEE_GetPropertyAsString(TEE_PropSetHandle propsetOrEnumerator, const char* name,
                                   char* valueBuffer, uint32_t* valueBufferLen);
/* Reads a boolean property ("true"/"false"). */
TEE_Result TEE_GetPropertyAsBool(TEE_PropSetHandle propsetOrEnumerator, const char* name,
                                 bool* value);
/* Reads an unsigned 32-bit property. */
TEE_Result TEE_GetPropertyAsU32(TEE_PropSetHandle propsetOrEnumerator, const char* name,
                                uint32_t* value);

/* ---- Persistent objects ---------------------------------------------------- */

typedef struct __TEE_ObjectHandle* TEE_ObjectHandle;
#define TEE_HANDLE_NULL ((TEE_ObjectHandle)0)

#define TEE_STORAGE_PRIVATE 0x00000001u
#define TEE_OBJECT_ID_MAX_LEN 64u
#define TEE_DATA_MAX_POSITION 0xFFFFFFFFu

#define TEE_DATA_FLAG_ACCESS_READ       0x00000001u
#define TEE_DATA_FLAG_ACCESS_WRITE      0x00000002u
#define TEE_DATA_FLAG_ACCESS_WRITE_META 0x00000004u
#define TEE_DATA_FLAG_SHARE_READ        0x00000010u
#define TEE_DATA_FLAG_SHARE_WRITE       0x00000020u
#define TEE_DATA_FLAG_OVERWRITE         0x00000400u

#define TEE_TYPE_DATA 0xA00000BFu

/* Bits that TEE_GetObjectInfo1 adds to a handle's flags. */
#define TEE_HANDLE_FLAG_PERSISTENT  0x00010000u
#define TEE_HANDLE_FLAG_INITIALIZED 0x00020000u

typedef enum {
  TEE_DATA_SEEK_SET = 0,
  TEE_DATA_SEEK_CUR = 1,
  TEE_DATA_SEEK_END = 2
} TEE_Whence;

typedef struct {
  uint32_t objectType;
  uint32_t objectSize;
  uint32_t maxObjectSize;
  uint32_t objectUsage;
  uint32_t dataSize;
  uint32_t dataPosition;
  uint32_t handleFlags;
} TEE_ObjectInfo;

/* Creates a persistent data object in the TA's private storage and opens it
 * with `flags`. Without TEE_DATA_FLAG_OVERWRITE an existing object gives
 * TEE_ERROR_ACCESS_CONFLICT. `attributes` must be TEE_HANDLE_NULL. Passing
 * NULL for `object` closes the object after creation. The object appears
 * atomically, with its initial data, or not at all. */
TEE_Result TEE_CreatePersistentObject(uint32_t storageID, const void* objectID,
                                      uint32_t objectIDLen, uint32_t flags,
                                      TEE_ObjectHandle attributes, const void* initialData,
                                      uint32_t initialDataLen, TEE_ObjectHandle* object);
/* Opens an existing object. Returns TEE_ERROR_ITEM_NOT_FOUND,
 * TEE_ERROR_ACCESS_CONFLICT, TEE_ERROR_CORRUPT_OBJECT (a tampered or broken
 * file) or TEE_ERROR_STORAGE_NOT_AVAILABLE (a passing I/O failure). */
TEE_Result TEE_OpenPersistentObject(uint32_t storageID, const void* objectID,
                                    uint32_t objectIDLen, uint32_t flags,
                                    TEE_ObjectHandle* object);
/* Reads up to `size` bytes at the data position; *count receives the number
 * read (0 at the end). */
TEE_Result TEE_ReadObjectData(TEE_ObjectHandle object, void* buffer, uint32_t size,
                              uint32_t* count);
/* Writes at the data position; the change is durable when the call returns. */
TEE_Result TEE_WriteObjectData(TEE_ObjectHandle object, const void* buffer, uint32_t size);
/* Sets the data size, zero-filling when growing; durable on return. */
TEE_Result TEE_TruncateObjectData(TEE_ObjectHandle object, uint32_t size);
/* Moves the data position. TEE_ERROR_OVERFLOW past TEE_DATA_MAX_POSITION. */
TEE_Result TEE_SeekObjectData(TEE_ObjectHandle object, int32_t offset, TEE_Whence whence);
/* Renames an object opened with TEE_DATA_FLAG_ACCESS_WRITE_META;
 * TEE_ERROR_ACCESS_CONFLICT when the new name exists. */
TEE_Result TEE_RenamePersistentObject(TEE_ObjectHandle object, const void* newObjectID,
                                      uint32_t newObjectIDLen);
/* Deletes an object opened with TEE_DATA_FLAG_ACCESS_WRITE_META and closes
 * the handle, also on failure. */
TEE_Result TEE_CloseAndDeletePersistentObject1(TEE_ObjectHandle object);
/* Fills `objectInfo` (data size and position among others). */
TEE_Result TEE_GetObjectInfo1(TEE_ObjectHandle object, TEE_ObjectInfo* objectInfo);
/* Closes a handle; accepts TEE_HANDLE_NULL. */
void TEE_CloseObject(TEE_ObjectHandle object);

#ifdef __cplusplus
}
#endif

#endif /* TEE_INTERNAL_API_H */
