# Sanitizers and coverage, for everything that is built.
add_library(vy_instrument INTERFACE)
if(VY_SANITIZE)
  target_compile_options(vy_instrument INTERFACE
    -fsanitize=${VY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vy_instrument INTERFACE -fsanitize=${VY_SANITIZE})
endif()
if(VY_COVERAGE)
  target_link_options(vy_instrument INTERFACE --coverage) # what is counted is src alone, see there
endif()
