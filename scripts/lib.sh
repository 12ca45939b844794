# What run.sh and test.sh share; sourced by them.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
python=/usr/bin/python3
export PYTHONPATH=$root PYTHONDONTWRITEBYTECODE=1

build_packages=(g++ cmake ninja-build qt6-base-dev libncurses-dev python3)
test_packages=(libgtest-dev libgmock-dev libbenchmark-dev python3-pytest python3-pexpect python3-pyte
               python3-prometheus-client mandoc)
fuzz_packages=(clang-14 libclang-rt-14-dev)
web_packages=(chromium chromium-driver python3-selenium fonts-dejavu-core)

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs those of the named packages that are missing; touches nothing when all are there.
need() {
    local missing=() package
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "installing: ${missing[*]}"
        as_root apt-get update -q
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
    fi
}

# Runs a command that makes mount and IPC namespaces: as it is where we may, with root's rights otherwise.
with_namespaces() {
    if [ "$(id -u)" = 0 ] || unshare -Urm true 2>/dev/null; then
        "$@"
    else
        sudo --preserve-env=PYTHONPATH,UGW_BUILD_DIR,TSAN_OPTIONS,PYTHONDONTWRITEBYTECODE,NO_COLOR,TERM "$@"
    fi
}
