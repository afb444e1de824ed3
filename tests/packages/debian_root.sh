#!/bin/bash
# usage: debian_root.sh FOLDER
#        debian_root.sh --ways ROOT   tells a root this machine's ways to the packages
#
# Makes a small Debian system below FOLDER, once, and prints where it is. Beside its root lie the packages
# that the tests install into copies of it, so that they need no network then. It is taken from where this
# machine takes its own packages from.
set -eu
suite=bookworm
wanted="samba smbclient ntfs-3g e2fsprogs util-linux busybox bash-completion systemd systemd-sysv dbus"

sources() {
    apt-get indextargets --format "\$(REPO_URI) \$(RELEASE) \$(COMPONENT)" \
        'Created-By: Packages' 'Origin: Debian' | sort -u | awk -v suite=$suite '$2 ~ "^" suite'
}

# The name of the folder tells what is in it: another list of packages or another source makes another root.
key() { { cat "$0"; sources; dpkg --print-architecture; } | sha256sum | cut -c 1-16; }

in_root() {
    local root=$1
    shift
    # shellcheck disable=SC2016
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C DEBIAN_FRONTEND=noninteractive \
        unshare --mount -- bash -euc '
            root=$1; shift
            mount -t proc proc "$root/proc"
            exec chroot "$root" "$@"' in_root "$root" "$@"
}

# Ways to the packages that this machine has been told of, a proxy say.
copy_ways() {
    local root=$1 file
    apt-config dump --format '%F "%v";%n' Acquire | grep -i proxy >"$root/etc/apt/apt.conf.d/01ways" || true
    for file in /etc/resolv.conf /etc/hosts; do
        [ ! -r $file ] || cp -L $file "$root$file"
    done
    sources | sed 's/^/deb [signed-by=\/usr\/share\/keyrings\/debian-archive-keyring.gpg] /' \
        >"$root/etc/apt/sources.list"
}

# shellcheck disable=SC2086
make_root() {
    local folder=$1 mirror
    [ -n "$(sources)" ] || apt-get update -q >&2
    mirror=$(sources | awk -v suite=$suite '$2 == suite { print $1; exit }')
    [ -n "$mirror" ] || { echo "this machine has no source of Debian $suite" >&2; return 1; }
    rm -rf "$folder"
    mkdir -p "$folder"
    debootstrap --variant=minbase "$suite" "$folder/root" "$mirror" >"$folder/log" 2>&1 &&
        copy_ways "$folder/root" &&
        in_root "$folder/root" apt-get update -q >>"$folder/log" 2>&1 &&
        in_root "$folder/root" apt-get -qy upgrade >>"$folder/log" 2>&1 &&
        in_root "$folder/root" apt-get -qy --no-install-recommends --download-only \
            -o APT::Keep-Downloaded-Packages=true install $wanted >>"$folder/log" 2>&1 &&
        rm -f "$folder/root/etc/apt/apt.conf.d/01ways" && return 0
    tail -n 20 "$folder/log" >&2
    return 1
}

[ "$1" != --ways ] || { copy_ways "$2" && exit; }
mkdir -p "$1"
[ -n "$(sources)" ] || apt-get update -q >&2
folder=$1/$(key)
if [ ! -e "$folder/made" ]; then
    rm -rf "$folder.part"
    make_root "$folder.part" >&2
    touch "$folder.part/made"
    rm -rf "$folder"
    mv "$folder.part" "$folder"
fi
echo "$folder"
