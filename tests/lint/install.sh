#!/bin/sh
# usage: install.sh BUILD_DIRECTORY: an installation must put the four names side by side.
set -eu
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
DESTDIR=$root cmake --install "$1" --prefix /usr >/dev/null
cd "$root/usr/sbin"
[ -x vyhotplugd ] && [ ! -L vyhotplugd ]
for name in vymount vyunmount vyhotpluginfo; do
    [ "$(readlink "$name")" = vyhotplugd ] || { echo "no link $name"; exit 1; }
done
./vyhotplugd --version 2>&1 | grep -q '^vyhotplugd --- version'
