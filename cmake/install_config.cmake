# Runs at install time: writes the configuration files into
# SYSCONFDIR/vireo-monitor with the repository-relative paths of config/
# ("config/demo/...", "build/lib/...") made absolute for the installed tree.
# The active main.json is the demo (127.0.0.1:6600) plus the probe group;
# the commented samples go to the sample/ folder beside it.
if(IS_ABSOLUTE "${VIREO_SYSCONFDIR}")
  set(etc_dir "${VIREO_SYSCONFDIR}/vireo-monitor")
else()
  set(etc_dir "${CMAKE_INSTALL_PREFIX}/${VIREO_SYSCONFDIR}/vireo-monitor")
endif()
set(plugin_dir "${CMAKE_INSTALL_PREFIX}/${VIREO_PLUGIN_INSTALL_DIR}")

function(vireo_write_config src dst_dir)
  file(READ "${VIREO_CONFIG_SOURCE_DIR}/${src}" text)
  string(REPLACE "\"config/demo/" "\"${etc_dir}/" text "${text}")
  string(REPLACE "\"config/sample/" "\"${etc_dir}/sample/" text "${text}")
  string(REPLACE "\"build/lib/" "\"${plugin_dir}/" text "${text}")
  if(src STREQUAL "demo/main.json" AND VIREO_WITH_PROBE)
    string(REGEX REPLACE "(\"sub-configs\"[ \t]*:[ \t]*\\[)"
      "\\1\n    // Command 0x30: threads and callstacks of a process (probe plug-in).\n    { \"class\": \"probe\", \"code\": \"0x30\", \"config\": \"${etc_dir}/probe.json\" },"
      text "${text}")
  endif()
  # Comments about the repository root no longer apply once installed.
  string(REPLACE "relative to the daemon's working directory"
                 "absolute in the installed files" text "${text}")
  get_filename_component(name "${src}" NAME)
  set(dst "$ENV{DESTDIR}${dst_dir}/${name}")
  message(STATUS "Installing: ${dst}")
  file(WRITE "${dst}" "${text}")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${dst}")
  set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY "$ENV{DESTDIR}${etc_dir}/sample")
foreach(f main.json system.json process.json)
  vireo_write_config(demo/${f} "${etc_dir}")
endforeach()
if(VIREO_WITH_PROBE)
  vireo_write_config(demo/probe.json "${etc_dir}")
endif()
foreach(f main.json files-only.json system.json probe.json)
  vireo_write_config(sample/${f} "${etc_dir}/sample")
endforeach()
