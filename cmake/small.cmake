# Router build (-DCFMD_SMALL=ON): code optimised for size, every function and
# object in its own section so the linker drops what nothing uses, and cfmd
# linked with libstdc++ and libgcc statically (the router needs only its C
# library) and stripped. src/core/small_runtime.cc replaces the library's
# throwing paths, so the static runtime does not bring in the unwinder.
# cfmctl is linked the same way, with the same replacement, so the package
# needs nothing but libc and the client stays small (it reads the tree with
# POSIX calls, not with file streams or std::filesystem).
if(CFMD_SMALL)
  target_compile_options(cfm PRIVATE -Os -ffunction-sections -fdata-sections -fno-exceptions)
  foreach(target cfmd cfmctl)
    target_compile_options(${target} PRIVATE -Os -ffunction-sections -fdata-sections -fno-exceptions)
    target_link_options(${target} PRIVATE -Wl,--gc-sections -s)
  endforeach()
  # cfmctl is one thread: its function-local statics need no guard, whose
  # failure path would bring the exception runtime back.
  target_compile_options(cfmctl PRIVATE -fno-threadsafe-statics)
  foreach(target cfmd cfmctl)
    target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/src/core/small_runtime.cc)
  endforeach()
  foreach(target cfmd cfmctl)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endforeach()
endif()
