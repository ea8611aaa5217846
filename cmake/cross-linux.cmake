# Shared part of the cross toolchain files: Debian's cross compiler for
# CFMD_CROSS_TRIPLE, its sysroot /usr/<triple>, and qemu-<CFMD_CROSS_QEMU>
# to run the unit tests. GoogleTest is then built from /usr/src/googletest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${CFMD_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${CFMD_CROSS_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${CFMD_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CFMD_CROSS_QEMU} -L /usr/${CFMD_CROSS_TRIPLE})
