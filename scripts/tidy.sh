#!/bin/bash
# Runs clang-tidy (checks in .clang-tidy) over the product's sources, and clang-format over all of ours.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

need "${build_packages[@]}" clang-tidy clang-format
[ -f build/compile_commands.json ] || cmake --preset dev -DUGW_TESTS=OFF -DUGW_BENCH=OFF >/dev/null
git ls-files -- '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
git ls-files -- UGW.cpp 'Common/*.cpp' 'Config/*.cpp' 'Measure/*.cpp' 'DevMgr/*.cpp' 'CABP/*.cpp' 'MLINK/*.cpp' 'tools/*.cpp' |
    xargs -P "$(nproc)" -n 2 clang-tidy --quiet -p build
echo "clean"
