#!/bin/bash
# Builds with warnings as errors, runs the unit and integration tests and those of the page in a browser, then the unit
# tests again under the address and undefined-behaviour sanitizers, and each fuzz target for half a minute.
#
#   scripts/test.sh [--quick]      --quick: the unit tests only, without sanitizers
#
# Installs what is missing (with sudo if you aren't root).
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

quick=
case "${1:-}" in
    --quick) quick=yes ;;
    "") ;;
    *) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

jobs=$(nproc)
failed=
need "${build_packages[@]}" "${test_packages[@]}"
# Before the build is set up: without a browser it leaves the page's tests out.
[ "$quick" ] || need "${web_packages[@]}" "${fuzz_packages[@]}"

cmake --preset dev -DUGW_TESTS=ON -DUGW_BENCH=ON
cmake --build --preset dev -j "$jobs"
if [ "$quick" ]; then
    ctest --test-dir build -j "$jobs" -L unit --output-on-failure
    exit
fi
ctest --test-dir build -j "$((jobs + 1))" -L unit --output-on-failure || failed="$failed unit"

# The others mostly wait. What is left to build is built meanwhile, behind them.
build_rest() {
    cmake --preset asan
    cmake --build --preset asan -j "$jobs" --target unit_tests
    cmake --preset fuzz
    cmake --build --preset fuzz -j "$jobs"
}
export -f build_rest
export jobs
nice -n 19 bash -ec build_rest > build/rest.log 2>&1 &
rest=$!
# They watch real time: what fails once because the machine was busy gets a second chance.
with_namespaces ctest --test-dir build -j "$((3 * jobs))" -LE unit --output-on-failure --repeat until-pass:2 \
    || failed="$failed integration"
if ! wait "$rest"; then
    cat build/rest.log
    exit 1
fi

UBSAN_OPTIONS=print_stacktrace=1 ctest --test-dir build-asan -j "$jobs" -L unit --output-on-failure \
    || failed="$failed asan"
scripts/fuzz.sh --seconds 30 --jobs "$((2 * jobs))" || failed="$failed fuzz"

if [ "$failed" ]; then
    echo "failed:$failed"
    exit 1
fi
echo "all tests passed, in $((SECONDS / 60)) min $((SECONDS % 60)) s"
