# Runs at install time: writes the configuration files of config/ into
# SYSCONFDIR/vireo-monitor with their repository-relative paths
# ("config/demo/...", "build/lib/...") made absolute for the installed tree.
# The demo (127.0.0.1:6600) becomes the active main.json with its group
# files; the commented samples go to the documentation's examples/ folder,
# so the configuration folder holds only what the service reads.
# An absolute SYSCONFDIR (/etc for a package) holds only for the prefix it was
# configured with: `cmake --install --prefix ELSEWHERE` keeps everything,
# the configuration too, under ELSEWHERE.
if(IS_ABSOLUTE "${VIREO_SYSCONFDIR}" AND CMAKE_INSTALL_PREFIX STREQUAL VIREO_CONFIGURED_PREFIX)
  set(etc_dir "${VIREO_SYSCONFDIR}/vireo-monitor")
elseif(IS_ABSOLUTE "${VIREO_SYSCONFDIR}")
  set(etc_dir "${CMAKE_INSTALL_PREFIX}/etc/vireo-monitor")
else()
  set(etc_dir "${CMAKE_INSTALL_PREFIX}/${VIREO_SYSCONFDIR}/vireo-monitor")
endif()
set(plugin_dir "${CMAKE_INSTALL_PREFIX}/${VIREO_PLUGIN_INSTALL_DIR}")
set(daemon "${CMAKE_INSTALL_PREFIX}/${VIREO_SBINDIR}/vireo-monitor")
set(examples_dir "${CMAKE_INSTALL_PREFIX}/${VIREO_DOCDIR}/examples")

# Opening comments that tell how to run a file from the repository root.
set(header_demo/main.json
"// The configuration the vireo-monitor service starts with: this machine's
// /proc files and the probe plug-in on the loopback interface. Paths are
// absolute; the package keeps your edits across upgrades.
")
set(header_sample/main.json
"// vireo-monitor sample: every kind of command. Try it with
//   ${daemon} -c ${examples_dir}/main.json
// Comments like these are allowed; keys not shown here are ignored.
")
set(header_sample/files-only.json
"// vireo-monitor sample: file commands only, no plug-in needed. Try it with
//   ${daemon} -c ${examples_dir}/files-only.json
")

# The service answers only the clients listed in authorized_keys (empty
# after installation): one line per key, "<Z85 public key> <name> <codes>".
set(security
"  // Clients must hold a key listed in authorized_keys; each may use the
  // command codes given on its line. The secret key is
  //   ${etc_dir}/server.key
  // and systemd hands it to the service at the path below (LoadCredential=
  // in the unit): change both together.
  \"security\": {
    \"secret-key\": \"/run/credentials/vireo-monitor.service/server.key\",
    \"authorized-keys\": \"${etc_dir}/authorized_keys\"
  },
")

# The crash groups: reading and deleting under codes of their own, so that
# an authorized key may be given one without the other.
set(crash_groups
"    // Commands 0x50 and 0x51: crash reports kept by vireo-crash (crash.conf):
    // 0x50 lists (1), fetches (2) and gives the stack-only core (3) of the
    // report whose id is the payload; 0x51 deletes one (1).
    { \"class\": \"crash\", \"code\": \"0x50\", \"config\": \"${etc_dir}/crash.json\" },
    { \"class\": \"crash-delete\", \"code\": \"0x51\", \"config\": \"${etc_dir}/crash-delete.json\" },
")

function(vireo_write_config src dst_dir)
  file(READ "${VIREO_CONFIG_SOURCE_DIR}/${src}" text)
  if(DEFINED header_${src})
    string(REGEX REPLACE "^(//[^\n]*\n)+" "${header_${src}}" text "${text}")
  endif()
  string(REPLACE "config/demo/" "${etc_dir}/" text "${text}")
  string(REPLACE "config/sample/" "${examples_dir}/" text "${text}")
  string(REPLACE "build/lib/" "${plugin_dir}/" text "${text}")
  string(REPLACE " (the repository root here)" "" text "${text}")
  if(VIREO_INSTALL_SECURITY AND src STREQUAL "demo/main.json")
    string(REPLACE "  \"sub-configs\": [" "${security}  \"sub-configs\": [" text "${text}")
  endif()
  if(VIREO_INSTALL_CRASH AND src STREQUAL "demo/main.json")
    string(REPLACE "    // Command 0xDE5C:" "${crash_groups}    // Command 0xDE5C:" text "${text}")
  endif()
  get_filename_component(name "${src}" NAME)
  set(dst "$ENV{DESTDIR}${dst_dir}/${name}")
  message(STATUS "Installing: ${dst}")
  file(WRITE "${dst}" "${text}")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${dst}")
  set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
endfunction()

file(MAKE_DIRECTORY "$ENV{DESTDIR}${etc_dir}" "$ENV{DESTDIR}${examples_dir}")
foreach(f main.json system.json process.json probe.json board.json)
  vireo_write_config(demo/${f} "${etc_dir}")
endforeach()
foreach(f main.json files-only.json system.json probe.json)
  vireo_write_config(sample/${f} "${examples_dir}")
endforeach()
if(VIREO_INSTALL_CRASH)
  foreach(f crash.json crash-delete.json crash.conf)
    vireo_write_config(sample/${f} "${etc_dir}")
  endforeach()
endif()
