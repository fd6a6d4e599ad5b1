# What `cmake --install` and the Debian packages (debian/) put where.
# Included at the end of the top-level CMakeLists.txt, once every target
# exists.
#
# Everything installs under relative destinations, so `--prefix` and DESTDIR
# move it all; a package build sets CMAKE_INSTALL_SYSCONFDIR=/etc to keep the
# configuration out of /usr. The configuration files are written at install
# time, when the final prefix is known, with absolute paths to each other and
# to the plug-ins.
include(CMakePackageConfigHelpers)

option(VIREO_INSTALL_SECURITY
  "Installed main.json answers only the clients in SYSCONFDIR/vireo-monitor/authorized_keys, the service getting its secret key from systemd (the Debian package turns this on)"
  OFF)

# The daemon's private folder: its plug-ins and helper programs, built for
# one architecture, so under the multiarch library folder (lib/<triplet>
# for a /usr prefix). The configuration names the plug-ins by absolute path.
set(VIREO_PKGLIB_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/vireo-monitor)
set(VIREO_PLUGIN_INSTALL_DIR ${VIREO_PKGLIB_INSTALL_DIR}/plugins)
set(VIREO_INCLUDE_INSTALL_DIR ${CMAKE_INSTALL_INCLUDEDIR}/vireo-monitor)
# The SDK names the plug-in folder, which depends on the architecture: its
# CMake package and .pc file go with it under the library folder.
set(VIREO_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/vireo-monitor)
set(VIREO_PKGCONFIG_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# --- programs and the plug-ins we ship --------------------------------------
# The daemon is started by the service manager, not by users: sbin/.
install(TARGETS vireo-monitor RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET vireo-client)
  install(TARGETS vireo-client RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET vireo-exporter)
  install(TARGETS vireo-exporter RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(TARGETS vireo_describe LIBRARY DESTINATION ${VIREO_PLUGIN_INSTALL_DIR})
if(TARGET vireo_probe)
  install(TARGETS vireo_probe LIBRARY DESTINATION ${VIREO_PLUGIN_INSTALL_DIR})
  # The walker is run by the plug-in, never by users: not on PATH. The
  # plug-in finds it by the relative path from its own folder.
  install(TARGETS vireo-walker RUNTIME DESTINATION ${VIREO_PKGLIB_INSTALL_DIR})
  file(RELATIVE_PATH walker_from_plugin ${CMAKE_INSTALL_PREFIX}/${VIREO_PLUGIN_INSTALL_DIR}
       ${CMAKE_INSTALL_PREFIX}/${VIREO_PKGLIB_INSTALL_DIR}/vireo-walker)
  target_compile_definitions(vireo_probe PRIVATE VIREO_WALKER_FROM_PLUGIN="${walker_from_plugin}")
endif()

# Crash reports: the kernel starts the handler (core_pattern, below), the
# daemon loads the plug-in beside the probe.
if(TARGET vireo-crash)
  install(TARGETS vireo-crash RUNTIME DESTINATION ${VIREO_PKGLIB_INSTALL_DIR})
  install(TARGETS vireo_crash LIBRARY DESTINATION ${VIREO_PLUGIN_INSTALL_DIR})
  # Registered as Debian's own core handler is: a sysctl.d file, applied at
  # boot by systemd-sysctl (or procps) in file-name order, where the last
  # file to set core_pattern wins; "50-vireo-crash" sorts after
  # "50-coredump". Relative to the prefix (usr/lib/sysctl.d for a package),
  # so that an install elsewhere never touches the machine's own folder.
  set(VIREO_CRASH_HANDLER ${CMAKE_INSTALL_FULL_LIBDIR}/vireo-monitor/vireo-crash)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/50-vireo-crash.conf.in
                 ${CMAKE_BINARY_DIR}/packaging/50-vireo-crash.conf @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/50-vireo-crash.conf DESTINATION lib/sysctl.d)
  # The store's group and folder (systemd-sysusers and systemd-tmpfiles),
  # which the unit names.
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/vireo-monitor.sysusers DESTINATION lib/sysusers.d
          RENAME vireo-monitor.conf)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/vireo-monitor.tmpfiles DESTINATION lib/tmpfiles.d
          RENAME vireo-monitor.conf)
  set(VIREO_SERVICE_CRASH
"# Crash reports: read and deleted through the store's group; the store is
# the one folder this service may write.
SupplementaryGroups=vireo-crash
ReadWritePaths=-/var/lib/vireo-monitor/crashes")
  set(VIREO_INSTALL_CRASH ON)
else()
  set(VIREO_SERVICE_CRASH "")
  set(VIREO_INSTALL_CRASH OFF)
endif()

# --- configuration ----------------------------------------------------------
install(CODE "
  set(VIREO_CONFIG_SOURCE_DIR \"${PROJECT_SOURCE_DIR}/config\")
  set(VIREO_SYSCONFDIR \"${CMAKE_INSTALL_SYSCONFDIR}\")
  set(VIREO_PLUGIN_INSTALL_DIR \"${VIREO_PLUGIN_INSTALL_DIR}\")
  set(VIREO_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\")
  set(VIREO_DOCDIR \"${CMAKE_INSTALL_DOCDIR}\")
  set(VIREO_INSTALL_SECURITY ${VIREO_INSTALL_SECURITY})
  set(VIREO_CONFIGURED_PREFIX \"${CMAKE_INSTALL_PREFIX}\")
  set(VIREO_INSTALL_CRASH ${VIREO_INSTALL_CRASH})")
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/install_config.cmake)

# --- service and manual pages -----------------------------------------------
# With security on, systemd hands the root-only secret key to the service's
# transient user as a credential.
if(VIREO_INSTALL_SECURITY)
  set(VIREO_SERVICE_CREDENTIAL
"# The secret key stays root's (0600): systemd passes a copy readable by the
# service user only, in /run/credentials/vireo-monitor.service/, which
# main.json names.
LoadCredential=server.key:${CMAKE_INSTALL_FULL_SYSCONFDIR}/vireo-monitor/server.key")
else()
  set(VIREO_SERVICE_CREDENTIAL "")
endif()
set(VIREO_SERVICE_FILE ${CMAKE_BINARY_DIR}/packaging/vireo-monitor.service)
configure_file(${PROJECT_SOURCE_DIR}/packaging/vireo-monitor.service.in
               ${VIREO_SERVICE_FILE} @ONLY)
set(VIREO_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
    "Folder of the systemd unit, relative to the prefix or absolute (Debian 12: /lib/systemd/system)")
install(FILES ${VIREO_SERVICE_FILE} DESTINATION ${VIREO_SYSTEMD_UNIT_DIR})
# Manual pages, compressed as Debian ships them (gzip -9n: reproducible).
set(vireo_man_pages vireo-monitor.8)
if(TARGET vireo-client)
  list(APPEND vireo_man_pages vireo-client.1)
endif()
if(TARGET vireo-exporter)
  list(APPEND vireo_man_pages vireo-exporter.1)
endif()
find_program(VIREO_GZIP gzip)
set(vireo_man_outputs "")
foreach(page ${vireo_man_pages})
  set(src ${PROJECT_SOURCE_DIR}/packaging/${page})
  string(REGEX REPLACE ".*\\." "" section ${page})
  if(VIREO_GZIP)
    set(out ${CMAKE_BINARY_DIR}/packaging/man/${page})
    add_custom_command(OUTPUT ${out}.gz
      COMMAND ${CMAKE_COMMAND} -E copy ${src} ${out}
      COMMAND ${VIREO_GZIP} -9nf ${out}
      DEPENDS ${src} VERBATIM)
    list(APPEND vireo_man_outputs ${out}.gz)
    install(FILES ${out}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  else()
    install(FILES ${src} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endif()
endforeach()
add_custom_target(vireo_man_pages ALL DEPENDS ${vireo_man_outputs})

# --- plug-in SDK ------------------------------------------------------------
install(FILES
          ${PROJECT_SOURCE_DIR}/include/common_func.h
          ${PROJECT_SOURCE_DIR}/include/server_comm.h
          ${PROJECT_SOURCE_DIR}/packaging/sdk/vireo_plugin.h
        DESTINATION ${VIREO_INCLUDE_INSTALL_DIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/packaging/sdk/vireo-monitor-config.cmake.in
  ${CMAKE_BINARY_DIR}/packaging/vireo-monitor-config.cmake
  INSTALL_DESTINATION ${VIREO_CMAKE_INSTALL_DIR}
  PATH_VARS VIREO_INCLUDE_INSTALL_DIR VIREO_PLUGIN_INSTALL_DIR)
write_basic_package_version_file(
  ${CMAKE_BINARY_DIR}/packaging/vireo-monitor-config-version.cmake
  COMPATIBILITY SameMinorVersion ARCH_INDEPENDENT)
install(FILES
          ${CMAKE_BINARY_DIR}/packaging/vireo-monitor-config.cmake
          ${CMAKE_BINARY_DIR}/packaging/vireo-monitor-config-version.cmake
        DESTINATION ${VIREO_CMAKE_INSTALL_DIR})

# The .pc file finds its prefix from its own place, like the CMake package.
file(RELATIVE_PATH VIREO_PC_TO_PREFIX
     /${VIREO_PKGCONFIG_INSTALL_DIR} /)
configure_file(${PROJECT_SOURCE_DIR}/packaging/sdk/vireo-monitor.pc.in
               ${CMAKE_BINARY_DIR}/packaging/vireo-monitor.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/vireo-monitor.pc
        DESTINATION ${VIREO_PKGCONFIG_INSTALL_DIR})
