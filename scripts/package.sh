#!/bin/bash
# Makes the Debian packages of a hardened release: ugw, ugw-dev and ugw-dbg.
#
#   scripts/package.sh [ARCHITECTURE...]     amd64 armhf arm64; this host's own if none is named
#
# They come to build-release/packages, for another architecture to build-release-ARCHITECTURE/packages. All times in them
# are SOURCE_DATE_EPOCH, that of the last commit unless it is set; UGW_MAINTAINER is told in them if it is set. Installs
# what is missing (with sudo if you aren't root).
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

host=$(dpkg --print-architecture)
architectures=("$@")
[ $# -gt 0 ] || architectures=("$host")
for architecture in "${architectures[@]}"; do
    case "$architecture" in
        "$host") need "${build_packages[@]}" dpkg-dev file ;;
        armhf) need "${build_packages[@]}" g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf ;;
        arm64) need "${build_packages[@]}" g++-aarch64-linux-gnu binutils-aarch64-linux-gnu ;;
        *) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 2 ;;
    esac
done

if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
    SOURCE_DATE_EPOCH=$(git -c safe.directory='*' log -1 --format=%ct 2>/dev/null || stat -c %Y CHANGELOG.md)
fi
export SOURCE_DATE_EPOCH
# A compiler cache that shortens paths to this folder would do so in the symbols too.
unset CCACHE_BASEDIR CCACHE_NOHASHDIR
umask 022

options=()
[ -z "${UGW_MAINTAINER:-}" ] || options+=("-DUGW_MAINTAINER=$UGW_MAINTAINER")
for architecture in "${architectures[@]}"; do
    preset=release
    if [ "$architecture" != "$host" ]; then
        preset=release-$architecture
        scripts/sysroot.sh "$architecture"
    fi
    folder=build-$preset
    # Made anew: they hold the date.
    rm -rf "$folder/packages" "$folder/packaging" "$folder/BuildInfo.cpp"
    cmake --preset "$preset" "${options[@]}"
    cmake --build --preset "$preset" -j "$(nproc)"
    (cd "$folder" && cpack -G DEB)
    rm -rf "$folder/packages/_CPack_Packages"
    ls -l "$folder"/packages/*.deb
done
