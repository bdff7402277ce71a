#!/usr/bin/env bash
# What the sample policies save. Each trace is replayed twice against the modem
# simulator's radio model, each run in a private network namespace of its own: noxd
# without a policy (NSRM alone, persist.nox.feature=4), then with both sample plug-ins
# (7). Prints one table per trace and writes them, with the command, to the report.
#
#   scripts/power.sh [--speed F] [--out FILE] [TRACE...]
#
# Defaults: speed 200, report bench/POWER.md, every bench/traces/*.trace. Every duration
# is divided by the speed: the traces, the simulator's timers (modemsim serve --speed)
# and the plug-ins' grace periods; the figures are in trace time. The binaries come from
# $NOX_BUILD_DIR (default build). Needs root, for the namespaces.
set -euo pipefail
self=$(realpath "$0")
root=$(dirname "$self")/..
source "$root/scripts/lib.sh"
build=${NOX_BUILD_DIR:-build}
# The push messaging ports, as the connection-tracking sample's own default.
allow="tcp/5228 tcp/5229 tcp/5230"

# One replay (run in a namespace of its own): power.sh --run TRACE MASK SPEED RESULT
if [ "${1:-}" = --run ]; then
  in_private_netns "$@" || exit 1
  cd "$root"
  trace=$2 mask=$3 speed=$4 result=$5
  ip link set lo up
  # The trace's interfaces, with the addresses its "data connect" lines give them.
  awk '{ sub(/#.*/, "") } $2 == "data" && $3 == "connect" { for (i = 5; i <= NF; i++) print $4, $i }' \
    "$trace" | sort -u >"$dir/addresses"
  for iface in $(cut -d' ' -f1 "$dir/addresses" | sort -u); do
    ip tuntap add dev "$iface" mode tun
    ip link set dev "$iface" addrgenmode none
    ip link set "$iface" up
  done
  while read -r iface address; do
    case $address in
      *:*) ip -6 addr add "$address/64" dev "$iface" nodad ;;
      *) ip addr add "$address/24" dev "$iface" ;;
    esac
  done <"$dir/addresses"

  export TOV_SIM_SOCKET=$dir/modemsim.sock
  "$build/modem/modemsim" serve --speed "$speed" --radio modem/sim/radio.conf 2>/dev/null &
  pids+=($!)
  wait_until "$build/modem/modemsim" state
  # The samples' default grace periods, at the replay's speed.
  ms() { awk -v ms="$1" -v f="$speed" 'BEGIN { printf "%d", ms / f + 0.5 }'; }
  printf 'grace_period_ms:%s\nactive_grace_ms:%s\n' "$(ms 5000)" "$(ms 3000)" >"$dir/fdmgr.conf"
  printf 'allow_v4:%s\nallow_v6:%s\nreenter_ms:%s\n' "$allow" "$allow" "$(ms 3000)" >"$dir/ctmgr.conf"
  export NOX_FDMGR_CONFIG=$dir/fdmgr.conf NOX_CTMGR_CONFIG=$dir/ctmgr.conf
  start_noxd "$build/daemon/noxd" "$mask" "$dir/noxd.log" --plugin-dir "$build/plugins" --log-level 2
  if [ "$mask" != 4 ]; then
    wait_until grep -qF "power-save filter policy ready" "$dir/noxd.log"
    wait_until grep -qF "dormancy policy ready" "$dir/noxd.log"
  fi
  replayed=0
  # In the background, so that a SIGTERM from the caller's exit stops this run at once.
  "$build/tools/noxreplay" --socket "$dir/noxd.sock" --speed "$speed" "$trace" >"$result" &
  pids+=($!)
  wait $! || replayed=$?
  # The run's logs stay beside the build, named after the result.
  mkdir -p "$build/power"
  cp "$dir/noxd.log" "$build/power/$(basename "$result").noxd.log"
  "$build/modem/modemsim" log >"$build/power/$(basename "$result").modem.log" || true
  if [ $replayed -ne 0 ]; then
    echo "--- the last lines of noxd's log" >&2
    tail -20 "$dir/noxd.log" >&2
  fi
  exit $replayed
fi

speed=200
out=bench/POWER.md
command="scripts/power.sh${*:+ $*}"
traces=()
while [ $# -gt 0 ]; do
  case $1 in
    --speed) speed=$2; shift 2 ;;
    --out) out=$(realpath -m "$2"); shift 2 ;;
    -*) echo "usage: scripts/power.sh [--speed F] [--out FILE] [TRACE...]" >&2; exit 2 ;;
    *) traces+=("$(realpath "$1")"); shift ;;
  esac
done
cd "$root"
[ ${#traces[@]} -gt 0 ] || traces=(bench/traces/*.trace)
if ! { [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; }; then
  echo "make power: needs root and network namespaces (each replay runs in a private one)" >&2
  exit 1
fi
# Each run gets a namespace of its own, also when this script runs inside the demo's.
unset NOX_IN_NETNS

# The table of one trace from its two reports (no policy, then policy).
table() {
  awk -v allow="$allow" '
    function num(line, key,   i, n, w) {
      n = split(line, w, /[ ,()]+/)
      for (i = 1; i < n; i++) if (w[i] == key) return w[i + 1]
    }
    function hms(s) { return sprintf("%d:%02d:%02d", s / 3600, s % 3600 / 60, s % 60) }
    FNR == 1 { run++ }
    /^replay:/ { late[run] = $0; sub(/.*events late by /, "", late[run]) }
    /^port / && /dropped [0-9]+ \(/ { d = $0; sub(/.*dropped [0-9]+ \(/, "", d); sub(/\)$/, "", d)
                                      dropped[run] = dropped[run] (dropped[run] == "" ? "" : ", ") d }
    /^total:/ { conn[run] = num($0, "connected"); promo[run] = num($0, "promotions")
                joule[run] = num($0, "energy"); deliv[run] = num($0, "delivered")
                drop[run] = num($0, "dropped") }
    END {
      print "| noxd | time connected | promotions | radio energy | packets delivered | dropped by filters | saving |"
      print "|---|---:|---:|---:|---:|---:|---:|"
      name[1] = "without a policy (feature mask 4: NSRM alone)"
      name[2] = "with the sample plug-ins (feature mask 7)"
      for (r = 1; r <= 2; r++)
        printf "| %s | %s | %d | %.1f J | %d | %d | %s |\n", name[r], hms(conn[r]), promo[r],
               joule[r], deliv[r], drop[r], r == 1 ? "" : sprintf("%.1f %%", 100 * (1 - joule[2] / joule[1]))
      print ""
      printf "Dropped with the policy: %s.", dropped[2] == "" ? "nothing" : dropped[2]
      bad = ""
      n = split(dropped[2], kinds, /, /)
      for (i = 1; i <= n; i++) {
        split(kinds[i], w, " ")
        if (index(" " allow " ", " " w[2] " ")) bad = bad " " w[2]
      }
      printf " Allow list (%s): %s.\n", allow, bad == "" ? "every packet delivered" : "DROPPED" bad
      printf "Replay timing: events late by %s without the policy; %s with it.\n", late[1], late[2]
      if (bad != "") exit 3
    }' "$@"
}

report=$dir/report.md
{
  echo "# What the sample policies save"
  echo
  echo "Made by \`$command\` on $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, speed $speed."
  echo "Radio model (modem/sim/radio.conf): $(awk '/^[a-z]/ { printf "%s%s %s", sep, $1, $2; sep = ", " }' \
    modem/sim/radio.conf)."
  echo "Filters' allow list: $allow (IPv4 and IPv6)."
  echo
  echo "Each trace (bench/traces) is replayed twice through noxd and the modem simulator, each"
  echo "run in a private network namespace, at $speed times real speed; the figures are in trace"
  echo "time. The saving is the radio energy the plug-ins save over noxd without them. Dropped"
  echo "packets are the policy's price: downlink that no app asked for, kept from waking the"
  echo "radio while the screen is off, which the phone then never receives."
} >"$report"
# The runs mostly sleep: all at once, the whole report takes as long as the longest trace.
echo "replaying ${traces[*]} at speed $speed, each without and with the policy ..." >&2
runs=()
for trace in "${traces[@]}"; do
  for mask in 4 7; do
    "$self" --run "$trace" "$mask" "$speed" "$dir/$(basename "$trace").$mask" &
    runs+=($!)
    pids+=($!)
  done
done
for run in "${runs[@]}"; do wait "$run"; done
status=0
for trace in "${traces[@]}"; do
  name=$(basename "$trace")
  {
    echo
    echo "## $name: $(sed -n 's/^# *//p' "$trace" | head -1)"
    echo
    table "$dir/$name.4" "$dir/$name.7" || status=1
  } >>"$report"
done
cat "$report"
mkdir -p "$(dirname "$out")"
cp "$report" "$out"
exit $status
