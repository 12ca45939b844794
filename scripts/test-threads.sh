#!/bin/bash
# The thread sanitizer over what runs on more than one thread: the unit tests with threads, and the real daemon, built
# with it, on the virtual plant. tests/tsan.supp names what the design leaves unlocked on purpose.
#
#   scripts/test-threads.sh [test_NAME.py ...]     the integration tests to run; a choice of them if none is named
#
# The daemon is slower so: tests that measure its times may fail here; what counts are the races, listed at the end.
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$root"

unit_tests='ComDevThreads|SingleShot|Role|SysMgr|MLINKQuery|ThreadMLINK|transaction|myMutex|QueuesMgr|bus_thread|CABPPort'
integration_tests=(test_master.py test_slave.py test_module_panels.py test_system_panel.py test_tunnel_commands.py
                   test_tunnel_queries.py test_orderly_stop.py test_port.py test_status_file.py)
[ $# -eq 0 ] || integration_tests=("$@")

jobs=$(nproc)
need "${build_packages[@]}" "${test_packages[@]}"
cmake --preset dev -DUGW_TESTS=ON
cmake --build --preset dev -j "$jobs" --target card_shim ugwctl
cmake --preset tsan
cmake --build --preset tsan -j "$jobs" --target UGW ugwctl unit_tests
mkdir -p build-tsan/sim
cp build/sim/libcard_shim.so build-tsan/sim/

reports=$root/build-tsan/reports
rm -rf "$reports"
mkdir -p "$reports"
export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp log_path=$reports/race exitcode=0 history_size=4"
failed=
ctest --test-dir build-tsan -j "$jobs" -L unit -R "$unit_tests" --output-on-failure || failed="$failed unit"
UGW_BUILD_DIR=$root/build-tsan with_namespaces "$python" -m pytest -q -p no:cacheprovider \
    "${integration_tests[@]/#/tests/integration/}" || failed="$failed integration"

if compgen -G "$reports/race.*" > /dev/null; then
    cat "$reports"/race.* | grep '^SUMMARY' | sort | uniq -c | sort -rn
    echo "races: the reports are in $reports"
    exit 1
fi
echo "no race${failed:+; failed:$failed}"
[ -z "$failed" ]
