SUMMARY = "HbbTV application manager"
DESCRIPTION = "libapp-mgr is the application manager of a hybrid \
broadcast/broadband (HbbTV) TV receiver, a shared library the TV middleware \
loads. It decides which interactive application runs beside the current \
service and drives the browser process over local sockets. The middleware \
provides the porting functions declared in <app-mgr/hbb_platform.h>."
SECTION = "libs"
# The source tree has no licence file yet: name the licence and its file
# here (LICENSE, LIC_FILES_CHKSUM) once it has one.
LICENSE = "CLOSED"

# Where the source comes from: set APPMGR_GIT_URI and SRCREV in local.conf
# or a .bbappend, or build a checkout with externalsrc (docs/porting.md).
# The defaults below are placeholders that fetch nothing. (No AUTOREV: it
# would ask the server while parsing, in every build.)
APPMGR_GIT_URI ??= "git://git.example.invalid/libapp-mgr.git;protocol=https;branch=main"
SRC_URI = "${APPMGR_GIT_URI}"
SRCREV ??= "INVALID"
PV = "0.1.0+git"
S = "${WORKDIR}/git"

DEPENDS = "curl libxml2"

inherit cmake pkgconfig

# The project's own CMake build and install rules, without its tests.
# Warnings stay warnings: another compiler may warn where the project's
# does not.
EXTRA_OECMAKE = "-DBUILD_TESTING=OFF -DAPPMGR_WERROR=OFF"

# On a receiver the middleware provides the porting functions, so by
# default only the library and its development files are built. "tools"
# adds the simulated platform and the PC tools (appmgr-emu, appmgr-ts,
# appmgr-browser), for a developer image; the tools need zlib and libdvbpsi
# (meta-openembedded's meta-multimedia).
PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = "-DAPPMGR_BUILD_SIM=ON -DAPPMGR_BUILD_TOOLS=ON,-DAPPMGR_BUILD_SIM=OFF -DAPPMGR_BUILD_TOOLS=OFF,libdvbpsi zlib"

# libapp-mgr.so.0 goes into ${PN}, headers, the .so link, the .pc and the
# CMake package into ${PN}-dev (the default split); the tools into their own.
PACKAGES =+ "${PN}-tools"
FILES:${PN}-tools = "${bindir}/appmgr-emu ${bindir}/appmgr-ts ${bindir}/appmgr-browser \
                     ${libdir}/libappmgr-platform-sim.so"
# The simulated platform is a plain .so without a version: programs link
# it by name, it is nobody's link-time-only file.
INSANE_SKIP:${PN}-tools += "dev-so"
