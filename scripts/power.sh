#!/usr/bin/env bash
# What the sample policies save, and how close they come to the best any dormancy policy
# could do. Each trace is replayed twice against the modem simulator's radio model, each
# run in a private network namespace of its own: noxd without a policy (NSRM alone,
# persist.nox.feature=4), then with both sample plug-ins (7). The simulator then works
# out the two oracles for the packets the policy's run delivered (modemsim energy
# --oracle): releasing after every gap longer than the break-even gap, and the same
# within the promotions of the run without a policy. Prints one table per trace and the
# median and worst of each figure over the generated traces, and writes them, with the
# command, to the report.
#
#   scripts/power.sh [--speed F] [--out FILE] [TRACE...]
#
# Defaults: speed 50, report $NOX_BUILD_DIR/power/POWER.md (make power-update writes the
# tracked bench/POWER.md), every bench/traces/*.trace and twelve generated traces
# (scripts/gentrace.py: six nights, six mixed days); with QUICK=1 in the environment the
# shipped traces only. Every duration is divided by the speed: the traces, the
# simulator's timers (modemsim serve --speed) and the plug-ins' grace periods; the
# figures are in trace time. The binaries come from $NOX_BUILD_DIR
# (default build). Needs root, for the namespaces.
set -euo pipefail
self=$(realpath "$0")
root=$(dirname "$self")/..
source "$root/scripts/lib.sh"
build=${NOX_BUILD_DIR:-build}
# The push messaging ports, as the connection-tracking sample's own default.
allow="tcp/5228 tcp/5229 tcp/5230"

# One replay (run in a namespace of its own): power.sh --run TRACE MASK SPEED RESULT
# [BASELINE]. With BASELINE, the result of the same trace without a policy, the oracles
# follow the report, bound to the promotions that run had.
if [ "${1:-}" = --run ]; then
  in_private_netns "$@" || exit 1
  cd "$root"
  trace=$2 mask=$3 speed=$4 result=$5 baseline=${6:-}
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
  printf 'grace_period_ms:%s\nactive_grace_ms:%s\nmin_grace_ms:%s\nmax_grace_ms:%s\nnetwork_timer_ms:%s\n' \
    "$(ms 5000)" "$(ms 3000)" "$(ms 500)" "$(ms 8000)" "$(ms 10000)" >"$dir/fdmgr.conf"
  printf 'allow_v4:%s\nallow_v6:%s\nreenter_ms:%s\n' "$allow" "$allow" "$(ms 3000)" >"$dir/ctmgr.conf"
  export NOX_FDMGR_CONFIG=$dir/fdmgr.conf NOX_CTMGR_CONFIG=$dir/ctmgr.conf
  start_noxd "$build/daemon/noxd" "$mask" "$dir/noxd.log" --plugin-dir "$build/plugins" --log-level 2
  if [ "$mask" != 4 ]; then
    wait_until grep -qF "power-save filter policy ready" "$dir/noxd.log"
    wait_until grep -qF "dormancy policy ready" "$dir/noxd.log"
  fi
  # Every run starts its replay once all are set up: starting noxd and the simulator
  # costs the CPU that the replays' timing needs.
  touch "$NOX_POWER_READY/$(basename "$result")"
  all_ready() { [ "$(find "$NOX_POWER_READY" -type f | wc -l)" -ge "$NOX_POWER_RUNS" ]; }
  for _ in 1 2 3 4 5 6; do wait_until all_ready && break; done
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
    exit $replayed
  fi
  if [ -n "$baseline" ]; then
    # Both runs of a trace start together; the one without a policy has no plug-ins to
    # wait for, so it is done about when this one is.
    for _ in 1 2 3 4 5 6; do wait_until grep -q '^total:' "$baseline" && break; done
    most=$(awk '/^total:/ { for (i = 1; i < NF; i++) if ($i == "promotions") print $(i + 1) + 0 }' "$baseline")
    [ -n "$most" ] || { echo "power.sh: no result without a policy in $baseline" >&2; exit 1; }
    "$build/modem/modemsim" energy --oracle "$most" >>"$result"
  fi
  exit 0
fi

# noxd reacts to a dormancy change in about a millisecond, which the speed stretches into
# trace time: 50 ms here, a tenth of the shortest grace the plug-in learns.
speed=50
out=$build/power/POWER.md
command="${QUICK:+QUICK=1 }scripts/power.sh${*:+ $*}"
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
generated=()
if [ ${#traces[@]} -eq 0 ]; then
  traces=(bench/traces/*.trace)
  if [ -z "${QUICK:-}" ]; then
    # The same days and nights every time: the generator is seeded.
    mkdir -p "$build/power/traces"
    for seed in 1 2 3 4 5 6; do
      for kind in night day; do
        generated+=("$build/power/traces/$kind-$seed.trace")
        scripts/gentrace.py "$kind" "$seed" >"${generated[-1]}"
      done
    done
    command="$command (generated: scripts/gentrace.py night|day 1..6)"
  fi
fi
if ! { [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; }; then
  echo "make power: needs root and network namespaces (each replay runs in a private one)" >&2
  exit 1
fi
# Each run gets a namespace of its own, also when this script runs inside the demo's.
unset NOX_IN_NETNS

# The table of one trace from its two reports (no policy, then policy with the oracles);
# appends the trace's figures as one line to the file $summary.
table() {
  awk -v allow="$allow" -v name="$1" -v summary="$summary" '
    function num(line, key,   i, n, w) {
      n = split(line, w, /[ ,()]+/)
      for (i = 1; i < n; i++) if (w[i] == key) return w[i + 1]
    }
    function hms(s) { return sprintf("%d:%02d:%04.1f", s / 3600, s % 3600 / 60, s % 60) }
    function take(r, line) {
      sub(/^[^:]*: /, "", line)
      conn[r] = num(line, "connected"); promo[r] = num(line, "promotions")
      joule[r] = num(line, "energy"); deliv[r] = num(line, "delivered"); drop[r] = num(line, "dropped")
    }
    function pct(x) { return sprintf("%.1f %%", 100 * x) }
    FNR == 1 { run++ }
    /^replay:/ { late[run] = $0; sub(/.*events late by /, "", late[run])
                 avg[run] = num($0, "by"); most[run] = num($0, "average") }
    /^screen on:/ { screenDrops += $3 }
    /^port / && /dropped [0-9]+ \(/ { d = $0; sub(/.*dropped [0-9]+ \(/, "", d); sub(/\)$/, "", d)
                                      dropped[run] = dropped[run] (dropped[run] == "" ? "" : ", ") d }
    /^total:/ { take(run, $0) }
    /^oracle \(signalling-bound/ { take(3, $0) }
    /^oracle \(unlimited\)/ { take(4, $0) }
    /^timer \(signalling-bound\)/ { take(5, $0); timer = num($0, "releases") }
    /^oracle:/ { sub(/^oracle: /, ""); rule = $0 }
    END {
      if (conn[3] == "") { print "no oracle for " name > "/dev/stderr"; exit 3 }
      print "| noxd | time connected | promotions | radio energy | delivered | dropped | saving | efficiency | signalling |"
      print "|---|---:|---:|---:|---:|---:|---:|---:|---:|"
      label[1] = "without a policy (mask 4: NSRM alone)"
      label[2] = "with the sample plug-ins (mask 7)"
      label[3] = "oracle (signalling-bound)"
      label[4] = "oracle (unlimited)"
      for (r = 1; r <= 4; r++) {
        save[r] = 1 - joule[r] / joule[1]
        sig[r] = (promo[1] > 0) ? promo[r] / promo[1] : 1
      }
      for (r = 1; r <= 4; r++) {
        printf "| %s | %s | %d | %.1f J | %d | %d | %s | %s | %.2f |\n", label[r], hms(conn[r]),
               promo[r], joule[r], deliv[r], drop[r], r == 1 ? "" : pct(save[r]),
               (r == 2 && save[3] > 0) ? pct(save[2] / save[3]) : "", sig[r]
      }
      eff = (save[3] > 0) ? save[2] / save[3] : 1
      print ""
      printf "Dropped with the policy: %s.", dropped[2] == "" ? "nothing" : dropped[2]
      bad = ""
      n = split(dropped[2], kinds, /, /)
      for (i = 1; i <= n; i++) {
        split(kinds[i], w, " ")
        if (index(" " allow " ", " " w[2] " ")) bad = bad " " w[2]
      }
      printf " Allow list (%s): %s. With the screen on: %s.\n", allow,
             bad == "" ? "every packet delivered" : "DROPPED" bad,
             screenDrops == 0 ? "nothing dropped" : screenDrops " packets DROPPED"
      save[5] = 1 - joule[5] / joule[1]
      if (timer != "")
        printf "A timer that sees every packet but not the next one, the best within no policy'"'"'s promotions, releases %.2f s after the last packet: saving %s, %s of the signalling-bound oracle'"'"'s, %d promotions.\n",
               timer / 1000, pct(save[5]), (save[3] > 0 ? pct(save[5] / save[3]) : "all"), promo[5]
      printf "Replay timing: events late by %s without the policy; %s with it.\n", late[1], late[2]
      printf "%s %.2f %.2f %.3f %.2f %.2f %.3f %d %d %d %d %.2f\n", name, 100 * save[2], 100 * eff,
             sig[2], 100 * save[3], 100 * save[4], sig[4], (bad != "" || screenDrops > 0),
             (avg[1] > avg[2] ? avg[1] : avg[2]), (most[1] > most[2] ? most[1] : most[2]),
             (promo[2] > promo[1]), 100 * (timer == "" ? 0 : save[3] > 0 ? save[5] / save[3] : 1) >> summary
      if (bad != "" || screenDrops > 0) exit 3
    }' "$2" "$3"
}

# Median and worst of each figure over the traces named in $summary's lines given.
spread() {
  awk '
    function sorted(col,   i, j, t) {
      for (i = 1; i <= n; i++) v[i] = val[i, col]
      for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
    }
    function median(col) { sorted(col); return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2 }
    function low(col) { sorted(col); return v[1] }
    function high(col) { sorted(col); return v[n] }
    function row(label, col, worstIsHigh, fmt) {
      printf "| %s | " fmt " | " fmt " |\n", label, median(col), worstIsHigh ? high(col) : low(col)
    }
    { n++; for (c = 2; c <= NF; c++) val[n, c] = $c; names = names (n > 1 ? ", " : "") $1 }
    END {
      print "| figure | median | worst |"
      print "|---|---:|---:|"
      row("saving, the sample plug-ins (%)", 2, 0, "%.1f")
      row("efficiency: their saving over the signalling-bound oracle'"'"'s (%)", 3, 0, "%.1f")
      row("signalling: their promotions over no policy'"'"'s", 4, 1, "%.2f")
      row("saving, oracle (signalling-bound) (%)", 5, 0, "%.1f")
      row("saving, oracle (unlimited) (%)", 6, 0, "%.1f")
      row("signalling, oracle (unlimited)", 7, 1, "%.2f")
      row("efficiency: the best timer that sees every packet, within the promotions (%)", 12, 0, "%.1f")
      row("replay: events late on average (ms of trace time)", 9, 1, "%d")
      row("replay: events late at most (ms of trace time)", 10, 1, "%d")
      printf "\nOver %d traces: %s. Allow-list or screen-on drops in %d of them; more promotions than without a policy in %d.\n", n, names, sum(8), sum(11)
    }
    function sum(col,   i, s) { for (i = 1; i <= n; i++) s += val[i, col]; return s }' "$@"
}

summary=$dir/summary
report=$dir/report.md
breakeven=$(awk '/^[a-z]/ { p[$1] = $2 } END {
  printf "%d", ((p["promotion_mw"] - p["idle_mw"]) * p["promotion_ms"] + p["connected_mw"] - p["idle_mw"] - 1) / (p["connected_mw"] - p["idle_mw"]) }' \
  modem/sim/radio.conf)
{
  echo "# What the sample policies save, and how close they come to the best"
  echo
  echo "Made by \`$command\` on $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, speed $speed."
  echo "Radio model (modem/sim/radio.conf): $(awk '/^[a-z]/ { printf "%s%s %s", sep, $1, $2; sep = ", " }' \
    modem/sim/radio.conf)."
  echo "Filters' allow list: $allow (IPv4 and IPv6)."
  echo
  echo "Each trace is replayed twice through noxd and the modem simulator, each run in a"
  echo "private network namespace, at $speed times real speed; the figures are in trace time."
  echo "noxd's own reaction (about a millisecond) counts $speed times as much against the policy."
  echo "The saving is the radio energy saved over noxd without a policy. Dropped packets are"
  echo "the policy's price: downlink that no app asked for, kept from waking the radio while"
  echo "the screen is off, which the phone then never receives."
  echo
  echo "The oracles are the best any dormancy policy could do for the packets the policy's run"
  echo "delivered, knowing every one of them in advance (the simulator keeps their times). A"
  echo "release costs a promotion when the next packet comes; staying connected costs power"
  echo "until then. Past the break-even gap ($breakeven ms with this model: a promotion's energy"
  echo "above idle over connected power above idle) releasing costs less. The unlimited oracle"
  echo "releases right after every packet that the next one on its port follows later than"
  echo "that. The signalling-bound one may not promote more often than the run without a"
  echo "policy did: it releases in the largest gaps first, as long as the promotions stay"
  echo "within that count. The efficiency is the policy's saving as a share of the"
  echo "signalling-bound oracle's; the signalling is the promotions over those without a policy."
  echo
  echo "The dormancy plug-in (plugins/fdmgr) learns per interface how long after traffic wakes"
  echo "the link to ask for a release (plugins/fdmgr/GraceLearner.h). It sees only the modem's"
  echo "dormancy changes, its own requests, the screen and tethering. Each release it asked"
  echo "for is judged at the next wake: sooner than the network's inactivity timer, it cost a"
  echo "promotion the network would not have made, and the grace doubles; otherwise it halves"
  echo "with the screen off, so that about half of the releases cost one (a release saves"
  echo "energy unless the link is woken within about $breakeven ms, and the filters keep most"
  echo "wakes away); floor 500 ms, ceiling 8 s, 3 s until four releases were judged, and the"
  echo "learnt grace also after the screen goes off. With the screen on the next tap would"
  echo "wait for that promotion: screen-on releases are learnt apart, a quarter comes off"
  echo "their grace instead of half, and they stop while more than a third of the recent ones"
  echo "were premature; while stopped, it judges the release it did not make from the"
  echo "network's own release, a timer after the last packet, and the next wake. With"
  echo "tethering on it leaves the link to the network. It cannot see packets: its grace"
  echo "runs from the wake, not from the last packet."
  echo
  echo "Below each table, for comparison: the best fixed timer that sees every packet as it"
  echo "comes (which the plug-in does not) and releases the link the same time after the last"
  echo "one, among timers every 250 ms up to the network's, within the promotions without a"
  echo "policy. Short timers come close to the oracle in energy but promote more often than"
  echo "the network; within its promotions a fixed timer has to wait long."
  if [ ${#generated[@]} -gt 0 ]; then
    echo
    echo "The generated traces (scripts/gentrace.py, seeded) take their screen use from Hintze"
    echo "et al., IMWUT 2017 (about 60 interactions a day) and Falaki et al., MobiSys 2010"
    echo "(10 to 200 interactions a day, 10 to 250 s each, across users); their screen-off"
    echo "sources (push keepalives every 28 min, push messages with fetches, background syncs,"
    echo "unsolicited downlink every 4 min on average) are set so that a mixed day without a"
    echo "policy spends about the 58.5 % of radio energy with the screen off that Huang et al.,"
    echo "IMC 2012, measured; each trace's header gives its share."
  fi
} >"$report"
# The runs mostly sleep: all at once, the whole report takes as long as the longest trace.
all=("${traces[@]}" "${generated[@]}")
echo "replaying ${#all[@]} traces at speed $speed, each without and with the policy ..." >&2
export NOX_POWER_READY=$dir/ready NOX_POWER_RUNS=$((2 * ${#all[@]}))
mkdir -p "$NOX_POWER_READY"
started=$(date +%s)
runs=()
for trace in "${all[@]}"; do
  result=$dir/$(basename "$trace")
  "$self" --run "$trace" 4 "$speed" "$result.4" &
  runs+=($!)
  pids+=($!)
  "$self" --run "$trace" 7 "$speed" "$result.7" "$result.4" &
  runs+=($!)
  pids+=($!)
done
status=0
for run in "${runs[@]}"; do wait "$run" || status=1; done
[ $status -eq 0 ] || { echo "power.sh: a replay failed" >&2; exit 1; }
section() {
  local trace
  for trace in "$@"; do
    name=$(basename "$trace")
    echo
    echo "## $name: $(sed -n 's/^# *//p' "$trace" | head -1)"
    echo
    table "$name" "$dir/$name.4" "$dir/$name.7" || status=1
  done
}
section "${traces[@]}" >>"$report"
if [ ${#generated[@]} -gt 0 ]; then
  {
    echo
    echo "## Generated traces: median and worst"
    echo
    echo "scripts/gentrace.py's header cites where its rates come from. The worst is the lowest"
    echo "saving or efficiency and the highest signalling or lateness."
    echo
    section "${generated[@]}" >"$dir/generated.md"
    tail -n ${#generated[@]} "$summary" >"$dir/summary.generated"
    spread "$dir/summary.generated"
    echo
    echo "All shipped and generated traces:"
    echo
    spread "$summary"
    echo
    echo "The tables of the generated traces:"
    cat "$dir/generated.md"
  } >>"$report"
fi
echo >>"$report"
echo "Replayed in $(($(date +%s) - started)) s." >>"$report"
cat "$report"
mkdir -p "$(dirname "$out")"
cp "$report" "$out"
exit $status
