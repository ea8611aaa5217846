# Cross build for big-endian MIPS with Debian's g++-mips-linux-gnu:
#   cmake -S . -B build-mips-linux-gnu -DCMAKE_TOOLCHAIN_FILE=cmake/mips-linux-gnu.cmake
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CFMD_CROSS_TRIPLE mips-linux-gnu)
set(CFMD_CROSS_QEMU mips)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
