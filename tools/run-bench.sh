#!/usr/bin/env bash
# Measures koltad beside OpenSSH, Dropbear and the machine's floors, all in
# one run on this machine, and prints a table with ratios and targets. Needs
# root: the daemon runs in the test sandbox, and Dropbear sees a temporary
# home through a private mount. The ssh servers listen on 127.0.0.1 with
# their own host keys and a temporary authorized-keys file; nothing in the
# machine's own ssh configuration is used or changed. Everything lives in a
# temporary directory under /dev/shm and is removed at the end.
#
# KOLTA_BENCH_MIB sets the transfer size (default 256).
#
# The section "calls" times single calls of the clients (Python, kolta) and
# of OpenSSH over a kept ControlMaster connection, each a median of
# KOLTA_BENCH_CALLS calls (default 60), beside the protocol's floor measured
# on the same daemon in the same run.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
ensure_packages cmake g++ make libgtest-dev libgmock-dev openssh-server openssh-client \
  dropbear-bin util-linux binutils python3

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench -j"$(nproc)" --target koltad kolta kolta_sandbox koltad_bench floors calls \
  >/dev/null

mib=${KOLTA_BENCH_MIB:-256}
calls=${KOLTA_BENCH_CALLS:-60}
work=$(mktemp -d /dev/shm/kolta-bench.XXXXXX)
servers=()
cleanup() {
  for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.6f", b - a }'; }
div() { awk -v a="$1" -v b="$2" -v f="${3:-%.2f}" 'BEGIN { printf f, a / b }'; }
die() { echo "run-bench: $*" >&2; exit 1; }
free_port() { echo $((20000 + RANDOM % 20000)); }
check_copy() { [ "$(md5sum <"$1" | cut -c1-32)" = "$sum" ] || die "$2: the copy differs"; }

declare -A m

# The transfer file, and md5sum's own speed on it.
file=$work/file.bin
head -c $((mib << 20)) /dev/urandom >"$file"
bytes=$((mib << 20))
md5sum "$file" >/dev/null
t=$(now)
sum=$(md5sum "$file" | cut -c1-32)
m[md5_mb_s]=$(div "$bytes" "$(since "$t")e6" %.0f)

# OpenSSH server.
user=$(id -un)
home=$(getent passwd "$user" | cut -d: -f6)
ssh-keygen -q -t ed25519 -N '' -f "$work/host_key"
ssh-keygen -q -t ed25519 -N '' -f "$work/id"
cp "$work/id.pub" "$work/authorized_keys"
sshd_port=$(free_port)
cat >"$work/sshd_config" <<EOF
Port $sshd_port
ListenAddress 127.0.0.1
HostKey $work/host_key
AuthorizedKeysFile $work/authorized_keys
PidFile $work/sshd.pid
StrictModes no
UsePAM no
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
Subsystem sftp internal-sftp
LogLevel ERROR
EOF
mkdir -p /run/sshd

# Both servers see an empty temporary home through a private mount: Dropbear
# reads ~/.ssh/authorized_keys from it, and neither runs the user's shell
# start-up files, which would time the machine's own configuration.
mkdir -p "$work/home/.ssh"
chmod 700 "$work/home" "$work/home/.ssh"
cp "$work/id.pub" "$work/home/.ssh/authorized_keys"
with_temporary_home() { # run in the background: the server keeps this subshell's pid
  exec unshare -m sh -c "mount --make-rprivate / && mount --bind '$work/home' '$home' && exec \"\$@\"" sh "$@"
}
with_temporary_home /usr/sbin/sshd -D -e -f "$work/sshd_config" 2>"$work/sshd.log" &
servers+=($!)
dropbearkey -t ed25519 -f "$work/dropbear_key" >/dev/null 2>&1
db_port=$(free_port)
with_temporary_home dropbear -F -E -s -p "127.0.0.1:$db_port" -r "$work/dropbear_key" \
  -P "$work/dropbear.pid" 2>"$work/dropbear.log" &
servers+=($!)

ssh_opts=(-F /dev/null -i "$work/id" -o IdentitiesOnly=yes -o BatchMode=yes
  -o StrictHostKeyChecking=no -o UserKnownHostsFile="$work/known_hosts"
  -o GlobalKnownHostsFile=/dev/null -o LogLevel=ERROR)
ssh_to() { local port=$1; shift; ssh "${ssh_opts[@]}" -p "$port" "$user@127.0.0.1" "$@"; }
for port in "$sshd_port" "$db_port"; do
  for _ in $(seq 100); do ssh_to "$port" true 2>/dev/null && break; sleep 0.1; done
  ssh_to "$port" true || die "the ssh server on port $port does not answer"
done

# Exec round trips.
round_trips() { # count command...
  local n=$1 t
  shift
  t=$(now)
  for _ in $(seq "$n"); do "$@" || die "failed: $*"; done
  awk -v s="$(since "$t")" -v n="$n" 'BEGIN { printf "%.3f", s * 1000 / n }'
}
m[ssh_ms]=$(round_trips 20 ssh_to "$sshd_port" true)
cm=(-o ControlPath="$work/cm" -o ControlMaster=auto -o ControlPersist=60)
ssh "${ssh_opts[@]}" "${cm[@]}" -p "$sshd_port" "$user@127.0.0.1" true
m[ssh_cm_ms]=$(round_trips 50 ssh "${ssh_opts[@]}" "${cm[@]}" -p "$sshd_port" "$user@127.0.0.1" true)
# The same peer for the section "calls": medians, each output checked.
ssh_cm=(ssh "${ssh_opts[@]}" "${cm[@]}" -p "$sshd_port" "$user@127.0.0.1")
while IFS='=' read -r key value; do m[$key]=$value; done < <(
  ./build-bench/bench/calls time ssh_cm_true_ms "$calls" 0 '' '' -- "${ssh_cm[@]}" true
  ./build-bench/bench/calls time ssh_cm_echo_ms "$calls" 0 'hi\n' '' -- "${ssh_cm[@]}" 'echo hi'
  ./build-bench/bench/calls time ssh_cm_three_ms "$calls" 3 'hi\n' 'e\n' -- "${ssh_cm[@]}" \
    'echo hi; echo e >&2; exit 3'
)
ssh "${ssh_opts[@]}" "${cm[@]}" -p "$sshd_port" -O exit "$user@127.0.0.1" 2>/dev/null || true
m[dropbear_ms]=$(round_trips 20 ssh_to "$db_port" true)

# ssh transfers.
scp_opts=("${ssh_opts[@]}" -P "$sshd_port")
t=$(now)
scp "${scp_opts[@]}" "$file" "$user@127.0.0.1:$work/scp_put.bin"
m[scp_put_mb_s]=$(div "$bytes" "$(since "$t")e6" %.0f)
check_copy "$work/scp_put.bin" "scp put"
rm -f "$work/scp_put.bin"
t=$(now)
scp "${scp_opts[@]}" "$user@127.0.0.1:$file" "$work/scp_get.bin"
m[scp_get_mb_s]=$(div "$bytes" "$(since "$t")e6" %.0f)
check_copy "$work/scp_get.bin" "scp get"
rm -f "$work/scp_get.bin"
t=$(now)
ssh_to "$db_port" "cat > '$work/db_put.bin'" <"$file"
m[dropbear_put_mb_s]=$(div "$bytes" "$(since "$t")e6" %.0f)
check_copy "$work/db_put.bin" "Dropbear put"
rm -f "$work/db_put.bin"
for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null || true; done

# The floors and koltad.
while IFS='=' read -r key value; do m[$key]=$value; done < <(./build-bench/bench/floors)
while IFS='=' read -r key value; do m[$key]=$value; done < <(./build-bench/bench/koltad_bench "$file" "$sum")
[ -n "${m[pss_32_total_kb]:-}" ] || die "koltad_bench did not finish"
# The static musl build (tools/build-static.sh) beside this glibc one.
[ -x dist/x86_64/koltad ] || ./tools/build-static.sh x86_64 >/dev/null
for build in glibc static; do
  daemon=$PWD/build-bench/server/koltad
  [ "$build" = static ] && daemon=$PWD/dist/x86_64/koltad
  while IFS='=' read -r key value; do m[${build}_$key]=$value; done < <(
    KOLTA_TEST_DAEMON=$daemon ./build-bench/bench/koltad_bench --footprint)
  [ -n "${m[${build}_test_8_per_s]:-}" ] || die "koltad_bench --footprint ($build) did not finish"
done
m[static_size_bytes]=$(stat -c %s dist/x86_64/koltad)

# Calls, against one sandboxed daemon, with the floor measured on it.
coproc sandbox { exec ./build-bench/tests/kolta_sandbox; }
servers+=("$sandbox_PID")
sandbox_in=${sandbox[1]}
read -r call_port <&"${sandbox[0]}" || die "kolta_sandbox did not start"
kolta=(./build-bench/cli/kolta -H 127.0.0.1 -p "$call_port")
while IFS='=' read -r key value; do m[$key]=$value; done < <(
  ./build-bench/bench/calls floor "$call_port" "$calls"
  ./build-bench/bench/calls time kolta_true_ms "$calls" 0 '' '' -- "${kolta[@]}" sh true
  ./build-bench/bench/calls time kolta_echo_ms "$calls" 0 'hi\n' '' -- "${kolta[@]}" sh 'echo hi'
  ./build-bench/bench/calls time kolta_exec_ms "$calls" 0 'hi\n' '' -- "${kolta[@]}" exec /bin/echo hi
  ./build-bench/bench/calls time kolta_three_ms "$calls" 3 'hi\n' 'e\n' -- "${kolta[@]}" sh \
    'echo hi; echo e >&2; exit 3'
  /usr/bin/python3 bench/calls.py "$call_port" "$calls"
)
exec {sandbox_in}>&-  # the end of its input stops the daemon
wait "$sandbox_PID" 2>/dev/null || true
[ -n "${m[py_8_threads_per_s]:-}" ] || die "the calls did not finish"

strip -o "$work/koltad.stripped" build-bench/server/koltad
m[size_bytes]=$(stat -c %s "$work/koltad.stripped")
m[links]=$(ldd build-bench/server/koltad | awk '$1 !~ /vdso|ld-linux/ { printf "%s ", $1 }')

# The table.
yes_no() { awk "BEGIN { print (($1) ? \"met\" : \"MISSED\") }"; }
row() { printf '  %-44s %12s %-6s %9s  %s\n' "$@"; }
cpu=$(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)
echo "koltad benchmark, $(date -u +%Y-%m-%d), ${cpu:-unknown CPU}, $(nproc) cores, Linux $(uname -r), ${mib} MiB transfers"
echo
echo "exec round trip                                        value unit      ratio  target"
row "/bin/sh -c true (floor)" "${m[sh_true_ms]}" ms "1.00" ""
row "ssh true, OpenSSH" "${m[ssh_ms]}" ms "$(div "${m[ssh_ms]}" "${m[sh_true_ms]}")" ""
row "ssh true, OpenSSH ControlMaster" "${m[ssh_cm_ms]}" ms "$(div "${m[ssh_cm_ms]}" "${m[sh_true_ms]}")" ""
row "ssh true, Dropbear" "${m[dropbear_ms]}" ms "$(div "${m[dropbear_ms]}" "${m[sh_true_ms]}")" ""
row "koltad system true, fresh connection" "${m[system_fresh_ms]}" ms \
  "$(div "${m[system_fresh_ms]}" "${m[sh_true_ms]}")" ""
r=$(div "${m[system_rod_ms]}" "${m[sh_true_ms]}")
row "koltad system true, kept connection, rod" "${m[system_rod_ms]}" ms "$r" \
  "<= 1.3 of the floor: $(yes_no "$r <= 1.3")"
echo
echo "calls (medians of $calls)                                 value unit      ratio  target"
f=${m[floor_ms]}
row "floor: test round trip + 3-byte Data reply" "$f" ms "1.00" ""
row "ssh true, OpenSSH ControlMaster" "${m[ssh_cm_true_ms]}" ms "$(div "${m[ssh_cm_true_ms]}" "$f")" ""
row "ssh 'echo hi', OpenSSH ControlMaster" "${m[ssh_cm_echo_ms]}" ms "$(div "${m[ssh_cm_echo_ms]}" "$f")" ""
row "ssh 'echo hi; echo e >&2; exit 3', CM" "${m[ssh_cm_three_ms]}" ms "$(div "${m[ssh_cm_three_ms]}" "$f")" ""
row "Python run(\"true\")" "${m[py_true_ms]}" ms "$(div "${m[py_true_ms]}" "$f")" \
  "<= 8 ms: $(yes_no "${m[py_true_ms]} <= 8")"
for k in py_echo_ms:'run("echo hi")' py_three_ms:'run("echo hi; echo e >&2; exit 3")' \
  py_execute_ms:'execute("/bin/echo", ["hi"])'; do
  r=$(div "${m[${k%%:*}]}" "$f")
  row "Python ${k#*:}" "${m[${k%%:*}]}" ms "$r" "<= 1.2 of the floor: $(yes_no "$r <= 1.2")"
done
row "kolta sh true (with the process start)" "${m[kolta_true_ms]}" ms "$(div "${m[kolta_true_ms]}" "$f")" \
  "<= 10 ms: $(yes_no "${m[kolta_true_ms]} <= 10")"
for k in kolta_echo_ms:"kolta sh 'echo hi'" kolta_exec_ms:"kolta exec /bin/echo hi"; do
  r=$(div "${m[${k%%:*}]}" "$f")
  row "${k#*:}" "${m[${k%%:*}]}" ms "$r" "<= 1.3 of the floor: $(yes_no "$r <= 1.3")"
done
row "kolta sh 'echo hi; echo e >&2; exit 3'" "${m[kolta_three_ms]}" ms "$(div "${m[kolta_three_ms]}" "$f")" ""
row "Python run(\"echo hi\"), 1 thread" "${m[py_1_thread_per_s]}" "/s" "1.00" ""
r=$(div "${m[py_8_threads_per_s]}" "${m[py_1_thread_per_s]}")
row "Python run(\"echo hi\"), 8 threads, one Device" "${m[py_8_threads_per_s]}" "/s" "$r" \
  ">= 6 of 1 thread: $(yes_no "$r >= 6")"
echo
echo "transfers                                              value unit      ratio  target"
row "raw loopback TCP pair in C (floor)" "${m[raw_tcp_mb_s]}" MB/s "1.00" ""
row "md5sum (floor for an upload)" "${m[md5_mb_s]}" MB/s "1.00" ""
row "scp put" "${m[scp_put_mb_s]}" MB/s "$(div "${m[scp_put_mb_s]}" "${m[md5_mb_s]}")" "of md5sum"
row "Dropbear cat > put" "${m[dropbear_put_mb_s]}" MB/s "$(div "${m[dropbear_put_mb_s]}" "${m[md5_mb_s]}")" "of md5sum"
r=$(div "${m[put_mb_s]}" "${m[md5_mb_s]}")
row "koltad putFile" "${m[put_mb_s]}" MB/s "$r" ">= 0.65 of md5sum: $(yes_no "$r >= 0.65")"
row "scp get" "${m[scp_get_mb_s]}" MB/s "$(div "${m[scp_get_mb_s]}" "${m[raw_tcp_mb_s]}")" "of raw TCP"
r=$(div "${m[get_mb_s]}" "${m[raw_tcp_mb_s]}")
row "koltad getFile" "${m[get_mb_s]}" MB/s "$r" ">= 0.3 of raw TCP: $(yes_no "$r >= 0.3")"
row "koltad getFile / scp get" "" "" "$(div "${m[get_mb_s]}" "${m[scp_get_mb_s]}")" ""
echo
echo "fresh connections answering test                       value unit      ratio  target"
row "fork, _exit, waitpid (floor)" "${m[fork_per_s]}" "/s" "1.00" ""
r=$(div "${m[test_1_per_s]}" "${m[fork_per_s]}")
row "koltad, 1 client" "${m[test_1_per_s]}" "/s" "$r" ">= 0.7 of the floor: $(yes_no "$r >= 0.7")"
r=$(div "${m[test_8_per_s]}" "${m[fork_per_s]}")
row "koltad, 8 clients" "${m[test_8_per_s]}" "/s" "$r" ">= 0.7 of the floor: $(yes_no "$r >= 0.7")"
echo
echo "footprint                                              value unit             target"
row "koltad stripped (Release)" "${m[size_bytes]}" bytes "" "<= 100 KB: $(yes_no "${m[size_bytes]} <= 100000")"
only_libc=$([ "$(echo "${m[links]}" | xargs)" = "libc.so.6" ] && echo 1 || echo 0)
printf '  %-44s %s  (only the C library: %s)\n' "koltad links at run time" "${m[links]}" "$(yes_no "$only_libc")"
row "idle sleep(1), resident (floor)" "${m[rss_sleep_kb]}" kB "" ""
row "idle daemon, resident" "${m[rss_daemon_kb]}" kB "" "<= 1.5 MB: $(yes_no "${m[rss_daemon_kb]} <= 1536")"
row "idle process-manager task, resident" "${m[rss_task_kb]}" kB "" "<= 1.5 MB: $(yes_no "${m[rss_task_kb]} <= 1536")"
row "32 open connections: one worker, resident" "${m[rss_worker_kb]}" kB "" ""
row "32 open connections: all processes, PSS" "${m[pss_32_total_kb]}" kB "" ""
echo
echo "static musl build beside the glibc one                 glibc     static  unit   target"
srow() { printf '  %-44s %9s %10s  %-5s  %s\n' "$@"; }
srow "koltad stripped" "${m[size_bytes]}" "${m[static_size_bytes]}" bytes \
  "static <= 150 KB: $(yes_no "${m[static_size_bytes]} <= 150000")"
for what in daemon task; do
  name=$([ "$what" = daemon ] && echo "idle daemon, resident" || echo "idle process-manager task, resident")
  v=${m[static_rss_${what}_kb]}
  srow "$name" "${m[glibc_rss_${what}_kb]}" "$v" kB "static <= 0.6 MB: $(yes_no "$v <= 614")"
done
for n in 1 8; do
  g=$(div "${m[glibc_test_${n}_per_s]}" "${m[fork_per_s]}")
  st=$(div "${m[static_test_${n}_per_s]}" "${m[fork_per_s]}")
  srow "test, fresh connections, $n client(s), /s" "${m[glibc_test_${n}_per_s]}" "${m[static_test_${n}_per_s]}" "/s" ""
  srow "  the same as a ratio to the fork floor" "$g" "$st" "" "static >= 0.7: $(yes_no "$st >= 0.7")"
done
