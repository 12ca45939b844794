#!/bin/bash
# The bad days of the gateway at full length: noise for so many minutes at each rate, 50 kills. Prints what
# each cost; the short ones are part of scripts/test.sh.
#
#   scripts/reliability.sh [--minutes N]      (3)
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

minutes=3
case "${1:-}" in
    --minutes) minutes=${2:?} ;;
    "") ;;
    *) sed -n '2,5s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

need "${build_packages[@]}" "${test_packages[@]}"
cmake --preset dev >/dev/null
cmake --build --preset dev --target UGW card_shim >/dev/null
with_namespaces env UGW_BAD_MINUTES="$minutes" UGW_BUILD_DIR="$root/build" PYTHONPATH="$root" \
    "$python" -m pytest -q -p no:cacheprovider -rP tests/integration/test_bad_*.py
