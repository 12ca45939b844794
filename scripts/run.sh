#!/bin/bash
# Builds the gateway and runs the whole system on a virtual plant, live on the terminal until Ctrl-C: up to four real UGW
# on one bus, each with a simulated power module on its serial line.
#
#   scripts/run.sh [--cabinets 1..4] [--baud RATE] [--seconds N] [--lose C] [--mains-fails] [--module-dies B]
#                  [--refuse N] [--noise PERCENT] [--speed X]
#
# With --bus-only: one real UGW as card A without a module, master of a bus with the simulated cabinets B, C and D.
#
#   scripts/run.sh --bus-only [--seconds N] [--lose C] [--speed X]
#
# Both serve a page of the plant with --web [CARD] [--port N] [--host ADDRESS], and print where it is (127.0.0.1:8080).
#
# Installs what is missing to build it (with sudo if you aren't root). Exit status 0 if the gateways really published
# and showed what was done to the plant.
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
