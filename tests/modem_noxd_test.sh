#!/usr/bin/env bash
# noxd drives the modem simulator, end to end, in a private network namespace: a
# simulator that comes up during the first start-up retry, trackers created by a
# framework notification and by netlink, released when the address goes, and a modem
# restart that the daemon survives.
set -euo pipefail
noxd=$1
noxctl=$2
modemsim=$3

if [ "${4:-}" != "--inside" ]; then
  if [ "$(id -u)" -ne 0 ] || ! unshare --net true 2>/dev/null; then
    if [ "${NOX_REQUIRE_NETNS:-}" = 1 ]; then
      echo "FAIL: NOX_REQUIRE_NETNS=1 but no private network namespace (needs root)" >&2
      exit 1
    fi
    echo "SKIP: no private network namespace (needs root)"
    exit 77
  fi
  exec unshare --net "$0" "$noxd" "$noxctl" "$modemsim" --inside
fi

dir=$(mktemp -d /tmp/noxd-modem.XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*" >&2
  echo "--- daemon log" >&2
  cat "$dir/log" >&2
  echo "--- modem state" >&2
  "$modemsim" state >&2 || true
  exit 1
}
wait_log() {
  for _ in $(seq 1 300); do
    grep -qF -- "$1" "$dir/log" && return 0
    sleep 0.05
  done
  fail "no '$1' in the log"
}
# Waits until `modemsim state` lists exactly these clients ("wds v4" ...), in its order.
wait_clients() {
  local got=""
  for _ in $(seq 1 200); do
    got=$("$modemsim" state | sed -n 's/^  \(wds\|dfs\) client [0-9]*: \(v[46]\).*/\1 \2/p' | paste -sd, -)
    [ "$got" = "$1" ] && return 0
    sleep 0.05
  done
  fail "modem clients '$got', expected '$1'"
}
ctl() { "$noxctl" --socket "$dir/sock" "$@"; }

export TOV_SIM_SOCKET=$dir/sim.sock
ip link set lo up
ip tuntap add dev mdlnk0 mode tun
ip link set dev mdlnk0 addrgenmode none
ip link set mdlnk0 up

# No modem yet: the first start-up attempt fails, the second one (3 s later) finds it.
echo "persist.nox.feature=7" >"$dir/prop"
"$noxd" --socket "$dir/sock" --props "$dir/prop" --plugin-dir "$dir" --log-level 1 2>"$dir/log" &
pids+=($!)
wait_log "NoxTov::init: retry tov init in 3 sec"
"$modemsim" serve 2>/dev/null &
pids+=($!)
wait_log "TOV service initialized with client_id:"
grep -q "tov init error .* attempt 2" "$dir/log" && fail "the second attempt failed"

# The framework reports mobile data on mdlnk0: both families, both services.
ctl wwan --iface mdlnk0 --ipv4 10.0.0.5 --iface-v6 mdlnk0 --ipv6 2001:db8::5
wait_clients "wds v4,wds v6,dfs v4,dfs v6"

# The address goes (netlink): the per-family clients are released.
ip addr add 10.0.0.5/24 dev mdlnk0
ip addr del 10.0.0.5/24 dev mdlnk0
wait_clients ""

# An address comes (netlink): the trackers of its family come back.
ip -6 addr add 2001:db8::7/64 dev mdlnk0 nodad
wait_clients "wds v6,dfs v6"

# The modem restarts: logged, and the daemon keeps serving its clients.
"$modemsim" restart
wait_log "received tov system event:1"
[ "$(ctl feature get 2)" = "feature 2 status 3" ] || fail "no answer after the modem restart"
kill -0 "${pids[0]}" || fail "noxd is gone"
echo "1 passed, 0 failed"
