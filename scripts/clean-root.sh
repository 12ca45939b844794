# Clean Debian roots to install packages in; sourced after lib.sh. Needs root's rights and debootstrap.
mirror=${UGW_MIRROR:-http://deb.debian.org/debian}
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
work=$root/build/package-test
mkdir -p "$work"

# base_root ARCHITECTURE PACKAGE FOLDER [MORE...]: makes a root with what the package depends on and more packages, once;
# each run works on a copy.
base_root() {
    local arch=$1 package=$2 base=$3
    shift 3
    local stamp="$suite $mirror $(dpkg-deb -f "$package" Depends) $*"
    [ "$(cat "$base/.stamp" 2>/dev/null)" = "$stamp" ] && return
    rm -rf "$base"
    debootstrap --variant=minbase --arch="$arch" "$suite" "$base" "$mirror" >"$work/debootstrap-$arch.log" 2>&1 || return 1
    cp /etc/resolv.conf "$base/etc/resolv.conf"
    local names
    names=$(dpkg-deb -f "$package" Depends | sed 's/([^)]*)//g; s/,/ /g')
    # shellcheck disable=SC2086
    in_root "$base" apt-get install -y -q --no-install-recommends $names "$@" >>"$work/debootstrap-$arch.log" 2>&1 || return 1
    echo "$stamp" >"$base/.stamp"
}

# Runs a command in a root, in mount, process and IPC namespaces of its own: nothing of it outlives the command.
in_root() {
    local folder=$1
    shift
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive HOME=/root \
        ${http_proxy:+http_proxy="$http_proxy"} unshare --mount --ipc --pid --fork --kill-child sh -c '
        mount -t proc proc "$1/proc" && mount -t tmpfs tmpfs "$1/run" || exit 125
        folder=$1; shift
        exec chroot "$folder" "$@"' sh "$folder" "$@"
}
