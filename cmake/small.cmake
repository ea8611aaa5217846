# Router build (-DCFMD_SMALL=ON): code optimised for size, every function and
# object in its own section so the linker drops what nothing uses, and cfmd
# linked with libstdc++ and libgcc statically (the router needs only its C
# library) and stripped. src/core/small_runtime.cc replaces the library's
# throwing paths, so the static runtime does not bring in the unwinder.
# cfmctl is linked the same way, so the package needs nothing but libc; it
# keeps the library's own throwing paths (std::filesystem reports through them).
if(CFMD_SMALL)
  target_compile_options(cfm PRIVATE -Os -ffunction-sections -fdata-sections -fno-exceptions)
  foreach(target cfmd cfmctl)
    target_compile_options(${target} PRIVATE -Os -ffunction-sections -fdata-sections -fno-exceptions)
    target_link_options(${target} PRIVATE -Wl,--gc-sections -s)
  endforeach()
  target_sources(cfmd PRIVATE ${CMAKE_SOURCE_DIR}/src/core/small_runtime.cc)
  foreach(target cfmd cfmctl)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endforeach()
endif()
