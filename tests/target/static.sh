#!/bin/sh
# usage: static.sh: builds the service and vyhotplugctl statically for the target, and looks at their sizes.
set -eu
cd "$(dirname "$0")/../.."
tree=build/mips-uclibc-static
cmake --preset mips-uclibc -DVY_STATIC=ON -DVY_TESTS=OFF -B $tree
cmake --build $tree -j "$(nproc)" --target programs
tests/target/sizes.sh mipsel-linux-gnu-strip 190000 152000 $tree/bin/vyhotplugd $tree/bin/vyhotplugctl
