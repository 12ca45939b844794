#!/bin/bash
# The thread sanitizer over the unit tests, and over the real daemon and ugwctl, built with it, on the virtual plant.
# tests/tsan.supp names what the design leaves unlocked on purpose.
#
#   scripts/test-threads.sh [test_NAME.py ...]     the integration tests to run; if none is named, all of the daemon
#                                                  but those that the sanitizer's weight alone makes fail
#
# The daemon is slower so: what fails on the plant gets a second chance. The races are listed at the end, whatever failed.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

# Left out, because they measure what the sanitizer changes:
left_out=(
    # memory, which its shadow lets grow
    test_bad_commands.py test_bad_lines.py test_bad_log.py test_bad_neighbours.py test_bad_process.py
    # the times of a round, of late answers and of the rest after a bad one, to fractions of a second
    test_module_round.py test_module_late.py test_module_faults.py
)
integration_tests=("$@")
if [ $# -eq 0 ]; then
    for file in tests/integration/test_*.py; do
        name=$(basename "$file")
        # test_sim_*.py test the virtual plant, without a daemon.
        [[ $name = test_sim_* || " ${left_out[*]} " = *" $name "* ]] || integration_tests+=("$name")
    done
fi

jobs=$(nproc)
need "${build_packages[@]}" "${test_packages[@]}"
cmake --preset dev -DUGW_TESTS=ON
cmake --build --preset dev -j "$jobs" --target card_shim
cmake --preset tsan
cmake --build --preset tsan -j "$jobs" --target UGW ugwctl unit_tests
mkdir -p build-tsan/sim
cp build/sim/libcard_shim.so build-tsan/sim/

reports=$root/build-tsan/reports
rm -rf "$reports"
mkdir -p "$reports"
export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp history_size=4"
failed=
# In virtual time: a race fails its test, and nothing gets a second chance. In the handler of SIGINT the fakes do more
# than the calls that they stand for, with signals blocked. Left out is what forks a process for each of a thousand
# calls: within them the sanitizer stalls, and each turns its links on one thread.
TSAN_OPTIONS="$TSAN_OPTIONS report_signal_unsafe=0" ctest --test-dir build-tsan -j "$jobs" -L unit \
    -E every_call_fails_once --output-on-failure | tee "$reports/unit.log" || failed="$failed unit"

TSAN_OPTIONS="$TSAN_OPTIONS log_path=$reports/race exitcode=0"

run_file() {
    local run=(timeout 600 "$python" -m pytest -q -rf -o "cache_dir=build-tsan/pytest/$1" "tests/integration/$1")
    with_namespaces "${run[@]}" > "$reports/$1.log" 2>&1 \
        || with_namespaces "${run[@]}" --last-failed >> "$reports/$1.log" 2>&1 \
        || { cat "$reports/$1.log" && touch "$reports/failed"; }
    echo "$1: $(tail -1 "$reports/$1.log")"
}
export UGW_BUILD_DIR=$root/build-tsan
for file in "${integration_tests[@]}"; do
    while [ "$(jobs -pr | wc -l)" -ge "$((2 * jobs))" ]; do
        wait -n || true
    done
    run_file "$file" &
done
wait
[ ! -e "$reports/failed" ] || failed="$failed integration"

if grep -aqs '^SUMMARY' "$reports"/race.* "$reports/unit.log"; then
    grep -ahs '^SUMMARY' "$reports"/race.* "$reports/unit.log" | sort | uniq -c | sort -rn
    echo "races: the reports are in $reports"
    exit 1
fi
echo "no race${failed:+; failed:$failed}"
[ -z "$failed" ]
