#!/usr/bin/env bash
# Checks the installation and the Debian package of a configured build:
#   tools/check-package.sh BUILD_DIR
# Installs into a staging directory (DESTDIR) and checks that exactly the
# two programs, the configuration, the systemd unit, the manual pages, the
# bash completion and the Debian documentation land there, then makes the
# package with cpack and checks its file list, its conffiles, its maintainer
# scripts (systemd reloaded, the service never enabled or started) and that
# the unit names the installed daemon. Last, Debian's lintian must report no
# error and no warning on the package of a native (not cross) build; what it
# is told to accept is in packaging/debian/lintian-overrides, with reasons.
# Builds koltad and kolta first when needed.
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
/usr/sbin/koltad
/usr/share/bash-completion/completions/kolta
/usr/share/doc/koltad/changelog.Debian.gz
/usr/share/doc/koltad/copyright
/usr/share/lintian/overrides/koltad
/usr/share/man/man1/kolta.1.gz
/usr/share/man/man8/koltad.8.gz"

cmake --build "$build" --target koltad kolta >/dev/null

echo "-- cmake --install into a staging directory"
DESTDIR="$work/stage" cmake --install "$build" --prefix /usr --strip >"$work/install.log"
installed=$(cd "$work/stage" && find . ! -type d | sed 's/^\.//' | LC_ALL=C sort)
[ "$installed" = "$expected" ] || fail "installed files differ:
$installed"
grep -qx 'ExecStart=/usr/sbin/koltad' "$work/stage/usr/lib/systemd/system/koltad.service" ||
  fail "the unit does not start /usr/sbin/koltad"
grep -qx 'port=10000' "$work/stage/etc/kolta/kolta.conf" || fail "the configuration has no port=10000"
# Both manual pages show from the staged installation, without a warning.
if command -v man >/dev/null; then
  for page in man1/kolta.1.gz man8/koltad.8.gz; do
    warnings=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$work/stage/usr/share/man/$page" 2>&1 >/dev/null) ||
      fail "man -l cannot show $page"
    [ -z "$warnings" ] || fail "man warns about $page: $warnings"
  done
fi
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
dpkg-deb --fsys-tarfile "$deb" | tar -xO ./usr/share/doc/koltad/copyright | head -n 1 |
  grep -q '^Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/' ||
  fail "the copyright file is not in the machine-readable format"

# The service is unauthenticated: systemd is told about the unit, but no
# maintainer script may enable or start it.
for script in postinst postrm; do
  grep -q 'systemctl --system daemon-reload' "$work/control/$script" 2>/dev/null ||
    fail "$script does not reload systemd"
done
for script in "$work"/control/{preinst,postinst,prerm,postrm}; do
  [ -e "$script" ] || continue
  if grep -v '^\s*#' "$script" |
    grep -Eq 'systemctl[^;|&]* (enable|start|restart|reload-or-restart|try-restart)|deb-systemd-helper[^;|&]* (enable|unmask)|deb-systemd-invoke[^;|&]* (start|restart)|invoke-rc\.d|update-rc\.d'; then
    fail "$(basename "$script") enables or starts the service"
  fi
done

# Debian's own checks, on the native package (its architecture is the
# host's; a cross package would need the target's tools).
if [ "$(dpkg-deb -f "$deb" Architecture)" = "$(dpkg --print-architecture)" ]; then
  if command -v lintian >/dev/null; then
    echo "-- lintian"
    lintian_status=0
    lintian --fail-on error,warning --pedantic "$deb" >"$work/lintian.log" 2>&1 || lintian_status=$?
    # lintian warns when run as root; that line is not about the package.
    grep -v 'running with root privileges is not recommended' "$work/lintian.log" || true
    [ "$lintian_status" -eq 0 ] ||
      fail "lintian found errors or warnings (overrides: packaging/debian/lintian-overrides)"
  else
    echo "-- lintian skipped: not installed (apt install lintian)"
  fi
fi

[ "$failed" -eq 0 ] && echo "-- installation and package: all right"
exit "$failed"
