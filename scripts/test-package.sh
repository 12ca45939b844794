#!/bin/bash
# Builds the packages and tests them: the same bytes out of two folders, hardened programs, lintian, what systemd thinks of
# the unit, and in a clean Debian root: installed, started, upgraded, removed, purged, nothing left behind. Those of
# armhf and arm64 too, but for their roots: armhf's where this machine lets foreign programs run (binfmt_misc), else that
# is reported as skipped; arm64's never.
#
#   scripts/test-package.sh [--no-rebuild] [--no-arm]     --no-rebuild: without the second build in another folder
#
# Needs root (or sudo), for namespaces and change of root; works below build/package-test. Installs what is missing.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$root/scripts/clean-root.sh"
cd "$root"

rebuild=yes
arm=yes
for option in "$@"; do
    case "$option" in
        --no-rebuild) rebuild= ;;
        --no-arm) arm= ;;
        *) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 2 ;;
    esac
done
if [ "$(id -u)" != 0 ]; then
    exec sudo --preserve-env=SOURCE_DATE_EPOCH,UGW_MIRROR "$0" "$@"
fi

need lintian debootstrap systemd binutils fakeroot git busybox
host=$(dpkg --print-architecture)
failed=
report=

tell() { report="$report$(printf '%-9s %s' "$1" "$2")"$'\n'; echo "== $1: $2"; }
good() { tell ok "$1"; }
bad() { tell FAILED "$1"; failed=yes; }
check() {
    local what=$1
    shift
    if "$@"; then good "$what"; else bad "$what"; fi
}

# -- What is built ------------------------------------------------------------------------------------------------

same_bytes() {
    local other=$work/in/another/folder/ugw package
    rm -rf "$work/in"
    mkdir -p "$other"
    git -c safe.directory='*' ls-files -z -co --exclude-standard | xargs -0 tar cf - --ignore-failed-read | tar xf - -C "$other"
    git -c safe.directory='*' rev-parse --short=7 HEAD >"$other/cmake/revision.txt"
    (unset CMAKE_CXX_COMPILER_LAUNCHER CMAKE_C_COMPILER_LAUNCHER
     SOURCE_DATE_EPOCH=$SOURCE_DATE_EPOCH TZ=Asia/Tokyo "$other/scripts/package.sh" >"$work/another.log" 2>&1) || return 1
    for package in build-release/packages/*.deb; do
        cmp "$package" "$other/build-release/packages/${package##*/}" || return 1
    done
    rm -rf "$work/in"
}

hardened() {
    local program headers symbols
    for program in "$1/usr/sbin/UGW" "$1/usr/bin/ugwctl"; do
        headers=$(readelf -hldSW "$program")
        symbols=$(readelf --dyn-syms -W "$program")
        [[ $headers =~ Type:\ +DYN ]] || { echo "$program: no PIE"; return 1; }
        [[ $headers == *GNU_RELRO* ]] || { echo "$program: no RELRO"; return 1; }
        [[ $headers == *BIND_NOW* ]] || { echo "$program: binds late"; return 1; }
        [[ $headers =~ GNU_STACK\ [0-9a-fx\ ]+RW\  ]] || { echo "$program: runs its stack"; return 1; }
        [[ $symbols == *__stack_chk_fail* ]] || { echo "$program: no stack protector"; return 1; }
        [[ $symbols == *__vsnprintf_chk* ]] || { echo "$program: not fortified"; return 1; }
        [[ $headers != *.symtab* ]] || { echo "$program: holds its symbols"; return 1; }
        ! grep -qF "$root" "$program" || { echo "$program: names the folder it was built in"; return 1; }
    done
}

# What the packages of an architecture hold.
content() {
    local arch=$1 packages=$2 folder=$work/content-$1
    check "$arch: lintian: no errors" lintian --allow-root --fail-on error "$packages"/*.deb
    rm -rf "$folder"
    dpkg-deb -x "$packages"/ugw_*_"$arch".deb "$folder"
    dpkg-deb -x "$packages"/ugw-dbg_*_"$arch".deb "$folder"
    check "$arch: programs are hardened" hardened "$folder"
    check "$arch: symbols of the programs" symbols "$folder"
    rm -rf "$folder"
}

symbols() {
    local program id
    for program in usr/sbin/UGW usr/bin/ugwctl; do
        id=$(readelf -n "$1/$program" | grep 'Build ID')
        [ "$id" ] && [ "$id" = "$(readelf -n "$1/usr/lib/debug/$program.debug" | grep 'Build ID')" ] || return 1
        [[ $(readelf -SW "$1/usr/lib/debug/$program.debug") == *.debug_info* ]] || return 1
    done
}

# Names of the packages that one depends on.
depends() {
    dpkg-deb -f "$1" Depends | tr ',' '\n' | sed 's/(.*//; s/ //g' | sort
}

# -- In a clean root ----------------------------------------------------------------------------------------------

# Every path of a root but for what the package manager and the linker keep for themselves.
listing() {
    (cd "$1" && find . -xdev \( -path ./var/lib/dpkg -o -path ./var/cache -o -path ./var/log/dpkg.log -o -path ./run \
        -o -path ./proc -o -path ./tmp -o -path ./.stamp -o -path ./root \) -prune -o -print | LC_ALL=C sort)
}

# The same files under a lower version: what an upgrade comes from.
earlier() {
    rm -rf "$work/earlier"
    dpkg-deb -R "$1" "$work/earlier"
    sed -i 's/^Version: .*/Version: 0.0.9/' "$work/earlier/DEBIAN/control"
    dpkg-deb --root-owner-group -b "$work/earlier" "$2" >/dev/null
}

life() {
    local arch=$1 package=$2 folder=$work/root-$1 status inode
    base_root "$arch" "$package" "$work/base-$arch" || { bad "$arch: clean root (see $work/debootstrap-$arch.log)"; return; }
    rm -rf "$folder"
    cp -a "$work/base-$arch" "$folder"
    earlier "$package" "$folder/tmp/old.deb"
    cp "$package" "$folder/tmp/new.deb"
    cp build-release/packages/ugw-dev_*.deb "$folder/tmp/dev.deb"
    listing "$folder" >"$work/before-$arch"

    check "$arch: installed, an earlier version" in_root "$folder" dpkg -i /tmp/old.deb
    check "$arch: not started by itself" test ! -e "$folder/etc/systemd/system/multi-user.target.wants/ugw.service"
    check "$arch: file that names the segment" test -f "$folder/var/lib/ugw/UGW"
    inode=$(stat -c %i "$folder/var/lib/ugw/UGW")
    echo '# changed here' >>"$folder/etc/default/ugw"
    check "$arch: upgraded" in_root "$folder" dpkg -i /tmp/new.deb
    check "$arch: is the new version" test "$(in_root "$folder" dpkg-query -W -f='${Version}' ugw)" = "$(dpkg-deb -f "$package" Version)"
    check "$arch: upgrade keeps the key of the segment" test "$inode" = "$(stat -c %i "$folder/var/lib/ugw/UGW")"
    check "$arch: upgrade keeps the arguments" grep -q '# changed here' "$folder/etc/default/ugw"

    status=0
    in_root "$folder" UGW >"$work/run-$arch" 2>&1 || status=$?
    check "$arch: UGW without arguments ends with 255" test "$status" = 255
    check "$arch: and tells what is missing" grep -q 'Missing parameter, #1 Device port name' "$work/run-$arch"
    check "$arch: build date is that of the release" \
        grep -q "$(LC_ALL=C date -u -d "@$SOURCE_DATE_EPOCH" '+%a %b %d %H:%M:%S UTC %Y')" "$work/run-$arch"
    check "$arch: ugwctl tells its version" in_root "$folder" ugwctl --version
    # Real ports are not needed for the tree: a card whose ports can't be opened goes on without them.
    check "$arch: a started UGW is seen by ugwctl" in_root "$folder" sh -c 'cd /var/lib/ugw || exit 1
        UGW /dev/ttyNO1 /dev/ttyNO2 9600 1 1111 true >/run/log 2>&1 & sleep 5; ugwctl --dir /var/lib/ugw tree && kill $!'
    check "$arch: ugw-dev installed" in_root "$folder" dpkg -i /tmp/dev.deb
    check "$arch: ugw-dev removed" in_root "$folder" dpkg -P ugw-dev

    [ "$arch" != "$host" ] || systemd_checks "$folder"

    check "$arch: removed" in_root "$folder" dpkg -r ugw
    check "$arch: removal leaves the arguments" test -f "$folder/etc/default/ugw"
    check "$arch: removal leaves the key" test -f "$folder/var/lib/ugw/UGW"
    check "$arch: purged" in_root "$folder" dpkg -P ugw
    # The status file of the run above.
    rm -f "$folder/var/log/vu.json" "$folder/var/log/vu.tmp"
    listing "$folder" >"$work/after-$arch"
    check "$arch: nothing is left behind" diff "$work/before-$arch" "$work/after-$arch"
    rm -rf "$folder"
}

systemd_checks() {
    local folder=$1 unit=/usr/lib/systemd/system/ugw.service text score
    # Where the manual pages are looked for is this host's business.
    text=$(systemd-analyze verify --man=no --recursive-errors=no --root="$folder" "$unit" 2>&1) || text="$text (refused)"
    check "unit is well formed${text:+ ($text)}" test -z "$text"
    text=$(systemd-analyze security --offline=true --root="$folder" "$unit" 2>/dev/null | tail -1)
    score=$(sed -n 's/.*: \([0-9.]*\) .*/\1/p' <<<"$text")
    check "exposure of the unit: ${score:-?}, at most 3.0" awk -v s="${score:-10}" 'BEGIN { exit !(s <= 3.0) }'
}

# The start script with BusyBox's programs only, in a root that has nothing else.
busybox_life() {
    local folder=$work/busybox
    rm -rf "$folder"
    mkdir -p "$folder"/{bin,sbin,usr/sbin,usr/bin,etc/default,etc/init.d,var/lib/ugw,var/log,run,proc,dev,tmp}
    cp -a "$work/base-$host/lib" "$work/base-$host/lib64" "$folder/" 2>/dev/null
    mkdir -p "$folder/usr"
    cp -a "$work/base-$host/usr/lib" "$folder/usr/" 2>/dev/null
    [ ! -e "$work/base-$host/usr/lib64" ] || cp -a "$work/base-$host/usr/lib64" "$folder/usr/"
    dpkg-deb -x "$1" "$folder"
    cp "$(command -v busybox)" "$folder/bin/busybox"
    sed -i 's/^UGW_ID=.*/UGW_ID=1/; s/^UGW_MASK=.*/UGW_MASK=1000/; s/ttyQX/ttyNO/' "$folder/etc/default/ugw"
    ln -s /usr/share/ugw/init.d/S80ugw "$folder/etc/init.d/S80ugw"
    cp "$root/packaging/test-init.sh" "$folder/tmp/test-init.sh"
    : >"$folder/dev/null"
    # "/" has to be a mount there, as it is on a board.
    unshare --mount --ipc --pid --fork --kill-child sh -c '
        mount --bind "$1" "$1" && mount -t proc proc "$1/proc" && mount -t tmpfs tmpfs "$1/run" &&
            mount --bind /dev/null "$1/dev/null" || exit 125
        chroot "$1" /bin/busybox --install -s /bin
        exec env -i PATH=/usr/sbin:/usr/bin:/bin chroot "$1" /bin/sh /tmp/test-init.sh' sh "$folder"
}

# Lets armhf programs run here: by what is registered, else by a registration that ends with this script.
arm_runs() {
    need qemu-user-static
    local files=/proc/sys/fs/binfmt_misc undo=
    if [ ! -e $files/register ]; then
        mount -t binfmt_misc binfmt_misc $files 2>/dev/null || return 1
        undo="umount $files"
        trap "$undo" EXIT
    fi
    if [ ! -e $files/qemu-arm ]; then
        # The interpreter is opened now (F), so that it need not be in the root.
        printf '%s' ':qemu-arm:M:0:\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-arm-static:F' \
            2>/dev/null >$files/register || return 1
        trap "echo -1 >$files/qemu-arm; $undo" EXIT
    fi
}

SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -c safe.directory='*' log -1 --format=%ct)}
export SOURCE_DATE_EPOCH
scripts/package.sh
package=$(ls build-release/packages/ugw_*_"$host".deb)
if [ "$rebuild" ]; then
    check "two builds in different folders give the same packages (see $work/another.log)" same_bytes
else
    tell skipped "the second build in another folder"
fi
content "$host" build-release/packages
life "$host" "$package"
check "BusyBox start script" busybox_life "$package"
if [ "$arm" ]; then
    scripts/package.sh armhf arm64
    for arch in armhf arm64; do
        packages=build-release-$arch/packages
        content "$arch" "$packages"
        # Written down for these; worked out for this host.
        check "$arch: depends on what $host's does" test "$(depends "$packages"/ugw_*_"$arch".deb)" = "$(depends "$package")"
        check "$arch: the same ugw-dev" cmp build-release/packages/ugw-dev_*.deb "$packages"/ugw-dev_*.deb
    done
    if arm_runs; then
        life armhf "$(ls build-release-armhf/packages/ugw_*_armhf.deb)"
    else
        tell skipped "armhf: clean root: binfmt_misc cannot be registered here"
    fi
else
    tell skipped "armhf, arm64 (--no-arm)"
fi

printf '\n%s' "$report"
[ ! "$failed" ] || exit 1
echo "the packages are fine, in $((SECONDS / 60)) min $((SECONDS % 60)) s"
