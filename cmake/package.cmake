# One Debian package with the daemon, the client, the shipped plug-ins, the
# configuration, the service, the manual pages and the plug-in SDK. Made by
# scripts/package from a build configured with CMAKE_INSTALL_PREFIX=/usr and
# CMAKE_INSTALL_SYSCONFDIR=/etc (the host's, and the cross build's for arm64).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vireo-monitor)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "vireo-monitor developers <vireo-monitor@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "process and system status for remote clients over ZeroMQ")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"process and system status for remote clients over ZeroMQ
 vireo-monitor answers binary request frames from clients on the network
 with the contents of files such as those under /proc, or with the result
 of a function in a plug-in library, as its JSON configuration declares.
 This package holds the daemon, its systemd service, the vireo-client
 command-line client, the probe plug-in (threads and callstacks of a
 process) and the headers and CMake package for writing plug-ins.")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The configuration is installed to an absolute /etc: stage through DESTDIR.
set(CPACK_SET_DESTDIR ON)
# Depends from the libraries the programs and plug-ins link.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

if(CMAKE_CROSSCOMPILING)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  else()
    message(WARNING "no Debian architecture known for ${CMAKE_SYSTEM_PROCESSOR}")
  endif()
else()
  find_program(VIREO_DPKG dpkg)
  if(VIREO_DPKG)
    execute_process(COMMAND ${VIREO_DPKG} --print-architecture
                    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
endif()

# Every file under /etc/vireo-monitor is a conffile: an upgrade keeps the
# administrator's edits.
if(IS_ABSOLUTE "${CMAKE_INSTALL_SYSCONFDIR}")
  set(vireo_etc "${CMAKE_INSTALL_SYSCONFDIR}/vireo-monitor")
else()
  set(vireo_etc "${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_SYSCONFDIR}/vireo-monitor")
endif()
set(vireo_conffiles "")
set(vireo_etc_files main.json system.json process.json probe.json
    sample/main.json sample/files-only.json sample/system.json sample/probe.json)
foreach(f ${vireo_etc_files})
  string(APPEND vireo_conffiles "${vireo_etc}/${f}\n")
endforeach()
file(WRITE ${CMAKE_BINARY_DIR}/packaging/deb/conffiles "${vireo_conffiles}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
