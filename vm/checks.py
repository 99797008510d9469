"""Boots a whole system in qemu-system and drives it from outside, through
`kolta` and the Python client, as a user's test host would: the daemon comes
up at boot, reboots warm and cold (a lease held across the reboot), reboots
through Ansible, is restarted after a crash, powers the machine off and ends
on "exitapp". Prints a table of checks and figures and exits 0 only when
every check holds.

    python3 vm/checks.py --system NAME --kolta PATH --port P --serial LOG
                         [--disk] [--ansible] [--exit-policy stays|returns]
                         -- QEMU COMMAND...

The qemu command must forward 127.0.0.1:P to the daemon's port in the guest
and must not stop on a guest reboot. Run by tools/run-vm.sh."""

from __future__ import annotations

import argparse
import hashlib
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "python"))

from kolta import Device, DeviceBusy, Refused  # noqa: E402
from kolta.lease import show  # noqa: E402
from kolta.online import BOOT_ID_FILE  # noqa: E402

REPO = Path(__file__).resolve().parents[1]

BOOT_LIMIT = 240.0  # seconds from qemu's start to the first answer (TCG, a busy machine)
POWER_OFF_LIMIT = 60.0
RESTART_LIMIT = 10.0
PUT_SIZE = 32 << 20
LEASE_OWNER = "vm checks"
# Longer than three boots: the lease's own renewal (every third of the ttl)
# does not run during the reboot, so the check sees what the reboot left.
LEASE_TTL = 3 * BOOT_LIMIT

# Lists the daemon's processes: "pid ppid" per line. Works with any /bin/sh.
DAEMON_PROCESSES = (
    'for p in /proc/[0-9]*; do [ "$(cat $p/comm 2>/dev/null)" = koltad ] || continue; '
    'echo "${p#/proc/} $(sed -n "s/^PPid:[[:space:]]*//p" $p/status)"; done'
)


class Run:
    def __init__(self, args: argparse.Namespace) -> None:
        self.args = args
        self.device = Device("127.0.0.1", args.port, timeout=30)
        self.qemu: subprocess.Popen[bytes] | None = None
        self.rows: list[tuple[str, bool, str]] = []
        self.figures: list[tuple[str, float]] = []
        self.failed = False

    # -- reporting ----------------------------------------------------------

    def check(self, name: str, ok: bool, detail: str = "") -> bool:
        self.rows.append((name, ok, detail))
        print(f"{'ok  ' if ok else 'FAIL'} {name}{': ' + detail if detail else ''}", flush=True)
        if not ok:
            self.failed = True
        return ok

    def figure(self, name: str, seconds: float) -> None:
        self.figures.append((name, seconds))

    # -- the machine ----------------------------------------------------------

    def kolta(self, *words: str, timeout: float = 600) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            [self.args.kolta, "-H", "127.0.0.1", "-p", str(self.args.port), *words],
            capture_output=True,
            text=True,
            timeout=timeout,
        )

    def boot(self) -> float:
        """Starts qemu and waits for the daemon's first answer (kolta
        wait-online); the seconds from qemu's start."""
        start = time.monotonic()
        self.qemu = subprocess.Popen(self.args.qemu, stdin=subprocess.DEVNULL)
        r = self.kolta("wait-online", "--timeout", str(BOOT_LIMIT))
        took = time.monotonic() - start
        if r.returncode != 0:
            raise Failure(f"no answer after boot: {r.stderr.strip()} (serial log: {self.args.serial})")
        return took

    def stop_qemu(self) -> None:
        if self.qemu is not None and self.qemu.poll() is None:
            self.qemu.terminate()
            try:
                self.qemu.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self.qemu.kill()
                self.qemu.wait()
        self.qemu = None

    def sh(self, command: str) -> str:
        r = self.kolta("sh", command)
        if r.returncode != 0:
            raise Failure(f"kolta sh {command!r}: {r.returncode} {r.stderr.strip()}")
        return r.stdout

    def daemon_processes(self) -> dict[int, int]:
        """The daemon's processes on the device: pid to parent pid."""
        pairs = (line.split() for line in self.sh(DAEMON_PROCESSES).splitlines())
        return {int(p[0]): int(p[1]) for p in pairs if len(p) == 2}

    def main_daemon(self) -> int | None:
        """The daemon's own process: the one whose parent is init."""
        mains = [pid for pid, ppid in self.daemon_processes().items() if ppid == 1]
        return mains[0] if len(mains) == 1 else None

    def boot_id(self) -> str:
        return self.device.get(BOOT_ID_FILE).decode().strip()

    # -- the checks -------------------------------------------------------------

    def after_boot(self, took: float) -> None:
        version = self.device.version()
        self.check("1 daemon answers version after boot", version.get("DEVICE") == "KOLTA",
                   f"{took:.1f} s from qemu's start, OS_VERSION={version.get('OS_VERSION')}")
        main = self.main_daemon()
        self.check("1 started by the init system", main is not None,
                   f"koltad pid {main}, parent: init" if main else str(self.daemon_processes()))

    def reboot_warm(self, data: bytes, remote: str) -> None:
        local = Path(self.args.workdir) / "put.bin"
        local.write_bytes(data)
        r = self.kolta("put", str(local), remote)
        self.check("2 put 32 MiB", r.returncode == 0, r.stderr.strip())
        before = self.boot_id()
        lease = self.device.lease(owner=LEASE_OWNER, ttl=LEASE_TTL)
        start = time.monotonic()
        r = self.kolta("reboot", "warm", "--wait", str(BOOT_LIMIT))
        took = time.monotonic() - start
        after = self.boot_id() if r.returncode == 0 else "?"
        self.check("2 reboot warm: booted anew, daemon back by itself (kolta reboot --wait)",
                   r.returncode == 0 and after != before,
                   f"{took:.1f} s, boot id {before[:8]} -> {after[:8]}" if r.returncode == 0
                   else r.stderr.strip())
        self.figure("reboot warm: reply, then online with a new boot id", took)
        try:
            self.lease_after_reboot(lease)
        finally:
            lease.release()
        if self.args.disk:
            copy = self.device.get(remote)
            same = hashlib.md5(copy).hexdigest() == hashlib.md5(data).hexdigest()
            self.check("2 the file put before the reboot reads back whole", same,
                       f"MD5 {hashlib.md5(copy).hexdigest()}, {len(copy)} bytes")
            self.device.remove(remote)

    def lease_after_reboot(self, lease) -> None:
        """A lease held across the reboot: kept on a disk, taken again by its
        next renewal where the device forgot it, and held against others."""
        found = show(self.device)
        if self.args.disk:
            self.check("2 a lease held across the reboot is still there", found.token == lease.token,
                       f"{found.result} by {found.owner!r}, {found.left:.0f} s left" if found.owner
                       else found.result)
        else:
            self.check("2 a lease held across the reboot is gone with the RAM", found.result == "free",
                       f"{found.result} {found.owner or ''}".strip())
        lease.renew()  # LeaseLost when someone else had taken it
        found = show(self.device)
        kept = "kept" if self.args.disk else "taken again"
        self.check(f"2 the next renewal finds the lease {kept}", found.token == lease.token,
                   f"{found.result} by {found.owner!r}")
        try:
            with Device("127.0.0.1", self.args.port, timeout=30).lease(owner="rival", ttl=10):
                rival = "the rival took it"
        except DeviceBusy as e:
            rival = f"DeviceBusy: holder {e.holder!r}" if e.holder == LEASE_OWNER else repr(e)
        listed = self.kolta("leases").stdout.strip()
        self.check("2 a rival waits, and kolta leases names the holder",
                   rival.startswith("DeviceBusy") and LEASE_OWNER in listed, f"{rival}; {listed!r}")

    def reboot_cold(self) -> None:
        before = self.boot_id()
        start = time.monotonic()
        try:
            self.device.reboot("cold", wait=True, timeout=BOOT_LIMIT)
            took = time.monotonic() - start
            after = self.boot_id()
            self.check("3 reboot cold: booted anew, daemon back by itself (Python reboot(wait=True))",
                       after != before, f"{took:.1f} s, boot id {before[:8]} -> {after[:8]}")
        except TimeoutError as e:
            took = time.monotonic() - start
            self.check("3 reboot cold", False, str(e))
        self.figure("reboot cold: reply, then online with a new boot id", took)

    def ansible_reboot(self) -> None:
        """ansible.builtin.reboot through the kolta connection, holding the
        play's lease across the reboot."""
        if not shutil.which("ansible-playbook"):
            self.check("4 ansible.builtin.reboot", False, "ansible-playbook is not installed")
            return
        work = Path(self.args.workdir)
        (work / "hosts").write_text(
            f"vm ansible_host=127.0.0.1 ansible_port={self.args.port} "
            "ansible_connection=kolta.device.kolta ansible_kolta_lease=true "
            "ansible_python_interpreter=/usr/bin/python3\n")
        env = dict(os.environ, ANSIBLE_COLLECTIONS_PATH=str(REPO / "ansible"),
                   ANSIBLE_HOST_KEY_CHECKING="False", ANSIBLE_NOCOLOR="1",
                   ANSIBLE_LOCAL_TEMP=str(work / "ansible-local"))
        before = self.boot_id()
        start = time.monotonic()
        r = subprocess.run(["ansible-playbook", "-i", str(work / "hosts"), str(REPO / "vm" / "reboot.yml")],
                           capture_output=True, text=True, env=env, timeout=3 * BOOT_LIMIT)
        took = time.monotonic() - start
        after = self.boot_id()
        recap = [line for line in r.stdout.splitlines() if line.startswith("vm ")]
        self.check("4 ansible.builtin.reboot through the kolta connection: booted anew",
                   r.returncode == 0 and after != before,
                   f"{took:.1f} s for the play, boot id {before[:8]} -> {after[:8]}; "
                   f"{recap[-1].split(':', 1)[-1].split() if recap else ''}" if r.returncode == 0
                   else self.play_failure(r))
        self.figure("ansible-playbook: facts, reboot, checks (whole play)", took)
        found = show(self.device)
        up = float(self.sh("cat /proc/uptime").split()[0])
        self.check("4 the play's lease is kept across its reboot (taken before this boot)",
                   (found.owner or "").startswith("ansible ") and (found.age or 0) > up,
                   f"{found.result} by {found.owner!r}, taken {found.age:.0f} s ago, up {up:.0f} s"
                   if found.owner else found.result)
        self.kolta("lease", "--break")

    @staticmethod
    def play_failure(r: subprocess.CompletedProcess[str]) -> str:
        """The lines of a failed play that say why."""
        why = [line for line in r.stdout.splitlines() if line.startswith(("fatal:", "failed:"))]
        return f"status {r.returncode}: " + ("; ".join(why) or (r.stdout[-800:] + r.stderr[-400:]).strip())

    def crash(self) -> None:
        old = self.daemon_processes()
        main = self.main_daemon()
        if main is None:
            self.check("5 kill -9", False, f"no single main daemon: {old}")
            return
        sleeper = self.device.start("/bin/sleep", ["600"])
        # The kill comes from the device itself, a second after this returns
        # (kolta start passes the words exactly).
        r = self.kolta("start", "/bin/sh", "-c", f"sleep 1; kill -9 {main}")
        killed = time.monotonic() + 1.0
        if r.returncode != 0:
            raise Failure(f"kolta start: {r.stderr.strip()}")
        time.sleep(1.5)
        r = self.kolta("wait-online", "--timeout", "30")
        took = time.monotonic() - killed
        self.check("5 kill -9: started again by the init system", r.returncode == 0 and took <= RESTART_LIMIT,
                   f"answering {took:.1f} s after the kill" if r.returncode == 0 else r.stderr.strip())
        self.figure("crash (kill -9) to answering again", took)
        now = self.daemon_processes()
        left = sorted(set(old) & set(now))
        new_main = self.main_daemon()
        self.check("5 nothing of the old daemon is left (process manager, workers)",
                   not left and new_main is not None and new_main != main,
                   f"old {sorted(old)}, now {sorted(now)}" + (f", left: {left}" if left else ""))
        try:
            probe = self.device.start("/bin/echo", ["queue"])
            state = probe.wait(timeout=10)
            self.check("5 the new process manager answers on the queue", state.state == "PASSED",
                       f"background echo: {state.state}")
            probe.remove()
        except Exception as e:  # noqa: BLE001 - reported as a failed check
            self.check("5 the new process manager answers on the queue", False, repr(e))
        try:
            sleeper.state()
            known = "still known to the new daemon"
        except Refused as e:
            known = f"unknown to the new daemon ({e.reason.strip()})"
        alive = self.sh(f"kill -0 {sleeper.pid} 2>/dev/null && echo running || echo gone").strip()
        self.check("5 a background process started before the crash", alive == "gone" or "still known" in known,
                   f"its process is {alive}, {known}")
        self.background_after_crash = f"{alive}, {known}"

    def shutdown(self) -> None:
        assert self.qemu is not None
        r = self.kolta("shutdown")
        start = time.monotonic()
        self.check("6 shutdown answers SH_TIME=15", r.returncode == 0 and r.stdout == "SH_TIME=15\n",
                   repr(r.stdout) + r.stderr.strip())
        try:
            self.qemu.wait(timeout=POWER_OFF_LIMIT)
            took = time.monotonic() - start
            self.check("6 the machine powers off (qemu ends)", True, f"{took:.1f} s after the reply")
            self.figure("shutdown: reply to power-off (qemu ends)", took)
        except subprocess.TimeoutExpired:
            self.check("6 the machine powers off (qemu ends)", False,
                       f"still running {POWER_OFF_LIMIT:.0f} s after the reply")
        self.stop_qemu()

    def exit_daemon(self) -> None:
        r = self.kolta("exit")
        self.check("7 exit ends the daemon", r.returncode == 0, r.stderr.strip())
        # The unit restarts after 2 s, inittab at once: 15 s tell either way.
        back = self.kolta("wait-online", "--timeout", "15").returncode == 0
        if self.args.exit_policy == "stays":
            self.check("7 after exit the daemon stays down (as the init set-up says)", not back,
                       "answered again" if back else "no answer for 15 s")
        else:
            self.check("7 after exit the daemon comes back (as the init set-up says)", back,
                       "answering again" if back else "no answer for 15 s")

    # -- the whole run -------------------------------------------------------

    def run(self) -> int:
        data = random.Random(1).randbytes(PUT_SIZE)
        remote = self.args.remote
        try:
            boot = self.boot()
            self.figure("boot to first answer", boot)
            self.after_boot(boot)
            self.step(lambda: self.reboot_warm(data, remote), "2")
            self.step(self.reboot_cold, "3")
            if self.args.ansible:
                self.step(self.ansible_reboot, "4")
            self.step(self.crash, "5")
            self.step(self.shutdown, "6")
            self.stop_qemu()
            again = self.boot()
            self.figure("boot to first answer, second boot", again)
            self.step(self.exit_daemon, "7")
        except Failure as e:
            self.check("run", False, str(e))
        finally:
            self.stop_qemu()
        self.table()
        return 1 if self.failed else 0

    def step(self, action: Callable[[], None], number: str) -> None:
        try:
            action()
        except Exception as e:  # noqa: BLE001 - one check fails, the run goes on
            self.check(f"{number} (raised)", False, repr(e))

    def table(self) -> None:
        boot = self.figures[0][1] if self.figures else 0.0
        print(f"\n{self.args.system}: checks")
        for name, ok, detail in self.rows:
            print(f"  {'ok  ' if ok else 'FAIL'}  {name}" + (f"  ({detail})" if detail else ""))
        print(f"\n{self.args.system}: figures                                        seconds  of boot")
        for name, seconds in self.figures:
            ratio = f"{seconds / boot:7.2f}" if boot > 0 else "      -"
            print(f"  {name:<58} {seconds:7.1f}  {ratio}")
        print(f"\n{self.args.system}: {'all checks hold' if not self.failed else 'SOME CHECKS FAILED'}")


class Failure(Exception):
    pass


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--system", required=True)
    parser.add_argument("--kolta", required=True)
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--serial", required=True)
    parser.add_argument("--disk", action="store_true", help="the system has a disk: files survive a reboot")
    parser.add_argument("--ansible", action="store_true",
                        help="also reboot through Ansible (the system has Python)")
    parser.add_argument("--remote", default="/root/kolta-vm-put.bin")
    parser.add_argument("--exit-policy", choices=("stays", "returns"), default="stays")
    parser.add_argument("qemu", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    if args.qemu and args.qemu[0] == "--":
        args.qemu = args.qemu[1:]
    with tempfile.TemporaryDirectory(prefix="kolta-vm-") as workdir:
        args.workdir = workdir
        return Run(args).run()


if __name__ == "__main__":
    os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")
    sys.exit(main())
