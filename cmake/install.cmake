# Install rules and the Debian package (cpack -G DEB). Configure with
# -DCMAKE_INSTALL_PREFIX=/usr for a package: the environment file and the
# init script then go to /etc, the unit to /usr/lib/systemd/system.
include(GNUInstallDirs)
set(CFMD_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})
set(CFMD_DIST ${CMAKE_SOURCE_DIR}/dist)
configure_file(${CFMD_DIST}/cfmd.service.in ${CMAKE_BINARY_DIR}/dist/cfmd.service @ONLY)
configure_file(${CFMD_DIST}/cfmd.init.in ${CMAKE_BINARY_DIR}/dist/cfmd.init @ONLY)

install(TARGETS cfmd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS cfmctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CFMD_DIST}/cfmd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CFMD_DIST}/cfmctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CFMD_DIST}/cfmctl.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME cfmctl)
install(FILES ${CMAKE_BINARY_DIR}/dist/cfmd.service DESTINATION lib/systemd/system)
install(PROGRAMS ${CMAKE_BINARY_DIR}/dist/cfmd.init DESTINATION ${CFMD_SYSCONFDIR}/init.d RENAME cfmd)
install(FILES ${CFMD_DIST}/cfmd.default DESTINATION ${CFMD_SYSCONFDIR}/default RENAME cfmd)

set(CPACK_PACKAGE_NAME cfmd)
set(CPACK_PACKAGE_VERSION 1.0.0)
set(CPACK_PACKAGE_CONTACT "cfmd maintainers <cfmd@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Connectivity Fault Management daemon for a router's WAN interface")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# cfmctl keeps the shared C++ library; cfmd needs it only without CFMD_SMALL.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
if(CMAKE_CROSSCOMPILING)
  string(REGEX REPLACE "^arm$" "armhf" CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
endif()
include(CPack)
