#!/bin/sh
# usage: format.sh SOURCE_DIRECTORY: whether every C++ file is as clang-format would write it.
set -eu
cd "$1"
find src tests companions fuzz bench \( -name '*.cpp' -o -name '*.h' \) -print0 2>/dev/null |
    xargs -0 clang-format --dry-run -Werror
