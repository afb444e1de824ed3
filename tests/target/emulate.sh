#!/bin/sh
# usage: emulate.sh FROM TO EMULATOR...
#
# Makes TO what FROM is, a folder of programs and links: with scripts that run each program under the emulator
# and by the name that it is started with. The world is the machine's own program.
set -eu
from=$1 to=$2
shift 2
rm -rf "$to"
(cd "$from" && find . -type d) | while read -r folder; do
    mkdir -p "$to/$folder"
done
(cd "$from" && find . ! -type d ! -name world) | while read -r name; do
    if [ -L "$from/$name" ]; then
        cp -P "$from/$name" "$to/$name"
    elif readelf -h "$from/$name" >/dev/null 2>&1; then
        # shellcheck disable=SC2016
        printf '#!/bin/sh\nexec %s -0 "$0" %s "$@"\n' "$*" "$from/${name#./}" >"$to/$name"
        chmod 755 "$to/$name"
    else
        cp "$from/$name" "$to/$name"
    fi
done
