# 64-bit ARM (arm64) with Debian's cross compilers and the arm64 multiarch
# packages; programs run under qemu-user. Used by the arm64 and device presets.
set(TESSERA_CROSS_TRIPLET aarch64-linux-gnu)
set(TESSERA_CROSS_PROCESSOR aarch64)
set(TESSERA_CROSS_QEMU /usr/bin/qemu-aarch64-static)
set(TESSERA_SYSROOT "" CACHE PATH "Sysroot of the target's libraries (empty: multiarch packages)")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
