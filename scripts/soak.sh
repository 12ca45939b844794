#!/bin/bash
# Four real gateways and their modules under accelerated time, until every line has carried so many exchanges; says
# whether memory, descriptors, threads or the log grew, and whether the counts drifted.
#
#   scripts/soak.sh [--exchanges N] [--minutes N] [--sample SECONDS] [--factor N]
#
#   --exchanges N      on each line (1000000)
#   --minutes N        at most so long (240)
#   --sample SECONDS   between two lines of figures (30)
#   --factor N         so many times as fast as the machine's clock (20)
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

need "${build_packages[@]}"
cmake --preset dev >/dev/null
cmake --build --preset dev --target UGW card_shim >/dev/null
with_namespaces nice -n 19 "$python" bench/soak.py --build "$root/build" "$@"
