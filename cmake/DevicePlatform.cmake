# Device world: the platform's own libraries and headers, found the usual way
# on the target's sysroot (CMAKE_SYSROOT, set by the toolchain from
# TESSERA_SYSROOT) or under CMAKE_PREFIX_PATH. Each stand-in target of the
# host build gets an imported twin with the same name, plus the header-only
# <name>_api twin, so nothing under CA/ changes between worlds:
#
#   target         library                   header
#   teec           libteec                   tee_client_api.h   (GP TEE Client API)
#   tzfr           libtzfr_utility_nwd       CTzfrWsm.h         (message serializer)
#   securestorage  libsecurestorage-client   securestorage.h    (ss_init_credential)
#   dlog           libdlog                   dlog.h             (platform log)
#
# libteec is looked up through pkg-config first (libteec.pc or teec.pc, where
# the platform ships one), then by name like the others. The global property
# TESSERA_DEVICE_LIBRARY_FILES lists the library files found.

# tessera_device_library(<target> <library name> <header> <what it is>)
# Defines <target> (the shared library, bringing its header) and <target>_api
# (the header alone), or stops with what is missing and where it was sought.
function(tessera_device_library target lib header what)
  find_library(TESSERA_DEVICE_${target}_LIBRARY NAMES ${lib})
  find_path(TESSERA_DEVICE_${target}_INCLUDE NAMES ${header})
  if(NOT TESSERA_DEVICE_${target}_LIBRARY OR NOT TESSERA_DEVICE_${target}_INCLUDE)
    message(FATAL_ERROR
      "The device's ${what} was not found (lib${lib}.so: ${TESSERA_DEVICE_${target}_LIBRARY}, "
      "${header}: ${TESSERA_DEVICE_${target}_INCLUDE}). Point CMAKE_PREFIX_PATH at the folder "
      "that holds its lib/ and include/, or TESSERA_SYSROOT at the device's sysroot.")
  endif()
  add_library(${target}_api INTERFACE IMPORTED GLOBAL)
  set_target_properties(${target}_api PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${TESSERA_DEVICE_${target}_INCLUDE}")
  add_library(${target} SHARED IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${TESSERA_DEVICE_${target}_LIBRARY}"
    INTERFACE_LINK_LIBRARIES ${target}_api)
  message(STATUS "Device ${what}: ${TESSERA_DEVICE_${target}_LIBRARY}")
  set_property(GLOBAL APPEND PROPERTY TESSERA_DEVICE_LIBRARY_FILES "${TESSERA_DEVICE_${target}_LIBRARY}")
endfunction()

pkg_search_module(TESSERA_DEVICE_TEEC QUIET IMPORTED_TARGET GLOBAL libteec teec)
if(TARGET PkgConfig::TESSERA_DEVICE_TEEC)
  add_library(teec_api INTERFACE IMPORTED GLOBAL)
  set_target_properties(teec_api PROPERTIES INTERFACE_INCLUDE_DIRECTORIES
    "${TESSERA_DEVICE_TEEC_INCLUDE_DIRS}")
  add_library(teec INTERFACE IMPORTED GLOBAL)
  set_target_properties(teec PROPERTIES INTERFACE_LINK_LIBRARIES
    "PkgConfig::TESSERA_DEVICE_TEEC;teec_api")
  message(STATUS "Device GP TEE Client library: ${TESSERA_DEVICE_TEEC_LINK_LIBRARIES}")
  set_property(GLOBAL APPEND PROPERTY TESSERA_DEVICE_LIBRARY_FILES ${TESSERA_DEVICE_TEEC_LINK_LIBRARIES})
else()
  tessera_device_library(teec teec tee_client_api.h "GP TEE Client library")
endif()
tessera_device_library(tzfr tzfr_utility_nwd CTzfrWsm.h "message serializer library")
tessera_device_library(securestorage securestorage-client securestorage.h "secure-storage client library")
tessera_device_library(dlog dlog dlog.h "platform log library")
