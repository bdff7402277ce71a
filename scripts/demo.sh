#!/usr/bin/env bash
# A scripted scenario for noxd on its host defaults: the daemon in a private network
# namespace (when root), talked to with noxctl, reacting to a modem interface that
# comes and goes. Prints what the framework client hears and the daemon's log.
set -euo pipefail
cd "$(dirname "$0")/.."
noxd=build/daemon/noxd
noxctl=build/tools/noxctl
modemsim=build/modem/modemsim

if [ "${1:-}" != "--inside" ] && [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; then
  exec unshare --net "$0" --inside
fi
netns=$([ "${1:-}" = "--inside" ] && echo yes || echo no)

dir=$(mktemp -d /tmp/noxd-demo.XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
step() { printf '\n== %s\n' "$*"; }
ctl() {
  echo "\$ noxctl $*"
  "$noxctl" --socket "$dir/noxd.sock" "$@"
}
settle() { sleep 0.3; }

step "the modem simulator"
export TOV_SIM_SOCKET=$dir/modemsim.sock
"$modemsim" serve 2>/dev/null &
pids+=($!)
for _ in $(seq 1 100); do "$modemsim" state >/dev/null 2>&1 && break; sleep 0.05; done
"$modemsim" state

step "noxd with connection tracking and NSRM on (persist.nox.feature=6), full log"
echo "persist.nox.feature=6" >"$dir/noxd.prop"
"$noxd" --socket "$dir/noxd.sock" --props "$dir/noxd.prop" --plugin-dir "$dir" --log-level 0 \
  2>"$dir/noxd.log" &
pids+=($!)
for _ in $(seq 1 100); do [ -S "$dir/noxd.sock" ] && break; sleep 0.05; done
settle

step "a framework client listens for what noxd sends it"
"$noxctl" --socket "$dir/noxd.sock" listen >"$dir/listen.out" 2>&1 &
pids+=($!)
settle

step "state changes from the framework"
ctl screen 0
ctl tethering 1
ctl wlan 1 1 0
ctl apps add 10050:com.example.mail:1f:2a 10051:com.example.maps
ctl raw 3 2 2 3 # NSRM preference 3: the answer goes to the listening framework client
ctl raw 1 1 2   # NSRM status request: likewise
settle

step "feature requests that wait for their own answer (each announces itself first)"
ctl feature get 2
ctl feature set 2 2
ctl feature set 2 4 || echo "(refused, exit status $?)"

if [ "$netns" = yes ]; then
  step "a modem interface comes up in the kernel and gets addresses (private network namespace)"
  ip link set lo up
  ip tuntap add dev mdlnk0 mode tun
  ip link set mdlnk0 up
  ip addr add 10.20.30.40/24 dev mdlnk0
  ip -6 addr add 2001:db8::40/64 dev mdlnk0 nodad
  settle
  step "the modem: a WDS and a DFS client per family on port mdlnk0"
  "$modemsim" state
  step "and goes away"
  ip addr del 10.20.30.40/24 dev mdlnk0
  ip link set mdlnk0 down
  settle
  step "the modem: the per-family clients are released"
  "$modemsim" state
else
  step "(not root: skipping the kernel interface part)"
fi

step "what the framework client heard"
cat "$dir/listen.out"
step "property store"
cat "$dir/noxd.prop"
step "what the modem received"
"$modemsim" log
step "daemon log (without the event loop's and the parcel decoder's own lines)"
sed -e 's/^NOX [A-Z] [0-9-]* [0-9:.]* *[0-9]* *[0-9]* //' "$dir/noxd.log" |
  grep -v -e '^|COMMON:COM|' -e '^|NETLINK|' -e '^$'


step "with no feature on, noxd asks for ctl.stop and stops, as init would stop it"
echo "persist.nox.feature=0" >"$dir/stop.prop"
"$noxd" --socket "$dir/stop.sock" --props "$dir/stop.prop" --log-level 2 && echo "noxd exited with status 0"
grep ctl.stop "$dir/stop.prop"
