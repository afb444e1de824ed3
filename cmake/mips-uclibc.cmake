# 32-bit MIPS with uClibc, little endian unless VY_ENDIAN says eb: Debian's cross compiler with the sysroot that
# cmake/build-uclibc-sysroot makes. What is built runs under qemu.
if(NOT VY_ENDIAN)
  set(VY_ENDIAN el)
endif()
if(VY_ENDIAN STREQUAL eb)
  set(VY_CPU mips)
else()
  set(VY_CPU mipsel)
endif()
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${VY_CPU})
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
vy_use_sysroot(uclibc-${VY_ENDIAN} "cmake/build-uclibc-sysroot ${VY_ENDIAN}" ${VY_CPU}-linux-gnu- -muclibc)
set(VY_C_LIBRARY uclibc)
# For one place in memory, and with a procedure linkage table: code for any place takes four instructions for each
# call here, and flash is what there is least of.
string(APPEND CMAKE_CXX_FLAGS_INIT " -fno-pie -mplt -mno-shared")
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -no-pie")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${VY_CPU}-static -L ${VY_SYSROOT})
