"""Leases: a device held by one test run at a time, the device itself being
the lock.

The lease lives on the device, in /etc/kolta/lease (beside the daemon's
configuration, so that it survives a reboot), or in /tmp/kolta-lease where
/etc/kolta cannot be written. Every client (kolta, this package, the pytest
and Ansible plugins) sends the same small shell script, LEASE_SCRIPT, so
that all of them read and write one format:

    lease          a symbolic link whose text is the holder's token
    info.TOKEN     three lines: taken, expires (the device's clock, seconds
                   since 1970) and the owner text
    break.TOKEN    a directory, there while someone changes the lease of TOKEN

Taking a free lease is `ln -s`, which exactly one of many racing clients
wins. A lease whose holder has not renewed it by its expiry is broken by
whoever first makes break.TOKEN (tokens are never used twice), who checks
again under it that the same lease is still there and still expired. A
holder renews without break.TOKEN while its lease has at least two seconds
left, else under it, so that a breaker never removes a lease that was just
renewed. A holder that releases takes break.TOKEN too.
"""

from __future__ import annotations

import getpass
import math
import os
import shlex
import socket
import threading
import time
import uuid
from dataclasses import dataclass, field

from kolta.errors import KoltaError

# The environment variable that hands a lease's token to the commands run
# under it: a client that would wait for that lease treats it as its own.
TOKEN_ENV = "KOLTA_LEASE"

# The script's arguments: $1 operation (take, renew, release, break, show),
# $2 token, $3 ttl in whole seconds, $4 owner, $5 tokens counted as one's
# own. It prints one line: RESULT TOKEN NOW TAKEN EXPIRES OWNER ("-" for an
# empty field). Results: took, own, renewed, released, broke, free, held
# (show), busy, lost.
LEASE_SCRIPT = r"""op=$1 me=$2 ttl=$3 owner=$4 mine=$5
d=/etc/kolta/lease
if ! { mkdir -p $d 2>/dev/null && [ -w $d ]; }; then
  d=/tmp/kolta-lease
  mkdir -p $d || exit 9
fi
now=$(date +%s)
holder() { readlink $d/lease 2>/dev/null; }
load() {
  taken= expires= who=
  [ -n "$1" ] && [ -f $d/info.$1 ] && { read -r taken; read -r expires; read -r who; } <$d/info.$1
}
say() { load $2; echo "$1 ${2:--} $now ${taken:--} ${expires:--} ${who:--}"; }
write() {
  printf '%s\n%s\n%s\n' "$2" $((now + ttl)) "$owner" >$d/new.$1 && mv -f $d/new.$1 $d/info.$1
}
stale() {
  load $1
  [ -n "$expires" ] && { [ "$now" -ge "$expires" ] || [ "$now" -lt $((taken - 60)) ]; }
}
take() {
  for try in 1 2 3; do
    t=$(holder)
    if [ -z "$t" ]; then
      write $me $now || exit 9
      if ln -s $me $d/lease 2>/dev/null; then say took $me; exit 0; fi
      rm -f $d/info.$me
      continue
    fi
    case " $me $mine " in *" $t "*) say own $t; exit 0 ;; esac
    if stale $t && mkdir $d/break.$t 2>/dev/null; then
      [ "$(holder)" = "$t" ] && stale $t && rm -f $d/lease $d/info.$t
      rmdir $d/break.$t
      continue
    fi
    say busy $t
    exit 1
  done
  say busy "$(holder)"
  exit 1
}
case $op in
take) take ;;
renew)
  t=$(holder)
  [ -z "$t" ] && take
  [ "$t" = "$me" ] || { say lost "$t"; exit 2; }
  load $me
  if [ -n "$expires" ] && [ $((expires - now)) -ge 2 ]; then
    write $me $taken
    [ "$(holder)" = "$me" ] && { say renewed $me; exit 0; }
    say lost "$(holder)"; exit 2
  fi
  mkdir $d/break.$me 2>/dev/null || { say lost "$t"; exit 2; }
  if [ "$(holder)" = "$me" ]; then
    write $me ${taken:-$now}; rmdir $d/break.$me; say renewed $me; exit 0
  fi
  rmdir $d/break.$me; say lost "$(holder)"; exit 2 ;;
release)
  mkdir $d/break.$me 2>/dev/null || exit 0
  [ "$(holder)" = "$me" ] && rm -f $d/lease
  rm -f $d/info.$me; rmdir $d/break.$me
  say released - ;;
break)
  t=$(holder)
  [ -z "$t" ] && { say free -; exit 0; }
  mkdir $d/break.$t 2>/dev/null || { say busy $t; exit 1; }
  if [ "$(holder)" = "$t" ]; then
    load $t; line="broke $t $now ${taken:--} ${expires:--} ${who:--}"
    rm -f $d/lease $d/info.$t; rmdir $d/break.$t; echo "$line"; exit 0
  fi
  rmdir $d/break.$t; say busy "$(holder)"; exit 1 ;;
show)
  t=$(holder)
  if [ -z "$t" ]; then say free -; else say held $t; fi ;;
*) exit 9 ;;
esac
"""


class DeviceBusy(KoltaError):
    """Another holder had the device (or every device of a pool) until the
    wait ran out. `holder` is its owner text and `expires` the seconds its
    lease has left; for a pool, `holders` lists every device's entry with
    its holder, or with the error that kept it from being reached."""

    def __init__(self, message: str, holder: str | None, expires: float | None,
                 holders: list[tuple[str, str]] | None = None) -> None:
        super().__init__(message)
        self.holder = holder
        self.expires = expires
        self.holders = holders or []


class LeaseLost(KoltaError):
    """A renewal found that the lease had been broken and taken over."""


@dataclass(frozen=True)
class LeaseState:
    """One line of the script: what it did and the lease it saw."""

    result: str
    token: str | None
    now: int | None
    taken: int | None
    expires: int | None
    owner: str | None

    @property
    def left(self) -> float | None:
        """Seconds the lease has left by the device's clock."""
        if self.expires is None or self.now is None:
            return None
        return float(self.expires - self.now)

    @property
    def age(self) -> float | None:
        if self.taken is None or self.now is None:
            return None
        return float(self.now - self.taken)


def _field_int(text: str) -> int | None:
    try:
        return int(text)
    except ValueError:
        return None


def parse_state(line: str) -> LeaseState:
    words = line.split(" ", 5)
    if len(words) != 6:
        raise KoltaError(f"lease: unexpected answer from the device: {line!r}")
    result, token, now, taken, expires, owner = words
    return LeaseState(
        result,
        None if token == "-" else token,
        _field_int(now),
        _field_int(taken),
        _field_int(expires),
        None if owner == "-" else owner,
    )


def lease_command(op: str, token: str = "-", ttl: float = 0, owner: str = "-",
                  mine: str = "") -> str:
    """The shell command line that runs one lease operation."""
    owner = " ".join(owner.split()) or "-"  # one line, never empty
    words = [op, token, str(max(1, math.ceil(ttl))), owner, mine]
    return "set -- " + " ".join(shlex.quote(w) for w in words) + "\n" + LEASE_SCRIPT


def default_owner() -> str:
    """"user@hostname pid N", plus the pytest-xdist worker id when there is one."""
    try:
        user = getpass.getuser()
    except Exception:
        user = str(os.getuid())
    owner = f"{user}@{socket.gethostname()} pid {os.getpid()}"
    worker = os.environ.get("PYTEST_XDIST_WORKER")
    return f"{owner} {worker}" if worker else owner


def new_token() -> str:
    return uuid.uuid4().hex[:20]


def own_tokens() -> str:
    """Tokens of the leases this process runs under (from `kolta lease`)."""
    return " ".join(t for t in os.environ.get(TOKEN_ENV, "").split() if t.isalnum())


def lease_call(device, op: str, token: str = "-", ttl: float = 0, owner: str = "-",
               mine: str = "") -> LeaseState:
    """Runs one operation on `device` and returns its line."""
    result = device.run(lease_command(op, token, ttl, owner, mine), timeout=30)
    line = result.stdout.decode("utf-8", "replace").strip().splitlines()
    if result.returncode not in (0, 1, 2) or not line:
        why = result.stderr.decode("utf-8", "replace").strip()
        raise KoltaError(f"{device.host}:{device.port}: lease {op} failed "
                         f"(status {result.returncode}){': ' + why if why else ''}")
    return parse_state(line[-1])


def holder_text(state: LeaseState) -> str:
    text = state.owner or "an unknown holder"
    if state.left is not None:
        text += f" ({max(0.0, state.left):.0f} s left)"
    return text


@dataclass
class Lease:
    """A lease held on one device. While `renewing`, a thread renews it every
    third of its ttl; release() (or leaving the with block) gives it back.
    A lease found in KOLTA_LEASE (`nested`) belongs to an enclosing holder,
    which renews and releases it."""

    device: object
    token: str
    owner: str
    ttl: float
    taken: float = field(default_factory=time.time)
    nested: bool = False
    lost: bool = False
    error: BaseException | None = None
    _stop: threading.Event = field(default_factory=threading.Event, repr=False)
    _thread: threading.Thread | None = field(default=None, repr=False)

    @property
    def host(self) -> str:
        return f"{self.device.host}:{self.device.port}"  # type: ignore[attr-defined]

    def renew(self) -> None:
        """Renews once; LeaseLost when someone else holds it now."""
        if self.nested:
            return
        state = lease_call(self.device, "renew", self.token, self.ttl, self.owner)
        if state.result not in ("renewed", "took"):
            self.lost = True
            raise LeaseLost(f"{self.host}: the lease was lost to {holder_text(state)}")

    def start_renewing(self) -> None:
        if self.nested or self._thread is not None:
            return
        self._thread = threading.Thread(target=self._renew_loop, name=f"kolta lease {self.host}",
                                        daemon=True)
        self._thread.start()

    def _renew_loop(self) -> None:
        period = max(0.5, self.ttl / 3)
        while not self._stop.wait(period):
            try:
                self.renew()
            except LeaseLost as e:
                self.error = e
                return
            except KoltaError as e:  # unreachable for now (a reboot): try again
                self.error = e

    def detach(self) -> None:
        """Stops renewing without releasing: the lease ends `ttl` seconds
        later unless resume() picks it up again (a later process of the same
        holder, as the Ansible plugin's tasks are)."""
        self._stop.set()
        if self._thread is not None:
            self._thread.join()
            self._thread = None

    def release(self) -> None:
        self._stop.set()
        if self._thread is not None:
            self._thread.join()
            self._thread = None
        if self.nested:
            return
        lease_call(self.device, "release", self.token)

    def __enter__(self) -> Lease:
        return self

    def __exit__(self, *exc: object) -> None:
        self.release()


def try_take(device, owner: str, ttl: float) -> tuple[Lease | None, LeaseState]:
    """One attempt: the lease when it was free (or one's own), else None and
    what holds it."""
    token = new_token()
    state = lease_call(device, "take", token, ttl, owner, own_tokens())
    if state.result == "took":
        return Lease(device, token, owner, ttl), state
    if state.result == "own":
        return Lease(device, state.token or token, state.owner or owner, ttl, nested=True), state
    return None, state


class Backoff:
    """Pauses between attempts, from a fifth of a second up to two."""

    def __init__(self, wait: float) -> None:
        self.deadline = time.monotonic() + wait
        self.pause = 0.2

    def sleep(self) -> bool:
        """Sleeps before the next attempt; False when the wait has run out."""
        left = self.deadline - time.monotonic()
        if left <= 0:
            return False
        time.sleep(min(self.pause, left))
        self.pause = min(self.pause * 1.5, 2.0)
        return True


def take(device, owner: str | None = None, ttl: float = 60.0, wait: float = 0.0) -> Lease:
    """Takes the lease of `device`, waiting up to `wait` seconds; renewing
    starts at once. DeviceBusy when another holder kept it."""
    if ttl <= 0:
        raise ValueError("ttl must be positive")
    owner = owner or default_owner()
    backoff = Backoff(wait)
    while True:
        lease, state = try_take(device, owner, ttl)
        if lease is not None:
            lease.start_renewing()
            return lease
        if not backoff.sleep():
            where = f"{device.host}:{device.port}"
            raise DeviceBusy(f"{where} is held by {holder_text(state)}", state.owner, state.left,
                             [(where, holder_text(state))])


def resume(device, token: str, owner: str, ttl: float = 60.0) -> Lease | None:
    """The lease `token` taken earlier, renewed (or taken again when it
    ended and the device is free), with renewing started; None when someone
    else holds the device now."""
    state = lease_call(device, "renew", token, ttl, owner)
    if state.result not in ("renewed", "took"):
        return None
    lease = Lease(device, token, owner, ttl)
    lease.start_renewing()
    return lease


def show(device) -> LeaseState:
    """The lease as it is now ("free" or "held")."""
    return lease_call(device, "show")


def break_lease(device) -> LeaseState:
    """Removes whoever's lease there is ("broke" with its owner, or "free")."""
    return lease_call(device, "break")
