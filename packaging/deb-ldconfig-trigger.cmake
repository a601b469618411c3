# Run by cpack after it made the packages (CPACK_POST_BUILD_SCRIPTS), with
# CPACK_PACKAGE_FILES naming them.
#
# CPack gives every package with a library in the linker's directories a
# postinst and a postrm that only run ldconfig. Debian packages ask for
# dpkg's ldconfig trigger instead ("activate-noawait ldconfig" in
# DEBIAN/triggers): dpkg then runs ldconfig once per run, through the
# package that provides it, and the packages carry no scripts. Without
# scripts a package also installs into a root that has no shell, such as
# the empty root the package test installs into.
#
# Only scripts that are exactly those ldconfig calls are taken out.

set(_ldconfig_postinst "#!/bin/sh\n\nset -e\n\nif [ \"$1\" = \"configure\" ]; then\n\tldconfig\nfi\n")
set(_ldconfig_postrm "#!/bin/sh\n\nset -e\n\nif [ \"$1\" = \"remove\" ]; then\n\tldconfig\nfi\n")

# Prints the control member `member` of package `deb` into `out` (empty
# when the package has none).
function(deb_control_member deb member out)
  execute_process(COMMAND dpkg-deb --info ${deb} ${member}
                  OUTPUT_VARIABLE _text ERROR_QUIET RESULT_VARIABLE _status)
  if(NOT _status EQUAL 0)
    set(_text "")
  endif()
  set(${out} "${_text}" PARENT_SCOPE)
endfunction()

foreach(_deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT _deb MATCHES "\\.deb$")
    continue()
  endif()
  deb_control_member(${_deb} postinst _postinst)
  deb_control_member(${_deb} postrm _postrm)
  if(NOT _postinst STREQUAL _ldconfig_postinst OR NOT _postrm STREQUAL _ldconfig_postrm)
    continue()
  endif()
  set(_tree "${_deb}.tree")
  file(REMOVE_RECURSE "${_tree}")
  execute_process(COMMAND dpkg-deb --raw-extract ${_deb} ${_tree} RESULT_VARIABLE _status)
  if(NOT _status EQUAL 0)
    message(FATAL_ERROR "dpkg-deb could not unpack ${_deb}")
  endif()
  file(REMOVE "${_tree}/DEBIAN/postinst" "${_tree}/DEBIAN/postrm")
  file(WRITE "${_tree}/DEBIAN/triggers" "activate-noawait ldconfig\n")
  # Owners as CPack sets them (root), whoever runs cpack; CPack's own
  # compression.
  execute_process(COMMAND dpkg-deb --root-owner-group -Zgzip --build ${_tree} ${_deb}
                  OUTPUT_QUIET RESULT_VARIABLE _status)
  if(NOT _status EQUAL 0)
    message(FATAL_ERROR "dpkg-deb could not rebuild ${_deb}")
  endif()
  file(REMOVE_RECURSE "${_tree}")
  get_filename_component(_name ${_deb} NAME)
  message(STATUS "${_name}: ldconfig through dpkg's trigger instead of postinst/postrm")
endforeach()
