#!/bin/bash
# usage: build_in_debian.sh DEBIAN PACKAGES
#
# Builds the packages as a newcomer does: packaging/build-packages, in a clone of the project, in a Debian that holds
# nothing but what debootstrap installs. DEBIAN is what debian_root.sh has made; the packages are copied into the folder
# PACKAGES. Changes that are not committed are copied over the clone.
set -eu
cd "$(dirname "$0")/../.."
debian=$(readlink -f "$1")
packages=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/source" "$scratch/world"

copy_project() {
    if ! git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        tar --create --exclude=./build . | tar --extract --directory="$1"
        return
    fi
    git clone -q . "$1"
    git ls-files -z --deleted | (cd "$1" && xargs -0 rm -f --)
    git ls-files -z --modified --others --exclude-standard | while IFS= read -r -d '' file; do
        if [ -e "$file" ] || [ -L "$file" ]; then printf '%s\0' "$file"; fi
    done | tar --create --null --files-from=- | tar --extract --directory="$1"
}

copy_project "$scratch/source"
apt-config dump --format '%F "%v";%n' Acquire | grep -i proxy >"$scratch/ways" || true
# shellcheck disable=SC2016
unshare --mount --pid --ipc --uts --fork --kill-child bash -euc '
    debian=$1 scratch=$2
    mount -t tmpfs -o mode=755 world "$scratch/world"
    cd "$scratch/world"
    mkdir upper work root
    mount -t overlay overlay -o "lowerdir=$debian/root,upperdir=upper,workdir=work" root
    cp "$scratch/ways" root/etc/apt/apt.conf.d/01ways
    cp -L /etc/resolv.conf /etc/hosts root/etc/
    mount -t proc proc root/proc
    mount -t tmpfs -o mode=755 dev root/dev
    for name in null zero full random urandom tty; do
        : >"root/dev/$name"
        mount --bind "/dev/$name" "root/dev/$name"
    done
    ln -s /proc/self/fd root/dev/fd
    mkdir root/dev/shm root/project
    mount --bind "$scratch/source" root/project
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root chroot root /project/packaging/build-packages
    ' build "$debian" "$scratch"
mkdir -p "$packages"
rm -f "$packages"/*.deb
cp "$scratch"/source/build/packages/*.deb "$packages"
