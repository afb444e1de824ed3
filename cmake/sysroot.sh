# Sourced by build-uclibc-sysroot and build-musl-sysroot: what both do.
#
# A sysroot lies in the cache folder (VY_CACHE, or build/cache) and is built again when its key changes: the
# text of the scripts and the versions of the packages that it is made with.
# shellcheck shell=bash

cache=${VY_CACHE:-$PWD/build/cache}
jobs=$(nproc)

# begin_sysroot NAME PACKAGE...: installs the packages and opens an empty folder, $root, with a folder for
# work, $work. Where what is there is as it should be, prints its path and ends the script.
begin_sysroot() {
    root=$cache/$1 work=$cache/$1/work
    shift
    tests/support/install-packages "$@" >&2
    key=$(cat cmake/sysroot.sh "$0" cmake/no_unwinder.c && dpkg-query -W "$@")
    key=$(sha256sum <<<"$key")
    mkdir -p "$cache"
    exec 9>"$root.lock"
    flock 9 # somebody else may be building it
    if [ "$(cat "$root/key" 2>/dev/null)" = "$key" ]; then
        echo "$root"
        exit 0
    fi
    rm -rf "$root" "$root.log"
    mkdir -p "$root/usr/include" "$root/usr/lib" "$work"
}

# Runs a step; what it says goes to the log, and its end to the user when it fails.
step() {
    "$@" >>"$root.log" 2>&1 && return 0
    tail -n 20 "$root.log" >&2
    echo "failed: $*; see $root.log" >&2
    exit 1
}

end_sysroot() {
    rm -rf "$work"
    echo "$key" >"$root/key"
    echo "$root"
}

# build_cxx_library PREFIX HOST FLAG...: the C++ library, which only tests need, for the C library that the
# flags lead to. Without exceptions, for want of an unwinder.
build_cxx_library() {
    local prefix=$1 host=$2
    shift 2
    local version flags="$*"
    step "${prefix}gcc" -Os -c cmake/no_unwinder.c -o "$work/no_unwinder.o"
    step "${prefix}ar" rcs "$root/usr/lib/libgcc_eh.a" "$work/no_unwinder.o"
    version=$("${prefix}gcc" -dumpversion)
    mkdir "$work/gcc" "$work/cxx"
    step tar xf "/usr/src/gcc-$version"/gcc-*.tar.xz -C "$work/gcc" --strip-components=1 \
        --no-wildcards-match-slash --exclude='*/testsuite/*/*' --wildcards '*/config*' '*/*.sh' '*/install-sh' \
        '*/mkinstalldirs' '*/missing' '*/depcomp' '*/move-if-change' '*/gcc/BASE-VER' '*/gcc/DATESTAMP' \
        '*/include' '*/libgcc' '*/libiberty' '*/libstdc++-v3'
    ln -s gthr-posix.h "$work/gcc/libgcc/gthr-default.h" # as the compiler's own build would
    # Thread functions are taken as they are, not as weak symbols that a static link leaves out.
    sed -i 's/define GTHREAD_USE_WEAK 1/define GTHREAD_USE_WEAK 0/' "$work/gcc/libgcc/gthr.h"
    cd "$work/cxx" || exit 1
    step ../gcc/libstdc++-v3/configure --build=x86_64-linux-gnu --host="$host" --prefix=/usr \
        --with-gxx-include-dir=/usr/include/c++ --disable-multilib --disable-shared --disable-nls \
        --disable-libstdcxx-pch --disable-libstdcxx-filesystem-ts --disable-libstdcxx-verbose \
        --enable-clocale=generic AR="${prefix}ar" RANLIB="${prefix}ranlib" \
        CC="${prefix}gcc $flags" CXX="${prefix}g++ $flags" CFLAGS=-O1 CXXFLAGS='-O1 -fno-exceptions'
    for folder in include libsupc++ src; do
        step make -j"$jobs" -C $folder
        step make -C $folder install DESTDIR="$root"
    done
    ln -s "$host" "$root/usr/include/c++/target"
    cd "$OLDPWD" || exit 1
}
