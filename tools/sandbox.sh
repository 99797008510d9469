# Sourced by the tools that check a daemon binary in kolta_sandbox; $sandbox
# names the kolta_sandbox program.

# sandbox_start DIR ARGS...: starts kolta_sandbox with ARGS and --show-log,
# its standard error in DIR/sandbox.log, and waits until the daemon listens;
# sets $port and $sandbox_pid. The sandbox runs until sandbox_stop. Returns
# 77 when sandboxes cannot be made here (DIR/sandbox.log says why) and 1
# when the daemon did not come up.
sandbox_start() {
  local dir=$1 status=0
  shift
  rm -f "$dir/to-sandbox" "$dir/ports"
  mkfifo "$dir/to-sandbox"
  "$sandbox" "$@" --show-log <"$dir/to-sandbox" >"$dir/ports" 2>"$dir/sandbox.log" &
  sandbox_pid=$!
  exec {to_sandbox}>"$dir/to-sandbox"  # the sandbox runs until this closes
  port=
  while [ -z "$port" ] && kill -0 "$sandbox_pid" 2>/dev/null; do
    port=$(head -n1 "$dir/ports")
    [ -n "$port" ] || sleep 0.2
  done
  [ -n "$port" ] && return 0
  exec {to_sandbox}>&-
  wait "$sandbox_pid" || status=$?
  sandbox_pid=
  [ "$status" -eq 77 ] && return 77
  return 1
}

# sandbox_stop: stops the daemon and waits for kolta_sandbox; its status.
sandbox_stop() {
  local status=0
  [ -n "${sandbox_pid:-}" ] || return 0
  exec {to_sandbox}>&- 2>/dev/null || true
  wait "$sandbox_pid" || status=$?
  sandbox_pid=
  return "$status"
}
