# Cross build for 64-bit ARM boards with Debian's cross compiler and the
# arm64 libraries of a multiarch system (dpkg --add-architecture arm64;
# scripts/test-arm64 sets it all up). Test programs run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VIREO_TRIPLET aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${VIREO_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VIREO_TRIPLET}-g++)
# Libraries, CMake packages and liblog's android/ folder are searched in
# /usr/lib/aarch64-linux-gnu only, never in the host's multiarch folder.
set(CMAKE_LIBRARY_ARCHITECTURE ${VIREO_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${VIREO_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config reads the arm64 .pc files only (the host's would hand out
# x86-64 link paths).
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${VIREO_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
unset(ENV{PKG_CONFIG_PATH})

# ctest, gtest discovery and the tests that start the daemon run arm64
# programs through the emulator. The multiarch libc6:arm64 (pulled in by the
# -dev packages) gives it the loader and libraries at their usual places;
# only without it does -L point it at the cross compiler's own copies, whose
# libc may differ from the multiarch one in version: a mixed pair hangs the
# first thread a program starts.
find_program(VIREO_QEMU NAMES qemu-aarch64 qemu-aarch64-static)
if(VIREO_QEMU)
  if(EXISTS /lib/ld-linux-aarch64.so.1)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VIREO_QEMU})
  else()
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VIREO_QEMU} -L /usr/${VIREO_TRIPLET})
  endif()
endif()
