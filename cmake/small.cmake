# Router build (-DCFMD_SMALL=ON): code optimised for size, every function and
# object in its own section so the linker drops what nothing uses, and cfmd
# linked with libstdc++ and libgcc statically (the router needs only its C
# library) and stripped. src/core/small_runtime.cc replaces the library's
# throwing paths, so the static runtime does not bring in the unwinder.
# cfmctl gets the size flags but keeps the shared C++ library.
if(CFMD_SMALL)
  target_compile_options(cfm PRIVATE -Os -ffunction-sections -fdata-sections -fno-exceptions)
  foreach(target cfmd cfmctl)
    target_compile_options(${target} PRIVATE -Os -ffunction-sections -fdata-sections -fno-exceptions)
    target_link_options(${target} PRIVATE -Wl,--gc-sections -s)
  endforeach()
  target_sources(cfmd PRIVATE ${CMAKE_SOURCE_DIR}/src/core/small_runtime.cc)
  target_link_options(cfmd PRIVATE -static-libstdc++ -static-libgcc)
endif()
