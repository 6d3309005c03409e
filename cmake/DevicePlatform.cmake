# Device world: the platform's own libraries and headers come from the target
# sysroot. Each stand-in target of the host build gets an imported twin with
# the same name, so nothing under CA/ changes between worlds.
foreach(lib teec tzfr_utility_nwd securestorage-client dlog)
  find_library(TESSERA_DEVICE_${lib} NAMES ${lib} REQUIRED)
endforeach()
find_path(TESSERA_DEVICE_INCLUDE tee_client_api.h REQUIRED)

function(tessera_device_lib target lib)
  add_library(${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${TESSERA_DEVICE_${lib}}"
    INTERFACE_INCLUDE_DIRECTORIES "${TESSERA_DEVICE_INCLUDE}")
endfunction()
tessera_device_lib(teec teec)
tessera_device_lib(tzfr tzfr_utility_nwd)
tessera_device_lib(securestorage securestorage-client)
tessera_device_lib(dlog dlog)
