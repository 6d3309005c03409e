# Shared part of the cross toolchain files: Debian's cross compilers for
# TESSERA_CROSS_TRIPLET, the target's libraries either installed as multiarch
# packages (dpkg --add-architecture, libraries in /usr/lib/<triplet>) or
# extracted into a sysroot folder (TESSERA_SYSROOT), and qemu-user to run
# what was built (tests, and build-time tools through
# CMAKE_CROSSCOMPILING_EMULATOR).
#
# The including file sets TESSERA_CROSS_TRIPLET, TESSERA_CROSS_PROCESSOR and
# TESSERA_CROSS_QEMU, and TESSERA_SYSROOT when its libraries live in a sysroot
# (an empty TESSERA_SYSROOT means multiarch packages on this machine).
# scripts/install-deps.sh installs all of it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${TESSERA_CROSS_PROCESSOR})
set(CMAKE_LIBRARY_ARCHITECTURE ${TESSERA_CROSS_TRIPLET})

set(CMAKE_C_COMPILER ${TESSERA_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TESSERA_CROSS_TRIPLET}-g++)

# try_compile projects re-read this file; they must see the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TESSERA_SYSROOT)

if(TESSERA_SYSROOT)
  if(NOT EXISTS "${TESSERA_SYSROOT}/usr/lib/${TESSERA_CROSS_TRIPLET}")
    message(FATAL_ERROR "No ${TESSERA_CROSS_TRIPLET} libraries in the sysroot ${TESSERA_SYSROOT} "
                        "(scripts/install-deps.sh makes it)")
  endif()
  set(CMAKE_SYSROOT "${TESSERA_SYSROOT}")
  # Only the sysroot holds the target's headers and libraries: never fall
  # back to the build machine's own.
  set(CMAKE_FIND_ROOT_PATH "${TESSERA_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TESSERA_SYSROOT}")
  set(_tessera_root "${TESSERA_SYSROOT}")
  # qemu's dynamic loader, libc and every library come from the sysroot.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TESSERA_CROSS_QEMU} -L ${TESSERA_SYSROOT})
else()
  # Multiarch: the target's libraries sit beside the build machine's in
  # /usr/lib/<triplet>, which CMAKE_LIBRARY_ARCHITECTURE makes every find_*
  # search (and the build machine's /usr/lib/<its triplet> not).
  unset(ENV{PKG_CONFIG_SYSROOT_DIR})
  set(_tessera_root "")
  # libc6:<arch> puts the target's dynamic loader where its programs look
  # for it, so qemu needs no prefix.
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TESSERA_CROSS_QEMU})
endif()

# pkg-config reads the target's .pc files only.
set(ENV{PKG_CONFIG_LIBDIR}
    "${_tessera_root}/usr/lib/${TESSERA_CROSS_TRIPLET}/pkgconfig:${_tessera_root}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
unset(_tessera_root)
