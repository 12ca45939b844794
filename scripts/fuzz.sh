#!/bin/bash
# Builds the fuzz targets with libFuzzer and the address and undefined-behaviour sanitizers, runs them and tells how many
# executions each had and what they covered.
#
#   scripts/fuzz.sh [--seconds N] [--jobs N] [target...]      N seconds for each (30), N targets at a time (1)
#
# Targets are the files of tests/fuzz/targets, all of them by default. What is found, and what was learnt, stays under
# build-fuzz/. Installs what is missing (with sudo if you aren't root).
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

seconds=30
jobs=1
targets=()
while [ $# -gt 0 ]; do
    case "$1" in
        --seconds) seconds=${2:?}; shift ;;
        --jobs) jobs=${2:?}; shift ;;
        -*) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 2 ;;
        *) targets+=("$1") ;;
    esac
    shift
done
if [ ${#targets[@]} = 0 ]; then
    for file in tests/fuzz/targets/*.cpp; do
        targets+=("$(basename "$file" .cpp)")
    done
fi

need "${build_packages[@]}" "${test_packages[@]}" "${fuzz_packages[@]}"
cmake --preset fuzz
cmake --build --preset fuzz -j "$(nproc)"

# One target; a log of its own, and a line when it is over.
run_target() {
    local target=$1 dir=$root/build-fuzz/run/$1 ret=0
    local seeds=("$root/tests/fuzz/seeds/$target")
    [ -d "$root/tests/fuzz/findings/$target" ] && seeds+=("$root/tests/fuzz/findings/$target")
    mkdir -p "$dir/learnt" "$dir/findings"
    "$root/build-fuzz/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -max_len=4096 -len_control=0 -timeout=60 \
        -print_final_stats=1 -artifact_prefix="$dir/findings/" "$dir/learnt" "${seeds[@]}" > "$dir/log" 2>&1 || ret=$?
    awk -v target="$target" -v ret="$ret" '
        /^#[0-9]+/ { for (i = 1; i < NF; ++i) { if ($i == "cov:") cov = $(i + 1); if ($i == "ft:") ft = $(i + 1) } }
        /number_of_executed_units/ { runs = $2 }
        /average_exec_per_sec/ { rate = $2 }
        END { printf "%-16s %9d runs, %5d a second, cov %5d, ft %6d%s\n", target, runs, rate, cov, ft,
              ret == 0 ? "" : "  FOUND SOMETHING (" ret ")" }' "$dir/log"
    if [ "$ret" != 0 ]; then
        tail -60 "$dir/log" >&2
        return 1
    fi
}
export -f run_target
export root seconds
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target {}'
