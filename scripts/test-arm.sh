#!/bin/bash
# Cross-builds for ARM with warnings as errors and runs the unit tests there, under user-mode emulation: for the card's
# 32-bit ARM with Qt 6 and Qt 5, for 64-bit ARM with Qt 6. Ends with the size of each daemon.
#
#   scripts/test-arm.sh [PRESET...]      armhf armhf-qt5 arm64 arm64-qt5; the first three if none is named
#
# Installs what is missing (with sudo if you aren't root).
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

presets=("$@")
[ $# -gt 0 ] || presets=(armhf armhf-qt5 arm64)
compilers=()
for preset in "${presets[@]}"; do
    case "$preset" in
        armhf | armhf-qt5) compilers+=(g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf) ;;
        arm64 | arm64-qt5) compilers+=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu) ;;
        *) sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 2 ;;
    esac
done

# Of Qt, this host gives what a build runs (moc); what is compiled and linked against is in the sysroot.
need cmake ninja-build python3 qemu-user-static qt6-base-dev qt6-base-dev-tools qtbase5-dev-tools "${compilers[@]}"

jobs=$(nproc)
failed=
sizes=
for preset in "${presets[@]}"; do
    echo "== $preset"
    arch=${preset%-qt5}
    scripts/sysroot.sh "$arch"
    cmake --preset "$preset" -DUGW_TESTS=ON
    cmake --build --preset "$preset" -j "$jobs" --target UGW ugwctl unit_tests
    ctest --test-dir "build-$preset" -j "$jobs" -L unit --output-on-failure || failed="$failed $preset"

    case "$arch" in
        armhf) strip=arm-linux-gnueabihf-strip ;;
        arm64) strip=aarch64-linux-gnu-strip ;;
    esac
    "$strip" -o "build-$preset/UGW.stripped" "build-$preset/UGW"
    sizes="$sizes$(printf '%-10s %8d' "$preset" "$(stat -c %s "build-$preset/UGW.stripped")")"$'\n'
done

printf 'UGW stripped, in bytes:\n%s' "$sizes"
if [ "$failed" ]; then
    echo "failed:$failed"
    exit 1
fi
echo "all unit tests passed on ARM, in $((SECONDS / 60)) min $((SECONDS % 60)) s"
