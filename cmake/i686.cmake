# 32-bit x86 with Debian's cross compiler. Its C library lies in a folder of its own, where the loader
# must be told to look; then the programs run on an x86-64 kernel as they are.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(VY_I686_LIB /usr/i686-linux-gnu/lib)
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,-dynamic-linker=${VY_I686_LIB}/ld-linux.so.2 -Wl,-rpath,${VY_I686_LIB}")
