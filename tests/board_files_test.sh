#!/bin/sh
# The board files of the static archive, run on this machine with stand-ins
# for the programs they call (no daemon, nothing rebooted):
#   kolta-board-setup on a BusyBox root, a root with its own shutdown, twice;
#   shutdown's options; the init wrapper outside process 1;
#   S50koltad start/status/stop/restart around a stand-in daemon.
# Usage: board_files_test.sh SOURCE_DIR
set -u
src=${1:?usage: board_files_test.sh SOURCE_DIR}/packaging/board
work=$(mktemp -d)
trap 'kill $(cat "$work/koltad.pid" 2>/dev/null) 2>/dev/null; rm -rf "$work"' EXIT
failures=0
check() { # check DESCRIPTION EXPECTED ACTUAL
	if [ "$2" = "$3" ]; then
		echo "ok: $1"
	else
		echo "FAILED: $1"
		echo "  expected: $2"
		echo "  actual:   $3"
		failures=$((failures + 1))
	fi
}

# Stand-ins that say how they were called.
mkdir -p "$work/bin"
for tool in reboot poweroff halt sync sleep; do
	printf '#!/bin/sh\necho %s $*\n' "$tool" >"$work/bin/$tool"
	chmod 755 "$work/bin/$tool"
done
printf '#!/bin/sh\necho "busybox $*"\n' >"$work/bin/busybox"
chmod 755 "$work/bin/busybox"

# kolta-board-setup, as the archive lays it out, on a BusyBox root.
mkdir -p "$work/pkg/usr/sbin" "$work/pkg/usr/share/kolta/board"
cp "$src/kolta-board-setup" "$work/pkg/usr/sbin/"
cp "$src/shutdown" "$src/init" "$work/pkg/usr/share/kolta/board/"
root=$work/root
mkdir -p "$root/sbin" "$root/bin"
ln -s ../bin/busybox "$root/sbin/init"
sh "$work/pkg/usr/sbin/kolta-board-setup" "$root" >"$work/setup.out"
check "setup installs shutdown" yes "$([ -x "$root/sbin/shutdown" ] && echo yes)"
check "setup replaces BusyBox's init link" "no link" "$([ -L "$root/sbin/init" ] && echo link || echo no link)"
check "the new init runs BusyBox's init" 1 "$(grep -c '^	exec /sbin/../bin/busybox init "\$@"$' "$root/sbin/init")"
cp "$root/sbin/init" "$work/init.first"
sh "$work/pkg/usr/sbin/kolta-board-setup" "$root" >"$work/setup2.out"
check "setup a second time changes nothing" same "$(cmp -s "$root/sbin/init" "$work/init.first" && echo same)"
check "setup a second time says so" 1 "$(grep -c "already kolta's" "$work/setup2.out")"

root2=$work/root2
mkdir -p "$root2/sbin" "$root2/usr/sbin"
printf '#!/bin/sh\n' >"$root2/usr/sbin/shutdown"
printf '#!/bin/sh\n' >"$root2/sbin/init"
sh "$work/pkg/usr/sbin/kolta-board-setup" "$root2" >/dev/null
check "a system's own shutdown is kept" no "$([ -e "$root2/sbin/shutdown" ] && echo yes || echo no)"
check "a system's own init is kept" "#!/bin/sh" "$(cat "$root2/sbin/init")"

# shutdown.
shutdown_says() { PATH=$work/bin:$PATH sh "$src/shutdown" "$@" 2>&1; echo "status $?"; }
check "shutdown -r now" "sync
reboot
status 0" "$(shutdown_says -r now)"
check "shutdown -h +0 (the daemon's)" "sync
poweroff
status 0" "$(shutdown_says -h +0)"
check "shutdown -P +2 waits two minutes" "shutdown: poweroff in 2 minutes
sleep 120
sync
poweroff
status 0" "$(shutdown_says -P +2 'going down')"
check "shutdown -H halts" "sync
halt
status 0" "$(shutdown_says -H)"
check "shutdown refuses a bad time" "usage: shutdown [-r|-h|-P|-H] [now|+MINUTES] [MESSAGE...]
status 1" "$(shutdown_says -r +soon)"

# init, outside process 1.
sed "s|@BUSYBOX@|$work/bin/busybox|g" "$src/init" >"$work/init"
check "init 6 reboots" "busybox reboot" "$(sh "$work/init" 6)"
check "init 0 powers off" "busybox poweroff" "$(sh "$work/init" 0)"
check "init 3 is refused" "status 1" "$(sh "$work/init" 3 2>/dev/null; echo "status $?")"

# S50koltad around a stand-in daemon whose clean-up takes a moment.
cat >"$work/koltad" <<'DAEMON'
#!/bin/sh
trap 'echo "cleaning up"; sleep 1; echo "cleanup done"; exit 0' TERM
echo "Listening... "
while :; do sleep 1; done
DAEMON
chmod 755 "$work/koltad"
initscript() {
	KOLTAD=$work/koltad KOLTAD_PIDFILE=$work/koltad.pid KOLTAD_LOG=$work/log/koltad.log \
		sh "$src/S50koltad" "$@"
	echo "status $?"
}
check "status before start" "koltad is not running
status 3" "$(initscript status)"
check "start" "Starting koltad: OK
status 0" "$(initscript start)"
pid=$(cat "$work/koltad.pid")
check "status while running" "koltad is running (pid $pid)
status 0" "$(initscript status)"
check "the daemon leads a session of its own" "$pid" "$(ps -o sid= -p "$pid" | tr -d ' ')"
check "start again" "koltad is already running (pid $pid)
status 0" "$(initscript start)"
check "stop waits for the clean-up" "Stopping koltad: OK
status 0" "$(initscript stop)"
check "the daemon is gone" gone "$(kill -0 "$pid" 2>/dev/null && echo alive || echo gone)"
check "its output went to the log" "Listening... 
cleaning up
cleanup done" "$(cat "$work/log/koltad.log")"
check "status after stop" "koltad is not running
status 3" "$(initscript status)"
initscript restart >/dev/null
check "restart starts it" "status 0" "$(initscript status | tail -n 1)"
initscript stop >/dev/null
check "a usage error" "status 2" "$(initscript frobnicate 2>/dev/null | tail -n 1)"

echo "$failures failed"
[ "$failures" -eq 0 ]
