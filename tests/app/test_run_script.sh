#!/usr/bin/env bash
# Runs README's run command the way a user types it, against the build folder
# this test belongs to: `scripts/run --version` (also the program's own
# version check), and `scripts/run` with no display, which must start headless
# and listen until SIGTERM stops it.
set -eu
source=$1
build=$2
fail() { echo "FAIL: $*" >&2; exit 1; }
export TW_BUILD_DIR=$build
unset DISPLAY WAYLAND_DISPLAY QT_QPA_PLATFORM
work=$(mktemp -d)
pid=
cleanup() { [ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
export XDG_CONFIG_HOME=$work/config HOME=$work/home
mkdir -p "$HOME"

version=$("$source/scripts/run" --version) || fail "scripts/run --version exited with $?"
echo "$version" | grep -q '^Tarnwick [0-9]' || fail "scripts/run --version printed: $version"

free_udp_port() {
    local port
    while :; do
        port=$((20000 + RANDOM % 40000))
        ss -Hlun "sport = :$port" | grep -q . || { echo "$port"; return; }
    done
}
tftp=$(free_udp_port)
log=$(free_udp_port)
cd "$work"
"$source/scripts/run" --tftp-port "$tftp" --log-port "$log" --acl "$work/ACLIST.ini" \
    >"$work/out" 2>"$work/err" &
pid=$!
for _ in $(seq 600); do
    grep -qP '^socket\t1\t.*Listen' "$work/out" && break
    kill -0 "$pid" 2>/dev/null || { cat "$work/err" >&2; fail "scripts/run exited before listening"; }
    sleep 0.1
done
grep -qP '^socket\t1\t.*Listen' "$work/out" || { cat "$work/out" "$work/err" >&2; fail "no listening socket row within 60 s"; }
grep -q 'starting in --headless mode' "$work/err" || fail "scripts/run did not say it starts headless"
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
pid=
[ "$status" -eq 0 ] || fail "tarnwick exited with $status on SIGTERM"
echo "scripts/run: version and a headless run listening on UDP $tftp"
