# Warnings of the product and its tests; in the presets they are errors. Another compiler or library may warn of
# something else, and must build all the same. Not -Wformat-truncation: texts are cut to their buffers on
# purpose, and what must not be cut is checked where it is written.
option(VY_STRICT "Warnings are errors" OFF)
add_library(vy_warnings INTERFACE)
target_compile_options(vy_warnings INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Wundef -Wcast-qual -Wcast-align -Wpointer-arith
  -Wvla -Wnull-dereference -Wimplicit-fallthrough -Wmissing-declarations
  $<$<BOOL:${VY_STRICT}>:-Werror>
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wlogical-op -Wduplicated-branches -Wno-format-truncation>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wmissing-prototypes -Wno-error=unused-command-line-argument>)
