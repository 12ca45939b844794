#!/bin/bash
# Tests the gateway on emulated machines, whose serial ports have real drivers: a PC with 16550s. Emulated in software, so
# it needs no rights to the host's processor.
#
#   scripts/test-vm.sh [x86]...      all if none is named
#
# Installs what is missing (with sudo if you aren't root). The machines' kernels are fetched and unpacked under build-vm,
# never installed. What was measured stands in build-vm/MACHINE/figures.txt afterwards.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

machines=("$@")
[ $# -gt 0 ] || machines=(x86)

need "${build_packages[@]}" python3-pytest binutils cpio busybox-static
jobs=$(nproc)
failed=

# fetch DIRECTORY META [OPTION...]: unpacks the package that a kernel's meta package stands for.
fetch() {
    local directory=$1 meta=$2 package
    shift 2
    package=$(apt-cache "$@" depends "$meta" | sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
    [ "$package" ] || { echo "no kernel behind $meta"; return 1; }
    if [ ! -e "$directory/$package" ]; then
        rm -rf "$directory"
        mkdir -p "$directory"
        (cd "$directory" && apt-get "$@" -qq download "$package" && dpkg-deb -x "$package"_*.deb . && rm ./*.deb)
        touch "$directory/$package"
    fi
}

# Sets `kernel`, `dtb` (or nothing), `busybox`, `compiler`, `gateway` and `libraries`.
prepare_x86() {
    need qemu-system-x86 seabios gcc
    fetch build-vm/x86/kernel linux-image-cloud-amd64
    kernel=$(echo build-vm/x86/kernel/boot/vmlinuz-*)
    dtb=
    busybox=/bin/busybox
    compiler=gcc
    cmake --preset dev
    cmake --build --preset dev -j "$jobs" --target UGW
    gateway=build/UGW
    libraries=(/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu /lib64)
}

for machine in "${machines[@]}"; do
    case "$machine" in
        x86) prepare_x86 ;;
        *) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 2 ;;
    esac
    echo "== $machine"
    directory=build-vm/$machine
    guest=$directory/root
    rm -rf "$guest"
    mkdir -p "$guest/bin" "$guest/etc" "$guest/dev"
    cp "$busybox" "$guest/bin/busybox"
    cp tests/vm/guest/rc tests/vm/guest/serve tests/vm/guest/inittab "$guest/etc"
    ln -s bin/busybox "$guest/init"
    "$compiler" -static -O2 -Wall -Wextra -o "$guest/bin/probe" tests/vm/guest/probe.c
    "$python" tests/vm/image.py "$guest" "$gateway" "${libraries[@]}"
    (cd "$guest" && find . | cpio --quiet -o -H newc -R 0:0) >"$directory/initrd"
    cp "$kernel" "$directory/vmlinuz"
    [ -z "$dtb" ] || cp "$dtb" "$directory/dtb"
    "$python" -m pytest -q -p no:cacheprovider tests/vm --machine "$machine" --machine-dir "$directory" ||
        failed="$failed $machine"
done
if [ "$failed" ]; then
    echo "failed:$failed"
    exit 1
fi
