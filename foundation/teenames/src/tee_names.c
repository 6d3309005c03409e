/* Names of GP TEE result codes and origins; see tee_names.h. */
#include "tee_names.h"

#include <stddef.h>

struct named_code {
  uint32_t code;
  const char* name;
};

static const struct named_code kResults[] = {
    {0x00000000u, "TEEC_SUCCESS"},
    {0xF0100001u, "TEE_ERROR_CORRUPT_OBJECT"},
    {0xF0100002u, "TEE_ERROR_CORRUPT_OBJECT_2"},
    {0xF0100003u, "TEE_ERROR_STORAGE_NOT_AVAILABLE"},
    {0xF0100004u, "TEE_ERROR_STORAGE_NOT_AVAILABLE_2"},
    {0xFFFF0000u, "TEEC_ERROR_GENERIC"},
    {0xFFFF0001u, "TEEC_ERROR_ACCESS_DENIED"},
    {0xFFFF0002u, "TEEC_ERROR_CANCEL"},
    {0xFFFF0003u, "TEEC_ERROR_ACCESS_CONFLICT"},
    {0xFFFF0004u, "TEEC_ERROR_EXCESS_DATA"},
    {0xFFFF0005u, "TEEC_ERROR_BAD_FORMAT"},
    {0xFFFF0006u, "TEEC_ERROR_BAD_PARAMETERS"},
    {0xFFFF0007u, "TEEC_ERROR_BAD_STATE"},
    {0xFFFF0008u, "TEEC_ERROR_ITEM_NOT_FOUND"},
    {0xFFFF0009u, "TEEC_ERROR_NOT_IMPLEMENTED"},
    {0xFFFF000Au, "TEEC_ERROR_NOT_SUPPORTED"},
    {0xFFFF000Bu, "TEEC_ERROR_NO_DATA"},
    {0xFFFF000Cu, "TEEC_ERROR_OUT_OF_MEMORY"},
    {0xFFFF000Du, "TEEC_ERROR_BUSY"},
    {0xFFFF000Eu, "TEEC_ERROR_COMMUNICATION"},
    {0xFFFF000Fu, "TEEC_ERROR_SECURITY"},
    {0xFFFF0010u, "TEEC_ERROR_SHORT_BUFFER"},
    {0xFFFF0011u, "TEE_ERROR_EXTERNAL_CANCEL"},
    {0xFFFF300Fu, "TEE_ERROR_OVERFLOW"},
    {0xFFFF3024u, "TEEC_ERROR_TARGET_DEAD"},
    {0xFFFF3041u, "TEE_ERROR_STORAGE_NO_SPACE"},
};

const char* tee_result_name(uint32_t result) {
  for (size_t i = 0; i < sizeof kResults / sizeof kResults[0]; ++i) {
    if (kResults[i].code == result) return kResults[i].name;
  }
  return NULL;
}

const char* tee_origin_name(uint32_t origin) {
  switch (origin) {
    case 1: return "TEEC_ORIGIN_API";
    case 2: return "TEEC_ORIGIN_COMMS";
    case 3: return "TEEC_ORIGIN_TEE";
    case 4: return "TEEC_ORIGIN_TRUSTED_APP";
    default: return NULL;
  }
}

const char* tee_origin_text(uint32_t origin) {
  switch (origin) {
    case 1: return "the client API";
    case 2: return "the communication stack";
    case 3: return "the TEE";
    case 4: return "the trusted application";
    default: return NULL;
  }
}
