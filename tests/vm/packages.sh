# Sourced by run and story: installs what building and emulating the machines takes.
# shellcheck shell=bash
[ "$(id -u)" = 0 ] || { echo "needs root, to install packages"; exit 1; }
tests/support/install-packages python3 g++ cmake make binutils g++-mipsel-linux-gnu qemu-system-x86 \
    qemu-system-mips dosfstools mtools e2fsprogs ntfs-3g fdisk || exit 1
