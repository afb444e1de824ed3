#!/bin/bash
# usage: debian_root.sh FOLDER
#        debian_root.sh --ways ROOT   tells a root this machine's ways to the packages
#
# Makes a minimal Debian system below FOLDER, once, and prints where it is. It has the packages that the tests install
# later in its archive, so that these need no network. They come from where this machine gets its own.
set -eu
suite=bookworm
wanted="samba smbclient ntfs-3g e2fsprogs util-linux busybox bash-completion systemd systemd-sysv dbus cockpit-bridge
    build-essential debhelper cmake fakeroot lintian git"
other_server=ksmbd-tools # cannot be installed beside samba

sources() {
    apt-get indextargets --format "\$(REPO_URI) \$(RELEASE) \$(COMPONENT)" \
        'Created-By: Packages' 'Origin: Debian' | sort -u | awk -v suite=$suite '$2 ~ "^" suite'
}

# The folder's name depends on what is in it: with another list of packages, or another source, it is made anew.
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

# How this machine reaches the packages: proxies, names.
copy_ways() {
    local root=$1 file
    apt-config dump --format '%F "%v";%n' Acquire | grep -i proxy >"$root/etc/apt/apt.conf.d/01ways" || true
    for file in /etc/resolv.conf /etc/hosts; do
        [ ! -r $file ] || cp -L $file "$root$file"
    done
    sources | sed 's/^/deb [signed-by=\/usr\/share\/keyrings\/debian-archive-keyring.gpg] /' \
        >"$root/etc/apt/sources.list"
}

# download ROOT PACKAGE...: these, and what they depend on.
download() {
    local root=$1
    shift
    in_root "$root" apt-get -qy --no-install-recommends --download-only -o APT::Keep-Downloaded-Packages=true install "$@"
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
        download "$folder/root" $wanted >>"$folder/log" 2>&1 &&
        download "$folder/root" $other_server >>"$folder/log" 2>&1 &&
        rm -f "$folder/root/etc/apt/apt.conf.d/01ways" && return 0
    tail -n 20 "$folder/log" >&2
    return 1
}

[ "$1" != --ways ] || { copy_ways "$2" && exit; }
mkdir -p "$1"
exec 9>"$1/lock"
flock 9 # somebody else may be making it
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
