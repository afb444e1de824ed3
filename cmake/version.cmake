# The version of everything that is built: programs, manual pages, packages. It stands in the file VERSION.
#
# Included by the project before project(), it sets VY_VERSION (1.0.5.beta2-bk), VY_VERSION_NUMBER (1.0.5) and
# VY_VERSION_DEBIAN (1.0.5~beta2). Run as a script at each build, it writes the files that carry the version of the
# very build, if that has changed: cmake -DVY_BUILD=VERSION -DVY_FILES=FROM=TO[,FROM=TO]... -P version.cmake, where
# an empty VERSION means what cmake/build-version prints.
if(CMAKE_SCRIPT_MODE_FILE)
  if(VY_BUILD STREQUAL "")
    execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/build-version
      OUTPUT_VARIABLE VY_BUILD OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE failure)
    if(failure)
      message(FATAL_ERROR "cmake/build-version: ${failure}")
    endif()
  endif()
  string(REPLACE "," ";" files "${VY_FILES}")
  foreach(file IN LISTS files)
    string(REGEX MATCH "^(.+)=(.+)$" matched "${file}")
    configure_file(${CMAKE_MATCH_1} ${CMAKE_MATCH_2} @ONLY)
  endforeach()
  return()
endif()

set(VY_BUILD "" CACHE STRING "Version that the programs print, where cmake/build-version is not to say it")
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../VERSION VY_VERSION LIMIT_COUNT 1)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/../VERSION)
string(REGEX MATCH "^[0-9]+[.][0-9]+[.][0-9]+" VY_VERSION_NUMBER "${VY_VERSION}")
string(REGEX REPLACE "-bk$" "" VY_VERSION_DEBIAN "${VY_VERSION}")
string(REGEX REPLACE "[.](alpha|beta|rc)" "~\\1" VY_VERSION_DEBIAN "${VY_VERSION_DEBIAN}")

# vy_install_man(PAGE...): manual pages of docs/man, with the version in the place of @VERSION@.
function(vy_install_man)
  string(REPLACE "~" "\\(ti" VERSION "${VY_VERSION_DEBIAN}") # as troff has it
  foreach(page IN LISTS ARGN)
    configure_file(${PROJECT_SOURCE_DIR}/docs/man/${page} ${PROJECT_BINARY_DIR}/man/${page} @ONLY)
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${PROJECT_BINARY_DIR}/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
endfunction()
