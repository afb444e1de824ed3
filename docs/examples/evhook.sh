#!/bin/sh
# Hook of vyhotplugd, to be put at /tmp/vyhotplugd-evhook.sh with mode 0755. Called with "mount" after a
# mount and with "unmount" before an unmount, and the mount directory behind it.
#
# Notes the event in the system log, and lights a lamp while anything is mounted.
lamp=/sys/class/leds/storage/brightness
event=$1
directory=$2

# Whether anything but this directory is mounted beside it.
others_mounted() {
    awk -v beside="${directory%/*}/" -v this="$directory" \
        'index($2, beside) == 1 && $2 != this { found = 1 } END { exit !found }' /proc/mounts
}

case $event in
mount) light=1 ;;
unmount) others_mounted && light=1 || light=0 ;;
*) exit 1 ;;
esac
logger -t storage "$event $directory"
[ -w "$lamp" ] && echo "$light" >"$lamp"
exit 0
