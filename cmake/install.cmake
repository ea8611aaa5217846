# Install rules and the Debian package (cpack -G DEB). Configure with
# -DCMAKE_INSTALL_PREFIX=/usr for a package: the environment file, the init
# script and the logrotate file then go to /etc, the unit to
# /usr/lib/systemd/system.
include(GNUInstallDirs)
set(CFMD_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})
set(CFMD_DIST ${CMAKE_SOURCE_DIR}/dist)
set(CFMD_STAGE ${CMAKE_BINARY_DIR}/dist)
set(CFMD_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/cfmd)
configure_file(${CFMD_DIST}/cfmd.service.in ${CFMD_STAGE}/cfmd.service @ONLY)
configure_file(${CFMD_DIST}/cfmd.init.in ${CFMD_STAGE}/cfmd.init @ONLY)

# Man pages and the changelog are installed gzipped (-9, no name or time
# stamp, so the package is reproducible).
set(CFMD_GZIPPED)
foreach(src cfmd.8 cfmctl.1 debian/changelog)
  get_filename_component(name ${src} NAME)
  add_custom_command(OUTPUT ${CFMD_STAGE}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${CFMD_DIST}/${src} ${CFMD_STAGE}/${name}
    COMMAND gzip -9nf ${CFMD_STAGE}/${name}
    DEPENDS ${CFMD_DIST}/${src} VERBATIM)
  list(APPEND CFMD_GZIPPED ${CFMD_STAGE}/${name}.gz)
endforeach()
add_custom_target(cfmd_dist_files ALL DEPENDS ${CFMD_GZIPPED})

install(TARGETS cfmd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS cfmctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CFMD_STAGE}/cfmd.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CFMD_STAGE}/cfmctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CFMD_DIST}/debian/copyright DESTINATION ${CFMD_DOCDIR})
install(FILES ${CFMD_STAGE}/changelog.gz DESTINATION ${CFMD_DOCDIR} RENAME changelog.Debian.gz)
# The JSON Schemas of cfmctl's JSON outputs (status, export, ...).
file(GLOB CFMD_JSON_SCHEMAS CONFIGURE_DEPENDS ${CFMD_DIST}/json/*.schema.json)
install(FILES ${CFMD_JSON_SCHEMAS} DESTINATION ${CFMD_DOCDIR})
# The example notify program (cfmd -n): DHCP renewal when continuity returns.
install(PROGRAMS ${CFMD_DIST}/notify-dhcp-renew DESTINATION ${CMAKE_INSTALL_DATADIR}/cfmd)
install(FILES ${CFMD_DIST}/cfmctl.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME cfmctl)
install(FILES ${CFMD_STAGE}/cfmd.service DESTINATION lib/systemd/system)
install(PROGRAMS ${CFMD_STAGE}/cfmd.init DESTINATION ${CFMD_SYSCONFDIR}/init.d RENAME cfmd)
install(FILES ${CFMD_DIST}/cfmd.default DESTINATION ${CFMD_SYSCONFDIR}/default RENAME cfmd)
install(FILES ${CFMD_DIST}/cfmd.logrotate DESTINATION ${CFMD_SYSCONFDIR}/logrotate.d RENAME cfmd)
# The configuration cfmctl applies at start (every line an example, commented)
# and the directory of further files.
install(FILES ${CFMD_DIST}/cfmd.conf DESTINATION ${CFMD_SYSCONFDIR}/cfmd)
install(DIRECTORY DESTINATION ${CFMD_SYSCONFDIR}/cfmd/cfmd.d)

set(CPACK_PACKAGE_NAME cfmd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# The Debian revision; dist/debian/changelog names the same version.
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGE_CONTACT "cfmd developers <cfmd-dev@lists.cfmd.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Connectivity Fault Management daemon for a router's WAN interface")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "cfmd implements IEEE 802.1ag Connectivity Fault Management (Ethernet OAM)
on the WAN interface of a small router. It keeps maintenance domains,
maintenance associations, MEPs and MIPs; its MEPs send continuity check
messages and learn remote MEPs and their defects; it answers loopback
messages and runs loopback and linktrace tests of its own.
.
Front ends drive it through the command socket /var/cfm_socket; cfmctl
sends one request from the shell and reads exported results back from the
configuration tree. The service waits for the WAN interface, logs to the
journal (or /var/log/cfmd.log under the init script) and needs only the
C library.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://cfmd.org/")
# Depends from the binaries' needs (dpkg-shlibdeps); a cross build has no
# shlibs information for its target, and the router build needs libc only.
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6")
  string(REGEX REPLACE "^arm$" "armhf" CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
# Every file in /etc is a conffile: dpkg keeps an operator's edits.
file(WRITE ${CFMD_STAGE}/debian/conffiles
  "${CFMD_SYSCONFDIR}/cfmd/cfmd.conf\n${CFMD_SYSCONFDIR}/default/cfmd\n${CFMD_SYSCONFDIR}/init.d/cfmd\n"
  "${CFMD_SYSCONFDIR}/logrotate.d/cfmd\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CFMD_STAGE}/debian/conffiles ${CFMD_DIST}/debian/postinst ${CFMD_DIST}/debian/prerm
  ${CFMD_DIST}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
