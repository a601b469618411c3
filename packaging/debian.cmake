# Debian packages of the build, one per install component:
#
#   libapp-mgr<SOVERSION>  runtime  the shared library (named after its SONAME)
#   libapp-mgr-dev         dev      headers, the .so link, pkg-config and CMake files
#   libapp-mgr-tools       tools    the simulated platform, appmgr-emu, appmgr-ts,
#                                   appmgr-browser
#
# and, when the build has debug information (RelWithDebInfo, Debug), the
# debug symbols of the first and the last as <package>-dbgsym .ddeb files,
# as Debian's own builds make them: the packaged binaries are stripped and
# name their symbols by build ID (/usr/lib/debug/.build-id/), so a crash
# report from a receiver can be read against the dbgsym of its version.
#
# Made by running `cpack` in a built tree (into <build>/packages; the
# README has the commands). Files go where the build's install rules put
# them, under /usr: a build configured with CMAKE_INSTALL_PREFIX=/usr has
# Debian's multiarch library directory (usr/lib/<triplet>). The runtime
# package's Depends come from dpkg-shlibdeps alone; the other two depend on
# the runtime package of the same version.
#
# Cross builds: dpkg-shlibdeps is run for the target architecture. It finds
# the target's libraries and their dependency templates (symbols, shlibs)
# in the host's dpkg database when they are installed through multiarch, or
# in APPMGR_DEB_TARGET_ROOT, a tree of the target's library packages (by
# default the sysroot) with DEBIAN/symbols and DEBIAN/shlibs beside its
# lib/<triplet> and usr/lib/<triplet>, and var/lib/dpkg/status listing the
# packages (scripts/build-arm32.sh makes its sysroot so).

set(APPMGR_DEB_MAINTAINER "libapp-mgr developers <libapp-mgr@invalid>"
    CACHE STRING "Maintainer field of the Debian packages")
set(APPMGR_DEB_RELEASE "1" CACHE STRING "Debian revision of the packages")
set(APPMGR_DEB_TARGET_ROOT "${CMAKE_SYSROOT}" CACHE PATH
    "Cross builds: a tree of the target's library packages with DEBIAN/symbols, DEBIAN/shlibs and var/lib/dpkg/status")
set(_deb_target_libdirs)
if(APPMGR_DEB_TARGET_ROOT AND CMAKE_LIBRARY_ARCHITECTURE)
  set(_deb_target_libdirs ${APPMGR_DEB_TARGET_ROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
                          ${APPMGR_DEB_TARGET_ROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()

# The Debian architecture of what the compiler produces: from the target's
# GNU triplet where the toolchain names one, else the host's.
set(APPMGR_DEB_ARCHITECTURE "" CACHE STRING "Debian architecture of the packages (empty: from the compiler's triplet)")
set(_deb_arch "${APPMGR_DEB_ARCHITECTURE}")
if(NOT _deb_arch AND CMAKE_LIBRARY_ARCHITECTURE)
  execute_process(COMMAND dpkg-architecture -qDEB_HOST_ARCH -t${CMAKE_LIBRARY_ARCHITECTURE}
                  OUTPUT_VARIABLE _deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT _deb_arch)
  execute_process(COMMAND dpkg --print-architecture
                  OUTPUT_VARIABLE _deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT _deb_arch AND CMAKE_CROSSCOMPILING)
  message(STATUS "Debian packages: set APPMGR_DEB_ARCHITECTURE for this cross build")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libapp-mgr)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${APPMGR_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_RELEASE ${APPMGR_DEB_RELEASE})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "${_deb_arch}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
if(CMAKE_BUILD_TYPE MATCHES "^(RelWithDebInfo|Debug)$")
  set(_deb_debug_symbols ON)
else()
  set(_deb_debug_symbols OFF)
endif()
option(APPMGR_DEB_DEBUG_SYMBOLS "Debian packages: -dbgsym packages of the debug information"
       ${_deb_debug_symbols})
if(APPMGR_DEB_DEBUG_SYMBOLS)
  # CPack splits the debug information out and strips what it packages,
  # with the target's tools in a cross build.
  set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
  set(CPACK_STRIP_FILES OFF)
  if(CMAKE_OBJCOPY)
    set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
  endif()
  if(CMAKE_READELF)
    set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
  endif()
else()
  set(CPACK_STRIP_FILES ON)
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Packages are made into the build tree, never into the source tree.
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_COMPONENTS_ALL runtime dev)
if(APPMGR_BUILD_TOOLS AND APPMGR_BUILD_SIM)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libapp-mgr${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The shlibs file gives packages built against the library their
# dependency on it (through dpkg-shlibdeps): this version or any later one
# with the same SONAME.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/runtime/shlibs
     CONTENT "libapp-mgr ${PROJECT_VERSION_MAJOR} ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/runtime/shlibs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"HbbTV application manager (shared library)
libapp-mgr is the application manager of a hybrid broadcast/broadband
(HbbTV) TV receiver. The TV middleware loads it; it decides which
interactive application runs beside the current service, drives the
browser process over local sockets and answers the browser's requests for
broadcast data by calling the middleware back.
.
The middleware provides the porting functions the library calls; they are
resolved when the library is loaded.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libapp-mgr-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
"HbbTV application manager (development files)
The C headers of libapp-mgr (entry points, records, module state, the
porting header a middleware implements), the link to the shared library,
a pkg-config file (libapp-mgr) and a CMake package
(find_package(libapp-mgr), target appmgr::app-mgr).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME libapp-mgr-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"HbbTV application manager on a PC (simulated receiver and tools)
libappmgr-platform-sim.so provides every porting function of libapp-mgr on
a PC, simulating the receiver's middleware. appmgr-emu runs the library on
it from scenario files with a browser stand-in; appmgr-ts lists the
services, AITs and EIT events of a transport-stream capture;
appmgr-browser plays the browser on one socket from the shell.")
# dpkg-shlibdeps runs in each package's staging directory. The programs of
# the tools package need libapp-mgr.so.0 from the runtime package's
# directory beside it (the dependency itself is the component dependency
# above); cross builds add the target's libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ../runtime${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR} ${_deb_target_libdirs})

# Read by cpack: dpkg-shlibdeps must look for the target's libraries.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/cpack-debian.cmake)
# The library's package asks for ldconfig through dpkg's trigger instead of
# maintainer scripts.
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/deb-ldconfig-trigger.cmake)

include(CPack)
