# cmake -DRECIPE=<.bb file> -DVERSION=<project version>
#       -DOPTIONS=<the project's cache variables> -P check_recipe.cmake
#
# The Yocto recipe is not built here; this keeps it in step with the
# project: its version is the project's, and every -D<NAME>= it passes to
# CMake is a setting the project has (a renamed option would otherwise be
# dropped silently by CMake, and the recipe build a different library).
cmake_minimum_required(VERSION 3.20)
file(READ "${RECIPE}" _recipe)
if(NOT _recipe MATCHES "\nPV = \"([0-9.]+)[+\"]")
  message(FATAL_ERROR "${RECIPE}: no PV = \"<version>...\"")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL VERSION)
  message(FATAL_ERROR "${RECIPE}: PV ${CMAKE_MATCH_1}, the project is ${VERSION}")
endif()
string(REGEX MATCHALL "-D[A-Za-z_0-9]+=" _settings "${_recipe}")
list(REMOVE_DUPLICATES _settings)
if(NOT _settings)
  message(FATAL_ERROR "${RECIPE}: no -D settings found")
endif()
set(_unknown)
foreach(_setting IN LISTS _settings)
  string(REGEX REPLACE "^-D(.*)=$" "\\1" _name "${_setting}")
  if(NOT _name IN_LIST OPTIONS)
    list(APPEND _unknown ${_name})
  endif()
endforeach()
if(_unknown)
  message(FATAL_ERROR "${RECIPE} sets what the project does not know: ${_unknown}")
endif()
message(STATUS "recipe ${VERSION}, settings: ${_settings}")
