#!/bin/bash
# Builds and runs the benchmarks; what they print is measured here and now, nothing is asserted.
#
#   scripts/bench.sh [--seconds N] [--plant] [--exchanges N]
#
#   --seconds N      how long each line is watched (30)
#   --plant          also the bus with 0 to 3 silent cabinets, and how long until an alarm shows: nine minutes
#   --exchanges N    also so many exchanges with the module without the time of the line, for the memory (none)
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

need "${build_packages[@]}" libbenchmark-dev libmodbus-dev pkg-config
cmake --preset dev -DUGW_BENCH=ON >/dev/null
cmake --build --preset dev --target UGW card_shim aggregation_bench modbus_exchange >/dev/null
build/bench/aggregation_bench
with_namespaces "$python" bench/line_bench.py --build "$root/build" "$@"
with_namespaces "$python" bench/module_bench.py --build "$root/build" "$@"
case " $* " in
    *" --plant "*) with_namespaces "$python" bench/plant_bench.py --build "$root/build" "$@" ;;
esac
