# 32-bit ARM (armhf: ARMv7, hard float; 32-bit size_t, long and time_t) with
# Debian's cross compilers; programs run under qemu-user.
#
# The armhf libraries come from a sysroot that scripts/install-deps.sh
# extracts from Debian's armhf packages rather than from multiarch packages:
# a multiarch package must have one version across architectures, and where
# the security archive's armhf index cannot be fetched (as on this project's
# machines) the build machine's newer OpenSSL has no armhf twin. Give
# -DTESSERA_SYSROOT= (empty) to use multiarch armhf packages instead.
set(TESSERA_CROSS_TRIPLET arm-linux-gnueabihf)
set(TESSERA_CROSS_PROCESSOR arm)
set(TESSERA_CROSS_QEMU /usr/bin/qemu-arm-static)
set(TESSERA_SYSROOT /var/lib/tessera/sysroots/armhf CACHE PATH
    "Sysroot of the target's libraries (empty: multiarch packages)")
# GCC notes on 32-bit ARM that the passing of some arguments changed in GCC
# 7.1; nothing here links code built before it.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
