#!/bin/sh
# usage: platform.sh SOURCE_DIRECTORY: only lib/platform.h may ask which C library or processor it is built for.
set -eu
cd "$1"
! grep -rnE '__(GLIBC|UCLIBC|MUSL|BIONIC|mips|MIPS|arm|aarch64|i386|x86_64|powerpc|riscv|BYTE_ORDER)' \
    --include='*.cpp' --include='*.h' src companions | grep -v '^src/lib/platform\.h:'
