# Device world: the platform's own libraries and headers come from the target
# sysroot (CMAKE_SYSROOT / CMAKE_PREFIX_PATH). Each stand-in target of the
# host build gets an imported twin with the same name, plus the header-only
# <name>_api twin, so nothing under CA/ changes between worlds.
#
# libteec is looked up through pkg-config first (the packaged GP TEE Client
# library ships libteec.pc), then by name; the closed platform libraries by
# name and header.
pkg_check_modules(TESSERA_DEVICE_TEEC QUIET IMPORTED_TARGET libteec)

function(tessera_device_lib target lib header)
  find_library(TESSERA_DEVICE_${target}_LIBRARY NAMES ${lib} REQUIRED)
  find_path(TESSERA_DEVICE_${target}_INCLUDE ${header} REQUIRED)
  add_library(${target}_api INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target}_api PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${TESSERA_DEVICE_${target}_INCLUDE}")
  add_library(${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${TESSERA_DEVICE_${target}_LIBRARY}"
    INTERFACE_LINK_LIBRARIES ${target}_api)
endfunction()

if(TARGET PkgConfig::TESSERA_DEVICE_TEEC)
  add_library(teec_api INTERFACE IMPORTED GLOBAL)
  set_target_properties(teec_api PROPERTIES INTERFACE_INCLUDE_DIRECTORIES
    "${TESSERA_DEVICE_TEEC_INCLUDE_DIRS}")
  add_library(teec INTERFACE IMPORTED GLOBAL)
  set_target_properties(teec PROPERTIES INTERFACE_LINK_LIBRARIES
    "PkgConfig::TESSERA_DEVICE_TEEC;teec_api")
else()
  tessera_device_lib(teec teec tee_client_api.h)
endif()
tessera_device_lib(tzfr tzfr_utility_nwd CTzfrWsm.h)
tessera_device_lib(securestorage securestorage-client securestorage.h)
tessera_device_lib(dlog dlog dlog.h)
