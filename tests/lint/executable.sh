#!/bin/sh
# usage: executable.sh EXECUTABLE: it must need the C library and nothing else, under all four names.
set -eu
needed=$(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
echo "needs: $needed"
[ "$needed" = libc.so.6 ]
for name in vymount vyunmount vyhotpluginfo; do
    [ "$(readlink "$(dirname "$1")/$name")" = vyhotplugd ] || { echo "no link $name"; exit 1; }
done
