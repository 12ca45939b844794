#!/bin/bash
# Tests the gateway on emulated machines, whose serial ports have real drivers: a PC with 16550s and a 32-bit
# ARM board with PL011s. Emulated in software, so it needs no rights to the host's processor.
#
#   scripts/test-vm.sh [x86|armhf]...      both if none is named
#
# Installs what is missing (with sudo if you aren't root). The machines' kernels and BusyBox are fetched and unpacked under
# build-vm, never installed. What was measured stands in build-vm/MACHINE/figures.txt afterwards.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$root/scripts/foreign.sh"
cd "$root"

machines=("$@")
[ $# -gt 0 ] || machines=(x86 armhf)

need "${build_packages[@]}" python3-pytest binutils cpio
jobs=$(nproc)
failed=

# Sets `kernel`, `dtb` (or nothing), `busybox`, `compiler`, `gateway` and `libraries`.
prepare_x86() {
    need qemu-system-x86 seabios gcc
    local packages=build-vm/x86/kernel
    fetch "$packages" amd64 linux-image-cloud-amd64 busybox-static
    kernel=$(echo "$packages"/boot/vmlinuz-*)
    dtb=
    busybox=$packages/bin/busybox
    compiler=gcc
    cmake --preset dev
    cmake --build --preset dev -j "$jobs" --target UGW
    gateway=build/UGW
    libraries=(/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu /lib64)
}

prepare_armhf() {
    need qemu-system-arm g++-arm-linux-gnueabihf qt6-base-dev-tools
    local packages=build-vm/armhf/kernel sysroot=build-sysroot/armhf
    fetch "$packages" armhf linux-image-armmp busybox-static
    kernel=$(echo "$packages"/boot/vmlinuz-*)
    dtb=$(echo "$packages"/usr/lib/linux-image-*/vexpress-v2p-ca15-tc1.dtb)
    busybox=$packages/bin/busybox
    compiler=arm-linux-gnueabihf-gcc
    scripts/sysroot.sh armhf
    cmake --preset armhf
    cmake --build --preset armhf -j "$jobs" --target UGW
    gateway=build-armhf/UGW
    libraries=($sysroot/lib/arm-linux-gnueabihf $sysroot/usr/lib/arm-linux-gnueabihf $sysroot/lib)
}

for machine in "${machines[@]}"; do
    case "$machine" in
        x86 | armhf) "prepare_$machine" ;;
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
