# Unit tests that are left out for a target, each with the reason, as patterns of GoogleTest.
set(VY_LEFT_OUT "")

macro(vy_leave_out reason)
  list(APPEND VY_LEFT_OUT ${ARGN})
endmacro()

if(VY_C_LIBRARY)
  vy_leave_out("mntent(3) of uClibc and musl knows no octal codes"
    MountTest.ABlankInThePathIsNotedAsItsOctalCode
    MtabRemove.FindsAndKeepsPathsWithBlanks)
endif()

if(CMAKE_CROSSCOMPILING_EMULATOR)
  vy_leave_out("qemu-user adopts no orphans (PR_SET_CHILD_SUBREAPER)"
    RestartTest.AProgramThatIsGoneEndsWithStatus1)
  vy_leave_out("minutes under an emulator"
    IniOracle.AgreesOnEveryValueOfGeneratedFiles)
endif()

list(JOIN VY_LEFT_OUT ":" VY_LEFT_OUT)
