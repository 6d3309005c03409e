/*
 * How a Trusted Application presents itself to teesim.
 *
 * A TA is a shared object in the TA folder named "<uuid>.ta" (lower-case
 * canonical UUID text). It exports exactly one symbol that teesim looks up
 * after dlopen: the descriptor below, defined with TEESIM_TA_DESCRIPTOR.
 * teesim refuses the file unless the descriptor's ABI version matches and its
 * UUID equals the one in the file name.
 */
#ifndef TEESIM_TA_H
#define TEESIM_TA_H

#include "tee_internal_api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TEESIM_TA_ABI_VERSION 1u

/* One instance serves every session (otherwise one instance per session). */
#define TEESIM_TA_FLAG_SINGLE_INSTANCE 0x00000004u
/* A single instance accepts several sessions at once (otherwise a second
 * open gets TEE_ERROR_BUSY while the first is open). */
#define TEESIM_TA_FLAG_MULTI_SESSION   0x00000008u
/* A single instance stays alive when its last session closes. */
#define TEESIM_TA_FLAG_KEEP_ALIVE      0x00000010u

struct teesim_ta_descriptor {
  uint32_t abi_version; /* TEESIM_TA_ABI_VERSION */
  TEE_UUID uuid;
  const char* name;     /* short name used in the daemon's log */
  uint32_t flags;       /* TEESIM_TA_FLAG_* */
  TEE_Result (*create)(void);
  void (*destroy)(void);
  TEE_Result (*open_session)(uint32_t paramTypes, TEE_Param params[4], void** sessionContext);
  void (*close_session)(void* sessionContext);
  TEE_Result (*invoke_command)(void* sessionContext, uint32_t commandID, uint32_t paramTypes,
                               TEE_Param params[4]);
};

#define TEESIM_TA_DESCRIPTOR_SYMBOL "teesim_ta_descriptor"

/* Defines the descriptor of a TA whose entry points are the standard
 * TA_*EntryPoint functions. Use once, at file scope, in one source file. The
 * UUID comes last, as a brace initializer of TEE_UUID:
 *   TEESIM_TA_DESCRIPTOR("echo", TEESIM_TA_FLAG_MULTI_SESSION,
 *                        {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}}); */
#define TEESIM_TA_DESCRIPTOR(ta_name, ta_flags, ...)                                     \
  TEESIM_TA_EXTERN_C __attribute__((visibility("default")))                              \
  const struct teesim_ta_descriptor teesim_ta_descriptor = {                             \
      TEESIM_TA_ABI_VERSION, __VA_ARGS__, ta_name, ta_flags,                             \
      TA_CreateEntryPoint, TA_DestroyEntryPoint, TA_OpenSessionEntryPoint,              \
      TA_CloseSessionEntryPoint, TA_InvokeCommandEntryPoint}

#ifdef __cplusplus
#define TEESIM_TA_EXTERN_C extern "C"
}
#else
#define TEESIM_TA_EXTERN_C
#endif

#endif /* TEESIM_TA_H */
