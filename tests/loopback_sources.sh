#!/usr/bin/env bash
# Tests, benchmarks and scripts send traffic only to this machine: every IPv4
# address written in their sources is a loopback one (127.0.0.0/8), the
# wildcard 0.0.0.0 or a netmask, except in the fixtures below, which hold
# addresses only as text to parse and never as somewhere to send to.
# Usage: loopback_sources.sh SOURCE_DIR
set -eu
cd "$1"
parse_only=(
    tests/access/tst_access_list.cpp     # access-list rows, the decision, the Add Network dialog's octets
    tests/recovery/tst_recovery.cpp      # ROMMON variables typed to a pseudo-terminal
    tests/snmp/tst_monitor.cpp           # object identifiers and decoded agent replies
    tests/fuzz/                          # in-memory sockets only
)
is_parse_only() {
    for allowed in "${parse_only[@]}"; do
        [[ $1 == "$allowed"* ]] && return 0
    done
    return 1
}
# A netmask: ones from the left, then zeros.
is_mask() {
    local IFS=. bits="" octet bit
    for octet in $1; do
        for bit in 128 64 32 16 8 4 2 1; do
            bits+=$(( (10#$octet & bit) ? 1 : 0 ))
        done
    done
    [[ $bits =~ ^1*0*$ ]]
}
bad=0
while IFS=: read -r file line address; do
    is_parse_only "$file" && continue
    [[ $address == 127.* || $address == 0.0.0.0 ]] && continue
    is_mask "$address" && continue
    echo "$file:$line: $address is not a loopback address" >&2
    bad=1
done < <(find tests bench scripts -type f -not -path '*/corpus/*' -not -path '*/data/*' -print0 |
    xargs -0 grep -I -noE '(^|[^0-9.])([0-9]{1,3}\.){3}[0-9]{1,3}($|[^0-9.])' 2>/dev/null |
    sed -E 's/^([^:]*):([0-9]*):[^0-9]*(([0-9]{1,3}\.){3}[0-9]{1,3}).*/\1:\2:\3/')
[ $bad = 0 ] || { echo "FAIL: send test traffic to 127.0.0.x (or ::1) only" >&2; exit 1; }
echo "every address in tests, benchmarks and scripts is loopback, a mask or parse-only"
