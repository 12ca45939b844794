#!/bin/bash
# Installs the package in a Debian system of its own and starts that with systemd in an emulated PC: the service comes up,
# comes back when it is killed, may do what it needs and no more, survives an upgrade, halts the card on command.
#
#   scripts/test-service.sh
#
# Needs root (or sudo), to put the system together; works below build/package-test and build-vm. Installs what is missing.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"
[ $# -eq 0 ] || { sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 2; }
if [ "$(id -u)" != 0 ]; then
    exec sudo --preserve-env=SOURCE_DATE_EPOCH,UGW_MIRROR,UGW_SUITE "$0" "$@"
fi
source "$root/scripts/clean-root.sh"
source "$root/scripts/foreign.sh"

need debootstrap python3-pytest qemu-system-x86 seabios gcc cpio kmod e2fsprogs
if [ "$(dpkg --print-architecture)" != amd64 ]; then
    echo "only on amd64, whose packages the emulated PC runs" >&2
    exit 1
fi
scripts/package.sh
package=$(ls build-release/packages/ugw_*_amd64.deb)
machine=$root/build-vm/service
mkdir -p "$machine"
fetch build-vm/x86/kernel amd64 linux-image-cloud-amd64 busybox-static
kernel=$root/build-vm/x86/kernel

echo "putting the system together"
base_root amd64 "$package" "$work/base-systemd" systemd systemd-sysv || { echo "see $work/debootstrap-amd64.log"; exit 1; }
system=$machine/system
rm -rf "$system"
cp -a "$work/base-systemd" "$system"
cp "$package" "$system/root/ugw.deb"
in_root "$system" dpkg -i /root/ugw.deb
sed -i 's/^UGW_ID=.*/UGW_ID=2/; s/^UGW_MASK=.*/UGW_MASK=1110/' "$system/etc/default/ugw"
# The names of the card's ports; no udev is there to make them.
printf 'L /dev/ttyQX%s - - - - ttyS%s\n' 1 1 2 2 >"$system/etc/tmpfiles.d/ports.conf"
gcc -static -O2 -Wall -Wextra -o "$system/usr/local/bin/probe" tests/service/guest/probe.c
mkdir -p "$system/etc/systemd/system/ugw.service.d"
printf '[Service]\nExecStartPre=/usr/local/bin/probe\n' >"$system/etc/systemd/system/ugw.service.d/probe.conf"
cp tests/service/guest/shell.service "$system/etc/systemd/system/shell.service"
ln -sf /dev/null "$system/etc/systemd/system/serial-getty@ttyS0.service"
in_root "$system" systemctl enable ugw.service shell.service
in_root "$system" systemctl set-default graphical.target
rm -f "$machine/disk"
mke2fs -q -t ext4 -d "$system" -r 1 -N 0 "$machine/disk" 1G
rm -rf "$system"

# What mounts the disk: BusyBox and the modules for it.
version=$(basename "$kernel"/lib/modules/*)
guest=$machine/root
rm -rf "$guest"
mkdir -p "$guest/bin"
cp "$kernel/bin/busybox" "$guest/bin/busybox"
cp tests/service/guest/init "$guest/init"
depmod -b "$kernel" "$version"
for module in virtio_pci virtio_blk crc32c_generic ext4; do
    modprobe -d "$kernel" -S "$version" --show-depends "$module"
done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' |
    while read -r file; do
        cp "$file" "$guest/"
        echo "/${file##*/}" >>"$guest/modules"
    done
(cd "$guest" && find . | cpio --quiet -o -H newc -R 0:0) >"$machine/initrd"
cp "$kernel"/boot/vmlinuz-* "$machine/vmlinuz"

UGW_SERVICE_DIR=$machine "$python" -m pytest -q -x -p no:cacheprovider tests/service
