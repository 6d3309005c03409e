/*
 * GlobalPlatform TEE Client API v1.0: types, constants and functions.
 *
 * This is the one header through which a client application reaches a
 * Trusted Application. The public fields of every structure are those of the
 * GlobalPlatform standard; the `imp` members belong to the library and
 * must not be touched by applications.
 *
 * Conventions of every function below:
 *  - Pointers are borrowed for the duration of the call unless stated.
 *  - A function that takes a `uint32_t* returnOrigin` writes one of the
 *    TEEC_ORIGIN_* codes to it when it is non-null, on success and on failure.
 *  - Results are TEEC_SUCCESS or one of the TEEC_ERROR_* codes below.
 */
#ifndef TEE_CLIENT_API_H
#define TEE_CLIENT_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Configuration -------------------------------------------------- */

/* Largest shared memory block that TEEC_AllocateSharedMemory and
 * TEEC_RegisterSharedMemory accept, in bytes. */
#define TEEC_CONFIG_SHAREDMEM_MAX_SIZE (64u * 1024u * 1024u)

/* ---- Result codes ---------------------------------------------------- */

typedef uint32_t TEEC_Result;

#define TEEC_SUCCESS                0x00000000u
#define TEEC_ERROR_GENERIC          0xFFFF0000u
#define TEEC_ERROR_ACCESS_DENIED    0xFFFF0001u
#define TEEC_ERROR_CANCEL           0xFFFF0002u
#define TEEC_ERROR_ACCESS_CONFLICT  0xFFFF0003u
#define TEEC_ERROR_EXCESS_DATA      0xFFFF0004u
#define TEEC_ERROR_BAD_FORMAT       0xFFFF0005u
#define TEEC_ERROR_BAD_PARAMETERS   0xFFFF0006u
#define TEEC_ERROR_BAD_STATE        0xFFFF0007u
#define TEEC_ERROR_ITEM_NOT_FOUND   0xFFFF0008u
#define TEEC_ERROR_NOT_IMPLEMENTED  0xFFFF0009u
#define TEEC_ERROR_NOT_SUPPORTED    0xFFFF000Au
#define TEEC_ERROR_NO_DATA          0xFFFF000Bu
#define TEEC_ERROR_OUT_OF_MEMORY    0xFFFF000Cu
#define TEEC_ERROR_BUSY             0xFFFF000Du
#define TEEC_ERROR_COMMUNICATION    0xFFFF000Eu
#define TEEC_ERROR_SECURITY         0xFFFF000Fu
#define TEEC_ERROR_SHORT_BUFFER     0xFFFF0010u
#define TEEC_ERROR_TARGET_DEAD      0xFFFF3024u

/* ---- Origin codes: which layer produced a result --------------------- */

#define TEEC_ORIGIN_API          0x00000001u /* the client library itself */
#define TEEC_ORIGIN_COMMS        0x00000002u /* the link to the TEE */
#define TEEC_ORIGIN_TEE          0x00000003u /* the TEE outside any TA */
#define TEEC_ORIGIN_TRUSTED_APP  0x00000004u /* the Trusted Application */

/* ---- Shared memory flags --------------------------------------------- */

#define TEEC_MEM_INPUT   0x00000001u /* client to TA */
#define TEEC_MEM_OUTPUT  0x00000002u /* TA to client */

/* ---- Parameter types ------------------------------------------------- */

#define TEEC_NONE                   0x00000000u
#define TEEC_VALUE_INPUT            0x00000001u
#define TEEC_VALUE_OUTPUT           0x00000002u
#define TEEC_VALUE_INOUT            0x00000003u
#define TEEC_MEMREF_TEMP_INPUT      0x00000005u
#define TEEC_MEMREF_TEMP_OUTPUT     0x00000006u
#define TEEC_MEMREF_TEMP_INOUT      0x00000007u
#define TEEC_MEMREF_WHOLE           0x0000000Cu
#define TEEC_MEMREF_PARTIAL_INPUT   0x0000000Du
#define TEEC_MEMREF_PARTIAL_OUTPUT  0x0000000Eu
#define TEEC_MEMREF_PARTIAL_INOUT   0x0000000Fu

/* Packs the four parameter types of an operation into one word. */
#define TEEC_PARAM_TYPES(p0, p1, p2, p3) \
  ((uint32_t)(p0) | ((uint32_t)(p1) << 4) | ((uint32_t)(p2) << 8) | ((uint32_t)(p3) << 12))

/* Extracts the type of parameter i (0..3) from a packed word. */
#define TEEC_PARAM_TYPE_GET(t, i) (((uint32_t)(t) >> ((i) * 4)) & 0xFu)

/* ---- Login methods --------------------------------------------------- */

#define TEEC_LOGIN_PUBLIC             0x00000000u
#define TEEC_LOGIN_USER               0x00000001u
#define TEEC_LOGIN_GROUP              0x00000002u
#define TEEC_LOGIN_APPLICATION        0x00000004u
#define TEEC_LOGIN_USER_APPLICATION   0x00000005u
#define TEEC_LOGIN_GROUP_APPLICATION  0x00000006u

/* ---- Types ------------------------------------------------------------ */

/* RFC 4122 UUID of a Trusted Application, fields in host byte order. */
typedef struct {
  uint32_t timeLow;
  uint16_t timeMid;
  uint16_t timeHiAndVersion;
  uint8_t clockSeqAndNode[8];
} TEEC_UUID;

/* A connection to a TEE. Filled by TEEC_InitializeContext. */
typedef struct {
  void* imp;
} TEEC_Context;

/* A session with a Trusted Application. Filled by TEEC_OpenSession. */
typedef struct {
  void* imp;
} TEEC_Session;

/* A block of memory shared with the TEE. The application sets `size` and
 * `flags` (and `buffer` when registering); TEEC_AllocateSharedMemory sets
 * `buffer`. */
typedef struct {
  void* buffer;
  size_t size;
  uint32_t flags;
  void* imp;
} TEEC_SharedMemory;

/* A temporary memory reference: the buffer is shared for one operation. */
typedef struct {
  void* buffer;
  size_t size;
} TEEC_TempMemoryReference;

/* A reference to (part of) a registered or allocated shared memory block.
 * For TEEC_MEMREF_WHOLE, `offset` and `size` are ignored on input. */
typedef struct {
  TEEC_SharedMemory* parent;
  size_t size;
  size_t offset;
} TEEC_RegisteredMemoryReference;

/* Two 32-bit values passed by value. */
typedef struct {
  uint32_t a;
  uint32_t b;
} TEEC_Value;

typedef union {
  TEEC_TempMemoryReference tmpref;
  TEEC_RegisteredMemoryReference memref;
  TEEC_Value value;
} TEEC_Parameter;

/* The payload of an open-session or invoke-command call. Set `started` to 0
 * before the call if the operation may be cancelled. */
typedef struct {
  uint32_t started;
  uint32_t paramTypes;
  TEEC_Parameter params[4];
  void* imp;
} TEEC_Operation;

/* ---- Functions -------------------------------------------------------- */

/* Connects to a TEE.
 * Returns TEEC_SUCCESS, or an error when no TEE of that name can be reached
 * (the reason is written to the platform log).
 * In: name, the TEE to connect to, or NULL for the default TEE.
 * Out: context, which the caller later passes to TEEC_FinalizeContext. */
TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context);

/* Ends a connection. Every session and shared memory block of the context
 * must have been closed or released first. Accepts NULL (no effect). */
void TEEC_FinalizeContext(TEEC_Context* context);

/* Registers client memory for use in operations. The block's bytes are
 * carried to the TA and back by copy at each operation that names it.
 * In: context; sharedMem->buffer (non-NULL unless size is 0), ->size,
 *     ->flags (a non-empty combination of TEEC_MEM_INPUT and TEEC_MEM_OUTPUT).
 * Returns TEEC_ERROR_BAD_PARAMETERS for bad arguments. */
TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem);

/* Allocates memory that the client and the TEE both map.
 * In: context; sharedMem->size and ->flags.
 * Out: sharedMem->buffer, owned by the library until
 *      TEEC_ReleaseSharedMemory.
 * Returns TEEC_ERROR_OUT_OF_MEMORY when the block cannot be made. */
TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem);

/* Releases a registered or allocated block; `buffer` of an allocated block is
 * set to NULL and must not be used any more. Accepts NULL (no effect). */
void TEEC_ReleaseSharedMemory(TEEC_SharedMemory* sharedMem);

/* Opens a session with the Trusted Application `destination`.
 * In: context; destination; connectionMethod (a TEEC_LOGIN_* code);
 *     connectionData (NULL for TEEC_LOGIN_PUBLIC); operation (may be NULL).
 * Out: session; returnOrigin (may be NULL).
 * Returns TEEC_ERROR_ITEM_NOT_FOUND when no such TA is installed,
 * TEEC_ERROR_BUSY when a single-session TA is already in use, or the TA's
 * own result with origin TEEC_ORIGIN_TRUSTED_APP. */
TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connectionMethod,
                             const void* connectionData, TEEC_Operation* operation,
                             uint32_t* returnOrigin);

/* Closes a session. Accepts NULL (no effect). */
void TEEC_CloseSession(TEEC_Session* session);

/* Runs command `commandID` of the session's TA with the operation's
 * parameters. Output values and memory references are updated on return;
 * for TEEC_ERROR_SHORT_BUFFER the `size` of an output memory reference holds
 * the size that the TA needs.
 * Returns TEEC_ERROR_TARGET_DEAD when the TA died, TEEC_ERROR_COMMUNICATION
 * (origin TEEC_ORIGIN_COMMS) when the TEE cannot be reached, or the TA's own
 * result with origin TEEC_ORIGIN_TRUSTED_APP. */
TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t commandID,
                               TEEC_Operation* operation, uint32_t* returnOrigin);

/* Asks the TEE to cancel a pending TEEC_OpenSession or TEEC_InvokeCommand
 * that uses `operation`. Best effort: the call may complete normally. */
void TEEC_RequestCancellation(TEEC_Operation* operation);

#ifdef __cplusplus
}
#endif

#endif /* TEE_CLIENT_API_H */
