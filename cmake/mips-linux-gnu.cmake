# Cross build for mips-linux-gnu with Debian's cross compiler (g++-mips-linux-gnu):
#   cmake -S . -B build-mips-linux-gnu -DCMAKE_TOOLCHAIN_FILE=cmake/mips-linux-gnu.cmake
# GoogleTest is then built from /usr/src/googletest (libgtest-dev).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Unit tests run under qemu-user with the cross sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L /usr/mips-linux-gnu)
