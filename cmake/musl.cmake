# x86-64 with musl: the machine's compiler with Debian's package of that C library and the sysroot that
# cmake/build-musl-sysroot makes. What is built runs on this machine as it is.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
vy_use_sysroot(musl cmake/build-musl-sysroot "" "-mmusl -B/usr/lib/x86_64-linux-musl"
  /usr/include/x86_64-linux-musl)
set(VY_C_LIBRARY musl)
