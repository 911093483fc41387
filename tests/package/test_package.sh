#!/usr/bin/env bash
# Builds the Debian package from the build tree, unpacks it into a throw-away
# root and checks what it installs; as root it also installs it and checks that
# an unprivileged user's tarnwick can bind UDP port 69 through the capability.
set -eu
build=$1
source=$2
fail() { echo "FAIL: $*" >&2; exit 1; }
need() { command -v "$1" >/dev/null || fail "$1 is missing (Debian package $2)"; }
need dpkg-deb dpkg
need desktop-file-validate desktop-file-utils

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }
deb=$(ls "$work"/out/tarnwick_*.deb)
echo "built $(basename "$deb")"

root=$work/root
dpkg-deb -x "$deb" "$root"
for f in usr/bin/tarnwick \
         usr/share/applications/org.tarnwick.Tarnwick.desktop \
         usr/share/metainfo/org.tarnwick.Tarnwick.metainfo.xml \
         usr/share/man/man1/tarnwick.1 \
         usr/lib/systemd/system/tarnwick.service \
         usr/share/icons/hicolor/32x32/apps/tarnwick.png \
         usr/share/icons/hicolor/256x256/apps/tarnwick.png; do
    [ -e "$root/$f" ] || fail "package lacks /$f"
done
grep -q '^Categories=Network;' "$root/usr/share/applications/org.tarnwick.Tarnwick.desktop" || fail "desktop entry category"
desktop-file-validate "$root/usr/share/applications/org.tarnwick.Tarnwick.desktop" || fail "desktop-file-validate"
if command -v appstreamcli >/dev/null; then
    appstreamcli validate --no-net "$root/usr/share/metainfo/org.tarnwick.Tarnwick.metainfo.xml" || fail "appstreamcli validate"
else
    echo "appstreamcli not installed: metainfo not validated"
fi

# The man page documents every option the program offers.
for option in $("$root/usr/bin/tarnwick" --help | grep -o -- '--[a-z-]*' | sort -u); do
    grep -q -- "$(echo "$option" | sed 's/-/\\\\-/g')" "$root/usr/share/man/man1/tarnwick.1" || fail "man page lacks $option"
done
# No private run path: Qt comes from the system.
if readelf -d "$root/usr/bin/tarnwick" | grep -qE 'RPATH|RUNPATH'; then fail "binary carries a run path"; fi

control=$work/control
dpkg-deb -e "$deb" "$control"
grep -q 'setcap cap_net_bind_service=+ep /usr/bin/tarnwick' "$control/postinst" || fail "postinst does not grant the capability"
# The headless service is shipped off: nothing enables it.
! grep -q 'systemctl\|deb-systemd' "$control/postinst" || fail "postinst enables the service"
grep -q '^ExecStart=/usr/bin/tarnwick --headless' "$root/usr/lib/systemd/system/tarnwick.service" || fail "service does not run --headless"
depends=$(dpkg-deb -f "$deb" Depends)
for p in libqt6widgets6 libqt6network6 libqt6serialport6 libssh-4; do
    echo "$depends" | grep -q "$p" || fail "Depends lacks $p: $depends"
done

if [ "$(id -u)" -ne 0 ]; then
    echo "SKIPPED: not root, so the install and capability steps cannot run"
    exit 77
fi
need setpriv util-linux
need getcap libcap2-bin
DEBIAN_FRONTEND=noninteractive dpkg -i "$deb" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg -i"; }
trap 'dpkg -r tarnwick >/dev/null 2>&1; rm -rf "$work"' EXIT
if ! getcap /usr/bin/tarnwick | grep -q cap_net_bind_service; then
    echo "SKIPPED capability check: this file system does not keep file capabilities ($(cat "$work/dpkg.log" | grep -i tarnwick: | head -1))"
    exit 77
fi
if ss -uln 'sport = :69' | grep -q ':69'; then
    echo "SKIPPED unprivileged bind check: UDP port 69 is already in use on this machine"
    exit 77
fi
chmod 755 "$work"
cd "$work"
setpriv --reuid=65534 --regid=65534 --clear-groups \
    env -u DISPLAY HOME="$work" XDG_CONFIG_HOME="$work" \
    /usr/bin/tarnwick --headless --tftp-port 69 --log-port 50514 --acl "$work/ACLIST.ini" \
    >"$work/out.log" 2>"$work/err.log" &
pid=$!
for _ in $(seq 50); do
    grep -q 'Listen' "$work/out.log" 2>/dev/null && break
    sleep 0.2
done
bound=no
ss -ulpn 'sport = :69' | grep -q tarnwick && bound=yes
kill -TERM $pid; wait $pid || true
grep -q 'could not be bound' "$work/err.log" && { cat "$work/err.log"; fail "unprivileged tarnwick could not bind port 69"; }
[ "$bound" = yes ] || { cat "$work/err.log"; fail "port 69 not bound by the unprivileged tarnwick"; }
echo "an unprivileged user's tarnwick bound UDP port 69"
