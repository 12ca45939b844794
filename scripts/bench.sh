#!/bin/bash
# Builds and runs the benchmarks; what they print is measured here and now, nothing is asserted.
#
#   scripts/bench.sh [--seconds N]      N: how long the line is watched (30)
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

need "${build_packages[@]}" libbenchmark-dev
cmake --preset dev -DUGW_BENCH=ON >/dev/null
cmake --build --preset dev --target UGW card_shim aggregation_bench >/dev/null
build/bench/aggregation_bench
with_namespaces "$python" bench/line_bench.py --build "$root/build" "$@"
