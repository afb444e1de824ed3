#!/bin/sh
# usage: clang_tidy.sh SOURCE_DIRECTORY: the checks of .clang-tidy, on the product compiled as clang++ would.
set -eu
cd "$1"
find src companions -name '*.cpp' -print0 |
    xargs -0 -P "$(nproc)" -n 4 sh -c 'clang-tidy --quiet "$@" -- -std=c++20 -D_GNU_SOURCE \
        -D_FILE_OFFSET_BITS=64 -I src -I companions -fno-exceptions -fno-rtti 2>/dev/null' sh
