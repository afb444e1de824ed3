# Tests that are left out for a target, each with the reason: unit tests as patterns of GoogleTest, system tests
# by their names.
set(VY_LEFT_OUT "")
set(VY_LEFT_OUT_SYSTEM "")

macro(vy_leave_out reason)
  list(APPEND VY_LEFT_OUT ${ARGN})
endmacro()

macro(vy_leave_out_system reason)
  list(APPEND VY_LEFT_OUT_SYSTEM ${ARGN})
endmacro()

if(VY_C_LIBRARY)
  vy_leave_out("mntent(3) of uClibc and musl knows no octal codes"
    MountLineTest.NamesWithBlanksAreRead
    MountTest.ABlankInThePathIsNotedAsItsOctalCode
    MtabRemove.FindsAndKeepsPathsWithBlanks)
endif()

if(VY_C_LIBRARY STREQUAL uclibc)
  vy_leave_out("getpwnam(3) there reads no line of 256 characters"
    SettingParse.AUsersNameMayBeVeryLong)
  vy_leave_out_system("error numbers of MIPS are not this machine's"
    startup.End.the_socket_name_in_use_ends_the_daemon)
endif()

if(VY_C_LIBRARY STREQUAL musl)
  vy_leave_out("mntent(3) there takes a last line without its end for the end of the table"
    MtabRemove.KeepsALastLineWithoutItsEnd)
  vy_leave_out_system("injects faults into write(2); streams there use writev(2)"
    killed.DuringARefresh.at_every_write_the_files_are_whole
    killed.DuringAnUnmount.at_every_write_the_mount_table_is_whole)
endif()

if(CMAKE_CROSSCOMPILING_EMULATOR)
  vy_leave_out("qemu-user adopts no orphans (PR_SET_CHILD_SUBREAPER)"
    RestartTest.AProgramThatIsGoneEndsWithStatus1)
  vy_leave_out("minutes under an emulator"
    AnnouncerTest.TellsOfADeviceOnceOthersHaveMadeRoom
    IniOracle.AgreesOnEveryValueOfGeneratedFiles)
  vy_leave_out_system("looks at /proc, which shows the emulator's command line"
    ctl.Check.what_runs
    startup.Detached.the_configuration_in_the_working_directory_comes_first
    startup.Detached.the_daemon_starts_itself_again_with_absolute_paths
    startup.Detached.the_default_configuration_and_level_are_used_without_options)
  vy_leave_out_system("the end of another process is not told through the emulator"
    ctl.Watch.the_service_ends_and_starts)
  vy_leave_out_system("the emulator leads the root directory to the sysroot, which is not root's alone for a strict service"
    ctl.Settings.a_strict_service_takes_them)
  vy_leave_out_system("looks at /proc, which shows the emulator's signals"
    startup.End.a_second_stop_signal_kills_a_daemon_that_hangs)
endif()

list(JOIN VY_LEFT_OUT ":" VY_LEFT_OUT)
list(TRANSFORM VY_LEFT_OUT_SYSTEM PREPEND "system.")
