#!/bin/bash
# Runs the tests of the page in a browser, which are also part of test.sh.
#
#   scripts/test-web.sh [--pictures]     --pictures: take the pictures of docs/web.md anew instead (some four minutes)
#
# Installs what is missing (with sudo if you aren't root).
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

need "${build_packages[@]}" "${test_packages[@]}" "${web_packages[@]}"
cmake --preset dev -DUGW_TESTS=ON >/dev/null
cmake --build --preset dev --target UGW card_shim >/dev/null
if [ "${1:-}" = --pictures ]; then
    with_namespaces "$python" tests/web/screenshots.py --build "$root/build"
    exit
fi
with_namespaces ctest --test-dir build -L web --output-on-failure
