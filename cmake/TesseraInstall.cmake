# What `cmake --install` puts where: the product only (the console and the
# checker, the platform stand-ins they link, the teesim daemon, its TA host,
# the keystore TA, the simulator's client library and its header), never a
# test program. The Debian packages (debian/) are cut from this tree.
#
# Included at the end of the top-level CMakeLists, so every target exists;
# each rule is guarded, since the device world builds no simulator and the
# checker may be absent.
#
# A private library folder keeps the host stand-ins off the system's library
# path: the console's platform libraries in <libdir>/tessera, and libteec in
# <libdir>/tessera/teesim, so that it can never be taken for, or replace, the
# system's own TEE client library of the same name. The programs reach them
# through their run path.
include(GNUInstallDirs)

set(TESSERA_INSTALL_PRIVATE_LIBDIR "${CMAKE_INSTALL_LIBDIR}/tessera")
set(TESSERA_INSTALL_CLIENT_LIBDIR "${CMAKE_INSTALL_LIBDIR}/tessera/teesim")
set(TESSERA_INSTALL_CLIENT_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/teesim")

# ---- The console and the checker ---------------------------------------------------
foreach(program tessera tessera-check)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH
      "${CMAKE_INSTALL_FULL_LIBDIR}/tessera;${CMAKE_INSTALL_FULL_LIBDIR}/tessera/teesim")
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
# (In the device world these are the device's own libraries, imported.)
foreach(library dlog tzfr securestorage)
  if(TARGET ${library} AND NOT TESSERA_WORLD STREQUAL "device")
    install(TARGETS ${library} LIBRARY DESTINATION ${TESSERA_INSTALL_PRIVATE_LIBDIR}
            NAMELINK_SKIP)
  endif()
endforeach()
# The default menu, which the package puts at the console's fixed path only
# when no menu is there.
install(FILES ${PROJECT_SOURCE_DIR}/CA/data/menu.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/tessera)

# ---- The simulator -------------------------------------------------------------------
if(TARGET teesim)
  install(TARGETS teesim RUNTIME DESTINATION ${TEESIM_INSTALL_SBINDIR})
  install(TARGETS teesim_tahost RUNTIME DESTINATION ${TEESIM_INSTALL_HOSTDIR})
endif()
if(TARGET keystore_ta)
  install(TARGETS keystore_ta LIBRARY DESTINATION ${TEESIM_INSTALL_TA_DIR})
  install(FILES ${KEYSTORE_PROPS_FILE} DESTINATION ${TEESIM_INSTALL_TA_DIR})
endif()
if(TARGET teec AND NOT TESSERA_WORLD STREQUAL "device")
  install(TARGETS teec
          LIBRARY DESTINATION ${TESSERA_INSTALL_CLIENT_LIBDIR}
          PUBLIC_HEADER DESTINATION ${TESSERA_INSTALL_CLIENT_INCLUDEDIR})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/teesim-teec.pc.in
                 ${CMAKE_BINARY_DIR}/packaging/teesim-teec.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/teesim-teec.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

# ---- Manual pages, the service unit, and the tests of what is installed --------------
add_subdirectory(${PROJECT_SOURCE_DIR}/packaging ${CMAKE_BINARY_DIR}/packaging)
