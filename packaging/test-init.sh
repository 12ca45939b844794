#!/bin/sh
# What scripts/test-package.sh runs in a root of BusyBox's programs and the package: the start script, through a day.
init=/etc/init.d/S80ugw
fail() { echo "FAILED: $*" >&2; exit 1; }
daemon() { cat /run/ugw/ugw.pid; }
await() { # tries, command...
    tries=$1; shift
    while ! "$@" 2>/dev/null; do
        tries=$((tries - 1)); [ "$tries" -gt 0 ] || return 1
        sleep 0.5
    done
}

$init status && fail "runs before it was started"
$init start || fail "start"
$init status || fail "does not run"
await 20 test -s /run/ugw/vu.json || fail "no status file on tmpfs"
[ "$(readlink /var/log/vu.json)" = /run/ugw/vu.json ] || fail "no link to the status file"
await 20 test -s /var/log/vu.json || fail "the link leads nowhere"
ugwctl --dir /var/lib/ugw tree || fail "no tree"
[ "/proc/$(daemon)/cwd" -ef /var/lib/ugw ] || fail "wrong working directory"
[ "/proc/$(daemon)/exe" -ef /usr/sbin/UGW ] || fail "not the daemon"

first=$(daemon)
again() { [ -s /run/ugw/ugw.pid ] && [ "$(daemon)" != "$first" ] && kill -0 "$(daemon)"; }
kill -9 "$first"
sleep 1
again && fail "no pause before it started again"
await 20 again || fail "not started again after kill -9"

second=$(daemon)
$init restart || fail "restart"
await 20 test -s /run/ugw/ugw.pid || fail "does not run after restart"
kill -0 "$second" 2>/dev/null && fail "the old one survived the restart"
await 20 test -s /run/ugw/vu.json || fail "no status file after restart"
last=$(daemon)
$init stop || fail "stop"
$init status && fail "runs after stop"
kill -0 "$last" 2>/dev/null && fail "the daemon survived the stop"

sed -i 's/^UGW_MASK=.*/UGW_MASK=/' /etc/default/ugw
$init start
sleep 2
$init status && fail "goes on with refused arguments"
echo "the start script is fine"
