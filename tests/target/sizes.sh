#!/bin/sh
# usage: sizes.sh STRIP LIMIT PROGRAM...
#
# Prints how large the programs are when stripped. The first is the service: it must be smaller than LIMIT bytes.
set -eu
strip=$1 limit=$2
shift 2
service=$1
small=$(mktemp)
trap 'rm -f "$small"' EXIT
for program; do
    "$strip" -o "$small" "$program"
    size=$(stat -c %s "$small")
    echo "$(basename "$program"): $size bytes"
    [ "$program" != "$service" ] || [ "$size" -lt "$limit" ] || { echo "$limit are too many" && exit 1; }
done
