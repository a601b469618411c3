# Read by cpack before it makes the packages (CPACK_PROJECT_CONFIG_FILE).
#
# dpkg-shlibdeps looks for the libraries of DEB_HOST_ARCH, the machine's
# own architecture unless set: a cross build's packages must name the
# target's.
if(CPACK_GENERATOR STREQUAL "DEB" AND CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  set(ENV{DEB_HOST_ARCH} "${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}")
endif()

# Each package's description (CPACK_COMPONENT_<NAME>_DESCRIPTION) begins
# with its own synopsis line; without this CPack puts the project's summary
# above it as the synopsis of all three.
unset(CPACK_PACKAGE_DESCRIPTION_SUMMARY)
