#!/usr/bin/env bash
# Checks the installation and the Debian package of a configured build:
#   tools/check-package.sh BUILD_DIR
# Installs into a staging directory (DESTDIR) and checks that exactly the
# two programs, the configuration, the systemd unit and its shutdown land there, then makes
# the package with cpack and checks its file list, its conffiles and that the
# unit names the installed daemon. Builds koltad and kolta first when needed.
# Exit status 0 when all is well, 1 on a failed check, 77 when dpkg-deb is
# missing.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build=$(cd "$1" && pwd)
for tool in dpkg-deb cpack; do
  command -v "$tool" >/dev/null || { echo "package check skipped: no $tool" >&2; exit 77; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/kolta-package-check.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0
fail() {
  echo "FAILED: $*" >&2
  failed=1
}

expected="/etc/kolta/kolta.conf
/usr/bin/kolta
/usr/lib/systemd/system/koltad.service
/usr/libexec/koltad/shutdown
/usr/sbin/koltad"

cmake --build "$build" --target koltad kolta >/dev/null

echo "-- cmake --install into a staging directory"
DESTDIR="$work/stage" cmake --install "$build" --prefix /usr --strip >"$work/install.log"
installed=$(cd "$work/stage" && find . ! -type d | sed 's/^\.//' | LC_ALL=C sort)
[ "$installed" = "$expected" ] || fail "installed files differ:
$installed"
grep -qx 'ExecStart=/usr/sbin/koltad' "$work/stage/usr/lib/systemd/system/koltad.service" ||
  fail "the unit does not start /usr/sbin/koltad"
grep -qx 'port=10000' "$work/stage/etc/kolta/kolta.conf" || fail "the configuration has no port=10000"
grep -q '^Environment=PATH=/usr/libexec/koltad:' "$work/stage/usr/lib/systemd/system/koltad.service" ||
  fail "the unit does not put /usr/libexec/koltad first on the daemon's PATH"
# The package's shutdown turns "+0" into "now" and passes the rest on.
mkdir -p "$work/fake"
printf '#!/bin/sh\necho "$@"\n' >"$work/fake/shutdown"
chmod 755 "$work/fake/shutdown"
[ "$(sed "s|/usr/sbin/shutdown /sbin/shutdown|$work/fake/shutdown|" \
      "$work/stage/usr/libexec/koltad/shutdown" | sh -s -- -h +0)" = "-h now" ] ||
  fail "the package's shutdown does not turn -h +0 into -h now"
# A configuration already in place is kept.
echo 'port=4711' >"$work/stage/etc/kolta/kolta.conf"
DESTDIR="$work/stage" cmake --install "$build" --prefix /usr >"$work/install.log"
grep -qx 'port=4711' "$work/stage/etc/kolta/kolta.conf" || fail "the installation replaced an existing configuration"

echo "-- cpack -G DEB"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work/package" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack failed"; exit 1; }
deb=$(ls "$work"/package/*.deb)
echo "   $(basename "$deb")"
packaged=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's/^\.//' | LC_ALL=C sort)
[ "$packaged" = "$expected" ] || fail "packaged files differ:
$packaged"
dpkg-deb -e "$deb" "$work/control"
[ "$(cat "$work/control/conffiles" 2>/dev/null)" = "/etc/kolta/kolta.conf" ] ||
  fail "conffiles is not /etc/kolta/kolta.conf"
[ "$(dpkg-deb -f "$deb" Package)" = "koltad" ] || fail "the package is not called koltad"
dpkg-deb -f "$deb" Depends | grep -q 'libc6' || fail "the package does not depend on libc6"
dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/lib/systemd/system/koltad.service |
  grep -qx 'ExecStart=/usr/sbin/koltad' || fail "the packaged unit does not start /usr/sbin/koltad"

[ "$failed" -eq 0 ] && echo "-- installation and package: all right"
exit "$failed"
