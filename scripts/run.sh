#!/bin/bash
# Builds the gateway and runs it on a virtual plant: the real UGW as card A, master of a virtual bus with the cabinets
# B, C and D, live on the terminal until Ctrl-C.
#
#   scripts/run.sh [--seconds N] [--lose C] [--speed X]
#
# Installs what is missing to build it (with sudo if you aren't root). Exit status 0 if the gateway really published.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

need "${build_packages[@]}"
# A first build leaves the tests out, so that their libraries needn't be there; a tree that test.sh has set up keeps
# them, without building them here.
options=()
[ -f build/CMakeCache.txt ] || options=(-DUGW_TESTS=OFF -DUGW_BENCH=OFF)
mkdir -p build
log=build/run-build.log
echo "building the gateway (log in $log) ..."
if ! { cmake --preset dev "${options[@]}" && cmake --build --preset dev --target UGW card_shim; } >"$log" 2>&1; then
    cat "$log"
    exit 1
fi
with_namespaces "$python" -m sim.run --build "$root/build" "$@"
