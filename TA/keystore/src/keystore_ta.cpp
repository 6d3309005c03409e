/* The keystore TA's entry points: one Keystore per TA instance, shared by
 * every session (single instance, multi-session, kept alive). */
#include <memory>

#include "Keystore.h"
#include "keystore_ta.h"
#include "teesim_ta.h"

namespace {

std::unique_ptr<keystore::Keystore>& Instance() {
  static std::unique_ptr<keystore::Keystore> instance;
  return instance;
}

constexpr uint32_t kNoParams =
    TEE_PARAM_TYPES(TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE);

}  // namespace

extern "C" {

TEE_Result TA_CreateEntryPoint(void) { return keystore::Keystore::Create(&Instance()); }

void TA_DestroyEntryPoint(void) { Instance().reset(); }  // wipes every cached secret

TEE_Result TA_OpenSessionEntryPoint(uint32_t paramTypes, TEE_Param[4], void** sessionContext) {
  if (paramTypes != kNoParams) return TEE_ERROR_BAD_PARAMETERS;
  if (sessionContext != nullptr) *sessionContext = nullptr;
  return Instance() ? TEE_SUCCESS : TEE_ERROR_BAD_STATE;
}

void TA_CloseSessionEntryPoint(void*) {}

TEE_Result TA_InvokeCommandEntryPoint(void*, uint32_t commandID, uint32_t paramTypes,
                                      TEE_Param params[4]) {
  if (!Instance()) return TEE_ERROR_BAD_STATE;
  return Instance()->Invoke(commandID, paramTypes, params);
}

}  // extern "C"

TEESIM_TA_DESCRIPTOR("keystore",
                     TEESIM_TA_FLAG_SINGLE_INSTANCE | TEESIM_TA_FLAG_MULTI_SESSION |
                         TEESIM_TA_FLAG_KEEP_ALIVE,
                     KEYSTORE_TA_UUID);
