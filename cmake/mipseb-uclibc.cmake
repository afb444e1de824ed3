# 32-bit MIPS with uClibc, big endian.
set(VY_ENDIAN eb)
include(${CMAKE_CURRENT_LIST_DIR}/mips-uclibc.cmake)
