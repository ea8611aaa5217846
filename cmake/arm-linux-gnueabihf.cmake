# Cross build for ARM hard-float with Debian's g++-arm-linux-gnueabihf:
#   cmake -S . -B build-arm-linux-gnueabihf -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CFMD_CROSS_TRIPLE arm-linux-gnueabihf)
set(CFMD_CROSS_QEMU arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux.cmake)
