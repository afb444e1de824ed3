#!/bin/sh
# usage: sizes.sh STRIP SERVICE_LIMIT CTL_LIMIT PROGRAM...
#
# Prints how large the programs are when stripped. The service, which is the first, and vyhotplugctl must be smaller than
# their limits, in bytes.
set -eu
strip=$1 service_limit=$2 ctl_limit=$3
shift 3
service=$1
small=$(mktemp)
trap 'rm -f "$small"' EXIT
for program; do
    "$strip" -o "$small" "$program"
    size=$(stat -c %s "$small")
    echo "$(basename "$program"): $size bytes"
    case $program in
    "$service") limit=$service_limit ;;
    */vyhotplugctl) limit=$ctl_limit ;;
    *) continue ;;
    esac
    [ "$size" -lt "$limit" ] || { echo "$limit are too many" && exit 1; }
done
