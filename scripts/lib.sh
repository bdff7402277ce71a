# Shared by the demo and the end-to-end test scripts: processes that are stopped on
# exit, waits with a bound, and the simulator and the daemon started the same way.
# Source it after `set -euo pipefail`; it sets $dir (removed on exit, kept with NOX_KEEP=1
# in the environment, for a look at what a run left) and $pids: every
# process started in the background goes into $pids, so that the exit stops it.

dir=$(mktemp -d /tmp/noxd-run.XXXXXX)
pids=()

# Stops the processes "$@" that this script started: SIGTERM, SIGKILL to those still
# running 10 s later, then reaps them. Returns 1 when one needed SIGKILL. It waits only
# for the processes it signalled: a bare `wait` would also wait for any it forgot.
stop_pids() {
  [ $# -gt 0 ] || return 0
  local p live end=$((SECONDS + 10))
  kill "$@" 2>/dev/null || true
  while :; do
    live=
    for p in "$@"; do kill -0 "$p" 2>/dev/null && live=1; done
    [ -n "$live" ] && [ "$SECONDS" -lt "$end" ] || break
    sleep 0.05
  done
  [ -n "$live" ] && kill -KILL "$@" 2>/dev/null
  wait "$@" 2>/dev/null || true
  [ -z "$live" ]
}
nox_cleanup() {
  stop_pids "${pids[@]}" || true
  [ -n "${NOX_KEEP:-}" ] || rm -rf "$dir"
}
trap nox_cleanup EXIT
trap 'exit 130' INT TERM

# Re-runs the calling script in a private network namespace of its own (it vanishes with
# the script's processes), or returns 1 when this is not root or namespaces are missing.
# Call it as: in_private_netns "$@" || ...
in_private_netns() {
  [ "${NOX_IN_NETNS:-}" = 1 ] && return 0
  [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null || return 1
  [ -n "${NOX_KEEP:-}" ] || rm -rf "$dir"
  trap - EXIT
  NOX_IN_NETNS=1 exec unshare --net "$0" "$@"
}

# Runs the command "$@" until it succeeds, for at most 10 s. Pass a command or a function
# that looks again each time, never a test of a "$(...)" expanded once before the wait.
wait_until() {
  local end=$((SECONDS + 10))
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -lt "$end" ] || return 1
    sleep 0.05
  done
}

# The modem simulator on $dir/modemsim.sock, which the library then finds.
start_modemsim() {
  local modemsim=$1
  export TOV_SIM_SOCKET=$dir/modemsim.sock
  "$modemsim" serve 2>/dev/null &
  pids+=($!)
  wait_until "$modemsim" state
}

# noxd with feature mask $2 on $dir/noxd.sock, logging to $3; further arguments go to noxd.
# Returns once it listens on its socket (ss lists the listening Unix sockets); its pid is
# in $noxd_pid.
start_noxd() {
  local noxd=$1 mask=$2 log=$3
  shift 3
  echo "persist.nox.feature=$mask" >"$dir/noxd.prop"
  "$noxd" --socket "$dir/noxd.sock" --props "$dir/noxd.prop" "$@" 2>"$log" &
  noxd_pid=$!
  pids+=($!)
  wait_until sh -c "ss -xlH | grep -qF ' $dir/noxd.sock '"
}
