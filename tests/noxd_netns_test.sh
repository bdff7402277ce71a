#!/usr/bin/env bash
# noxd end to end in a private network namespace, with the modem simulator: a simulator
# that comes up during the first start-up retry, modem clients from a framework
# notification, a modem restart; then the sample policies from screen
# off to a dormant, filtering modem and back, and the state dump.
set -euo pipefail
noxd=$1 noxctl=$2 modemsim=$3 plugins=$4
source "$(dirname "$0")/../scripts/lib.sh"
if ! in_private_netns "$@"; then
  [ "${NOX_REQUIRE_NETNS:-}" = 1 ] && { echo "FAIL: NOX_REQUIRE_NETNS=1 but no private network namespace (needs root)" >&2; exit 1; }
  echo "SKIP: no private network namespace (needs root)"
  exit 77
fi
log=$dir/log
fail() {
  echo "FAIL: $*" >&2
  echo "--- daemon log" >&2
  cat "$log" >&2
  echo "--- modem state" >&2
  "$modemsim" state >&2 || true
  exit 1
}
expect_log() { wait_until grep -qF -- "$1" "$log" || fail "no '$1' in the log"; }
modem_has() { "$modemsim" state | grep -qF -- "$1"; }
expect_modem() { wait_until modem_has "$1" || fail "the modem state has no '$1'"; }
# The modem's clients as "wds v4,dfs v6,...", in its order.
clients() { "$modemsim" state | sed -n 's/^  \(wds\|dfs\) client [0-9]*: \(v[46]\).*/\1 \2/p' | paste -sd, -; }
clients_are() { [ "$(clients)" = "$1" ]; }
expect_clients() { wait_until clients_are "$1" || fail "modem clients '$(clients)', expected '$1'"; }
ctl() { "$noxctl" --socket "$dir/noxd.sock" "$@"; }
stop_noxd() { stop_pids "$noxd_pid" || fail "noxd ignored SIGTERM"; }

ip link set lo up
ip tuntap add dev mdlnk0 mode tun
ip link set dev mdlnk0 addrgenmode none
ip link set mdlnk0 up
export TOV_SIM_SOCKET=$dir/modemsim.sock

# No modem yet: the first start-up attempt fails, the second one (3 s later) finds it.
echo "persist.nox.feature=6" >"$dir/noxd.prop"
"$noxd" --socket "$dir/noxd.sock" --props "$dir/noxd.prop" --plugin-dir "$dir" --log-level 1 2>"$log" &
noxd_pid=$!
pids+=($!)
expect_log "NoxTov::init: retry tov init in 3 sec"
"$modemsim" serve 2>/dev/null &
msim=$!
pids+=($!)
expect_log "TOV service initialized with client_id:"
grep -q "tov init error .* attempt 2" "$log" && fail "the second attempt failed"
wait_until sh -c "ss -xlH | grep -qF ' $dir/noxd.sock '"
# The framework reports mobile data on mdlnk0: both families, both services.
ctl wwan --iface mdlnk0 --ipv4 10.0.0.5 --iface-v6 mdlnk0 --ipv6 2001:db8::5
expect_clients "wds v4,wds v6,dfs v4,dfs v6"
# The modem restarts: logged, and the daemon keeps serving its clients.
"$modemsim" restart
expect_log "received tov system event:1"
[ "$(ctl feature get 2)" = "feature 2 status 3" ] || fail "no answer after the modem restart"
# The simulator dies: the library reports the modem gone, and the daemon still serves.
stop_pids "$msim"
modem_gone_twice() { [ "$(grep -c 'received tov system event:0' "$log")" -ge 2 ]; }
wait_until modem_gone_twice || fail "no event for a dead modem"
[ "$(ctl feature get 2)" = "feature 2 status 3" ] || fail "no answer once the modem is gone"
stop_noxd

# The sample policies, step by step.
start_modemsim "$modemsim"
printf 'grace_period_ms:1000\n' >"$dir/fdmgr.conf"
printf 'allow_v4:tcp/5228 udp/53\nallow_v6:tcp/5228\n' >"$dir/ctmgr.conf"
export NOX_FDMGR_CONFIG=$dir/fdmgr.conf NOX_CTMGR_CONFIG=$dir/ctmgr.conf
start_noxd "$noxd" 3 "$log" --plugin-dir "$plugins" --log-level 1
expect_log "|FDMGR| dormancy policy ready: dormant 1000 ms after screen off"
expect_log "|CTMGR| power-save filter policy ready: 2 IPv4 and 1 IPv6 filters while the screen is off"
ip addr add 10.20.30.40/24 dev mdlnk0
ip -6 addr add 2001:db8::40/64 dev mdlnk0 nodad
ctl listen >/dev/null 2>&1 &
pids+=($!)
expect_log "NOXJ client is on descriptor"
ctl wwan --apn 0 --iface mdlnk0 --ipv4 10.20.30.40 --iface-v6 mdlnk0 --ipv6 2001:db8::40
expect_clients "wds v4,wds v6,dfs v4,dfs v6"
expect_log "|FDMGR| following the dormancy of mdlnk0"
expect_log "|CTMGR| following the filtering status of mdlnk0"

ctl screen 0
expect_log "|CTMGR| filtering on mdlnk0 is now on"
expect_log "|FDMGR| mdlnk0 is now dormant"
# The filters came at once, the dormancy only after the grace period (read from the log's
# order, not from the clock).
awk '/filtering on mdlnk0 is now on/ { f = NR } /mdlnk0 is now dormant/ && !d { d = NR }
  END { exit !(f && f < d) }' "$log" || fail "the link went dormant before its filters came"
expect_modem "v4: dormant, filter mode on, auto-exit on, 2 rules"
expect_modem "v6: dormant, filter mode on, auto-exit on, 1 rules"

"$modemsim" dormancy mdlnk0 active
expect_log "|FDMGR| mdlnk0 is now active"

ctl screen 1
expect_log "|CTMGR| filtering on mdlnk0 is now off"
expect_modem "v4: active, filter mode off, auto-exit on, 0 rules"
expect_modem "v6: active, filter mode off, auto-exit on, 0 rules"

ctl dump >/dev/null
expect_log "end of noxd state"
block=$(sed -n '/noxd state:/,/end of noxd state/p' "$log")
for line in "features: mask 0x3" "WWAN mdlnk0: state 1 type 0 nwType 0 roaming 0 APNs 0 IPv4 '10.20.30.40'" \
  "port mdlnk0 WDS: v4 v6, dormancy registrations 2, last status 1" \
  "port mdlnk0 DFS: v4 v6, filtering registrations 1, last status 1"; do
  grep -qF -- "$line" <<<"$block" || fail "the state dump has no '$line'"
done

ip addr del 10.20.30.40/24 dev mdlnk0
expect_clients ""
expect_log "|FDMGR| mdlnk0 is now unknown"
stop_noxd
echo "1 passed, 0 failed"
