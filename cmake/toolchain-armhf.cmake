# Cross build for the receiver's 32-bit ARM (armhf, hard float) with
# Debian's cross compiler (g++-arm-linux-gnueabihf):
#
#   cmake -S . -B build-arm32 -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         [-DAPPMGR_ARMHF_SYSROOT=/path/to/armhf-root]
#
# The target's libraries (libcurl, libxml2, GoogleTest) come from one of:
#  - APPMGR_ARMHF_SYSROOT: a directory holding unpacked Debian armhf
#    packages, as scripts/build-arm32.sh makes it. It is used as the
#    compiler's sysroot; the C and C++ runtimes still come from the cross
#    compiler's own tree (/usr/arm-linux-gnueabihf).
#  - without it, armhf packages installed on the host through multiarch
#    (dpkg --add-architecture armhf; apt-get install libcurl4-openssl-dev:armhf
#    libxml2-dev:armhf libgtest-dev:armhf libgmock-dev:armhf).
#
# Programs built here run on the host through qemu-user
# (CMAKE_CROSSCOMPILING_EMULATOR), so ctest and the test discovery work.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(APPMGR_ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${APPMGR_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${APPMGR_ARMHF_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${APPMGR_ARMHF_TRIPLET})

# GCC notes, at every std::vector<T>::iterator of a struct passed by value,
# that GCC 7.1 changed how ARM passes such arguments. Everything here is
# built with one compiler (and Debian's armhf libraries with GCC 12), so the
# note is noise.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")

# try_compile projects read this file again; they need the sysroot too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES APPMGR_ARMHF_SYSROOT)

if(APPMGR_ARMHF_SYSROOT)
  if(NOT IS_DIRECTORY "${APPMGR_ARMHF_SYSROOT}/usr/lib/${APPMGR_ARMHF_TRIPLET}")
    message(FATAL_ERROR "APPMGR_ARMHF_SYSROOT=${APPMGR_ARMHF_SYSROOT} holds no armhf libraries")
  endif()
  set(CMAKE_SYSROOT "${APPMGR_ARMHF_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH "${APPMGR_ARMHF_SYSROOT}")
  # Libraries, headers and CMake packages only from the target tree; build
  # tools from the host.
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  # Shared libraries that the linked ones need (libssl for libcurl, ...).
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
         " -Wl,-rpath-link,${APPMGR_ARMHF_SYSROOT}/usr/lib/${APPMGR_ARMHF_TRIPLET}"
         " -Wl,-rpath-link,${APPMGR_ARMHF_SYSROOT}/lib/${APPMGR_ARMHF_TRIPLET}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT
         " -Wl,-rpath-link,${APPMGR_ARMHF_SYSROOT}/usr/lib/${APPMGR_ARMHF_TRIPLET}"
         " -Wl,-rpath-link,${APPMGR_ARMHF_SYSROOT}/lib/${APPMGR_ARMHF_TRIPLET}")
  # pkg-config (used by the find modules for hints) must not answer with the
  # host's own .pc files.
  set(ENV{PKG_CONFIG_LIBDIR}
      "${APPMGR_ARMHF_SYSROOT}/usr/lib/${APPMGR_ARMHF_TRIPLET}/pkgconfig:${APPMGR_ARMHF_SYSROOT}/usr/share/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${APPMGR_ARMHF_SYSROOT}")
  set(_appmgr_qemu_prefix "${APPMGR_ARMHF_SYSROOT}")
else()
  set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
  set(ENV{PKG_CONFIG_LIBDIR}
      "/usr/lib/${APPMGR_ARMHF_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
  # The dynamic loader and C runtime of the cross compiler; the multiarch
  # libraries are found in the host's /usr/lib/arm-linux-gnueabihf.
  set(_appmgr_qemu_prefix "/usr/${APPMGR_ARMHF_TRIPLET}")
endif()

find_program(APPMGR_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(APPMGR_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${APPMGR_QEMU_ARM};-L;${_appmgr_qemu_prefix}")
endif()
