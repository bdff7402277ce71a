#!/usr/bin/env bash
# The main job, in a private network namespace: noxd with the sample policy plug-ins
# takes a phone from screen-off to a dormant modem with its power-save filters, then
# back. Prints a timeline: each step, the log lines that matter, and the modem's state
# after it. The full daemon log stays in build/demo/noxd.log.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib.sh
if ! in_private_netns "$@"; then
  echo "make demo: needs root and network namespaces (it runs noxd in a private one); run it as root" >&2
  exit 1
fi

noxd=build/daemon/noxd
noxctl=build/tools/noxctl
modemsim=build/modem/modemsim
out=build/demo
log=$out/noxd.log
mkdir -p "$out"
start=$(date +%s.%N)
shown=0

step() {
  printf '\n[%5.1f s] %s\n' "$(awk "BEGIN { print $(date +%s.%N) - $start }")" "$*"
}
# Waits for a text in the daemon log, then shows the new lines that tell the story.
show() {
  wait_until grep -qF -- "$1" "$log" || echo "         (no '$1' in the log)"
  local total
  total=$(wc -l <"$log")
  sed -n "$((shown + 1)),${total}p" "$log" | sed 's/^NOX . [0-9-]* [0-9:.]* *[0-9]* *[0-9]* //' |
    grep -E '^\|(FDMGR|CTMGR)\||control channel for|Started WDS|Stopped WDS|NOXJ client' |
    sed 's/^/         log   /' || true
  shown=$total
}
# The modem's ports: dormancy, filter mode and filters, and which clients it serves.
modem() {
  "$modemsim" state | awk '
    NR == 1 && /^libraries/ { next }
    /^port/ { ports = 1; print "         modem " $0 }
    /^  v[46]:|filter [0-9]+:/ { sub(/^ +/, ""); print "               " $0 }
    /client [0-9]+:/ { split($0, f, ":"); n = split(f[1], w, " "); split(f[2], v, ",");
                       clients = clients " " w[1] v[1] }
    END { if (!ports) print "         modem (no port yet)"; else print "               clients:" (clients == "" ? " none" : clients) }'
}
# A moment between steps, to follow the timeline as it happens.
pause() { sleep 1.5; }
ctl() { "$noxctl" --socket "$dir/noxd.sock" "$@"; }

step "1. modemsim starts; noxd starts with persist.nox.feature=3 (both sample plug-ins),"
echo "         whose demo settings make the modem dormant 5 s after the screen goes off"
start_modemsim "$modemsim"
printf 'grace_period_ms:5000\n' >"$dir/fdmgr.conf"
printf 'allow_v4:tcp/5228 udp/53\nallow_v6:tcp/5228\n' >"$dir/ctmgr.conf"
export NOX_FDMGR_CONFIG=$dir/fdmgr.conf NOX_CTMGR_CONFIG=$dir/ctmgr.conf
start_noxd "$noxd" 3 "$log" --plugin-dir build/plugins --log-level 1
show "power-save filter policy ready"
modem

pause
step "2. mdlnk0 comes up with 10.20.30.40/24 and 2001:db8::40/64; the framework client"
echo "         announces itself and reports mobile data connected on mdlnk0"
ip link set lo up
ip tuntap add dev mdlnk0 mode tun
ip link set dev mdlnk0 addrgenmode none
ip link set mdlnk0 up
ip addr add 10.20.30.40/24 dev mdlnk0
ip -6 addr add 2001:db8::40/64 dev mdlnk0 nodad
ctl listen >"$dir/listen.out" 2>&1 &
pids+=($!)
wait_until grep -qF "NOXJ client is on descriptor" "$log"
ctl wwan --nw-type 13 --apn 0 --iface mdlnk0 --ipv4 10.20.30.40 --iface-v6 mdlnk0 \
  --ipv6 2001:db8::40 --mccmnc 310260
show "following the filtering status of mdlnk0"
modem

pause
step "3. the screen goes off (noxctl screen 0): filters at once, dormancy after the grace period"
ctl screen 0
show "filtering on mdlnk0 is now on"
modem
show "mdlnk0 is now dormant"
modem

pause
step "4. traffic resumes: the network wakes the link (modemsim dormancy mdlnk0 active)"
"$modemsim" dormancy mdlnk0 active
show "mdlnk0 is now active"
modem

pause
step "5. the screen comes on (noxctl screen 1)"
ctl screen 1
show "filtering on mdlnk0 is now off"
modem

step "6. the daemon's state (noxctl dump)"
ctl dump | sed 's/^/         /'
wait_until grep -qF "end of noxd state" "$log"
sed -n '/noxd state:/,/end of noxd state/p' "$log" | sed 's/^NOX . [0-9-]* [0-9:.]* *[0-9]* *[0-9]* /         /'

pause
step "7. mobile data disconnects and the link goes down"
ctl wwan --status 4 --apn 0 --iface mdlnk0 --iface-v6 mdlnk0 --mccmnc 310260
ip addr del 10.20.30.40/24 dev mdlnk0
ip link set mdlnk0 down
show "mdlnk0 is now unknown"
modem

pause
step "8. other client messages, and feature status (NSRM is off in this mask)"
for args in "wlan 1 1 0" "tethering 1" "apps add 10050:com.example.mail:1f:2a 10051:com.example.maps" \
  "feature get 2" "feature set 2 2"; do
  echo "         \$ noxctl $args"
  # shellcheck disable=SC2086
  ctl $args | sed 's/^/           /' || true
done

step "9. with no feature on, noxd asks init to stop it (ctl.stop), and stops"
echo "persist.nox.feature=0" >"$dir/stop.prop"
status=0
timeout 10 "$noxd" --socket "$dir/stop.sock" --props "$dir/stop.prop" --log-level 2 2>"$dir/stop.log" || status=$?
grep -E "shutting down|stopped" "$dir/stop.log" | sed 's/^NOX . [0-9-]* [0-9:.]* *[0-9]* *[0-9]* //; s/^/         /'

echo "         exit status $status; $(grep ctl.stop "$dir/stop.prop")"

"$modemsim" log >"$out/modem.log"
printf '\nThe full daemon log: %s; what the modem received: %s\n' "$log" "$out/modem.log"

step "10. what the sample policies save: an hour's commute (bench/traces/commute.trace) replayed"
echo "         at 300 times real speed against the modem's radio model, without a policy and with"
echo "         the sample plug-ins, each in a network namespace of its own (make power: every trace)"
scripts/power.sh --speed 300 --out "$out/power.md" bench/traces/commute.trace 2>/dev/null |
  sed -n '/^| /p; /^Dropped/p' | sed 's/^/         /'
printf '\nThe report: %s; the replays'"'"' logs: %s\n' "$out/power.md" build/power
