# vy_use_sysroot(NAME MADE_BY TOOL FLAGS INCLUDE...), for toolchain files: the compiler of that prefix, turned
# to a C library and away from the one that it was made for. FLAGS tell the compiler which C library it is and,
# as INCLUDE its headers, where it lies if not in the sysroot.
#
# The sysroot is NAME in the cache folder, VY_SYSROOT tells where, and holds the C++ library too, which only
# tests need: it has no exceptions.
set(VY_CACHE build/cache)
if(DEFINED ENV{VY_CACHE})
  set(VY_CACHE $ENV{VY_CACHE})
endif()
get_filename_component(VY_CACHE ${VY_CACHE} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_LIST_DIR}/..)

macro(vy_use_sysroot name made_by tool flags)
  set(VY_SYSROOT ${VY_CACHE}/${name} CACHE PATH "Headers and libraries, made by ${made_by}")
  list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VY_SYSROOT)
  if(NOT EXISTS ${VY_SYSROOT}/key)
    message(FATAL_ERROR "There is no ${VY_SYSROOT} yet: run ${made_by}")
  endif()
  set(CMAKE_C_COMPILER ${tool}gcc)
  set(CMAKE_CXX_COMPILER ${tool}g++)
  execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=include
    OUTPUT_VARIABLE VY_COMPILER_HEADERS OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(VY_C_HEADERS "")
  foreach(folder ${VY_COMPILER_HEADERS} ${ARGN} ${VY_SYSROOT}/usr/include)
    string(APPEND VY_C_HEADERS " -isystem ${folder}")
  endforeach()
  set(VY_CXX_HEADERS " -isystem ${VY_SYSROOT}/usr/include/c++")
  string(APPEND VY_CXX_HEADERS " -isystem ${VY_SYSROOT}/usr/include/c++/target")
  # -B: start files and libraries are looked for there first.
  set(VY_C_LIBRARY "${flags} -B${VY_SYSROOT}/usr/lib -nostdinc")
  set(CMAKE_C_FLAGS_INIT "${VY_C_LIBRARY}${VY_C_HEADERS}")
  set(CMAKE_CXX_FLAGS_INIT "${VY_C_LIBRARY}${VY_CXX_HEADERS}${VY_C_HEADERS} -fno-exceptions")
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libgcc -L${VY_SYSROOT}/lib")
endmacro()
