#!/usr/bin/env bash
# Runs test executables the way a developer does by hand: no CTest environment,
# started from a home folder that holds Tarnwick settings, a connection history
# and log files. The home must be left exactly as it was.
# Usage: test_isolation.sh TEST_EXECUTABLE...
set -eu
fail() { echo "FAIL: $*" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
home=$work/home
mkdir -p "$home/.config/Tarnwick" "$home/.local/share/Tarnwick/logs"
printf '[Settings]\nFolderPath=/srv/tftp\nMainLeft=1500\nhistroy1=192\n' \
    >"$home/.config/Tarnwick/Tarnwick.conf"
echo "<189>link up" >"$home/.local/share/Tarnwick/logs/127.0.0.2 01-01-2026.log"

# Every file and folder with its size, time, mode and checksum.
manifest() {
    cd "$home"
    find . -printf '%p %s %T@ %m\n' | sort
    find . -type f -exec md5sum {} + | sort
}
before=$(manifest)
for test in "$@"; do
    (cd "$home" && env -u XDG_CONFIG_HOME -u XDG_DATA_HOME -u XDG_STATE_HOME -u XDG_CACHE_HOME \
        -u DISPLAY -u WAYLAND_DISPLAY QT_QPA_PLATFORM=offscreen HOME="$home" "$test" >"$work/out" 2>&1) \
        || { cat "$work/out" >&2; fail "$(basename "$test") failed when run by hand"; }
done
after=$(manifest)
if [ "$before" != "$after" ]; then
    diff <(echo "$before") <(echo "$after") >&2 || true
    fail "running the tests by hand changed the home folder"
fi
echo "home folder untouched by: $(for t in "$@"; do basename "$t"; done | tr '\n' ' ')"
