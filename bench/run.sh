#!/usr/bin/env bash
# noxd beside small reference servers that do the same exchange on the same framing,
# and the framework's micro-benchmarks, in one run. As root, after `make build` (which
# builds the benchmark programs too); it makes its own private network namespace, modem
# simulator, property files and sockets.
#
#   bench/run.sh [--quick] [--build-dir DIR]
#
# The full run (about 5 minutes) writes bench/RESULTS.md; --quick (about a minute, for
# iterating) writes DIR/bench/RESULTS-quick.md. Both print the same tables.
set -Eeuo pipefail
case $0 in
  /*) ;;
  *) exec "$(cd "$(dirname "$0")" && pwd)/$(basename "$0")" "$@" ;;
esac
cd "$(dirname "$0")/.."
args=("$@")
command_line="bench/run.sh${*:+ $*}"
quick=0
build=build
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=1 ;;
    --build-dir) build=${2:?--build-dir needs a directory}; shift ;;
    -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "bench/run.sh: unknown option '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done

source scripts/lib.sh
if ! in_private_netns "${args[@]}"; then
  echo "bench/run.sh: needs root and network namespaces (it runs noxd in a private one)" >&2
  exit 1
fi

noxd=$build/daemon/noxd
modemsim=$build/modem/modemsim
noxload=$build/bench/noxload
ref_server=$build/bench/ref_server
for f in "$noxd" "$modemsim" "$noxload" "$ref_server" "$build/bench/log_bench" \
  "$build/bench/timer_bench"; do
  [ -x "$f" ] || { echo "bench/run.sh: $f is missing: run 'make build' first" >&2; exit 1; }
done
for tool in valgrind callgrind_annotate taskset ss; do
  command -v "$tool" >/dev/null || { echo "bench/run.sh: $tool is missing: run 'make deps'" >&2; exit 1; }
done

if [ "$quick" = 1 ]; then
  runs=1 seconds=0.3 warmup=0.1 settle=2 idle=2 storm=1000 cg_small=1000 cg_large=6000 wwan=5
  bench_args=(--benchmark_min_time=0.05)
  out=$build/bench/RESULTS-quick.md
else
  runs=7 seconds=1 warmup=0.2 settle=2 idle=10 storm=10000 cg_small=2000 cg_large=22000 wwan=20
  bench_args=(--benchmark_min_time=0.2 --benchmark_repetitions=5 --benchmark_report_aggregates_only=true)
  out=bench/RESULTS.md
fi
depths=(1 8 64)
servers=(raw records looper libevent sdevent noxd-l4 noxd-l2)
record_buffer_kib=8  # the daemon's per-connection record buffer (8192 bytes)

# The server on one core, the client on the other, when there are two.
# The server on one core, the client on the other, when there are two; the client then
# polls for answers, so that its own wake-ups stay out of the figures.
on_server=()
on_client=()
spin=0
if [ "$(nproc)" -ge 2 ]; then
  on_server=(taskset -c 0)
  on_client=(taskset -c 1)
  spin=1
fi

ip link set lo up
start_modemsim "$modemsim"

say() { printf '%s\n' "$*" >&2; }
trap 'say "bench/run.sh: failed at line $LINENO: $BASH_COMMAND"' ERR
# The value of NAME in a line of name=value pairs.
kv() { sed -n "s/.*\<$1=\([^ ]*\).*/\1/p" <<<"$2"; }
listening() { ss -xlH | grep -qF " $1 "; }
status_kb() { awk -v k="$2:" '$1 == k { print $2 }' "/proc/$1/status"; }
# Context switches of every thread of a process: each one is a wake-up of a sleeping thread
# or a preemption.
switches() {
  cat /proc/"$1"/task/*/status | awk '/^(non)?voluntary_ctxt_switches:/ { n += $2 } END { print n }'
}

declare -A pid sock
# Starts server $1 on socket $2, the command prefixed by the remaining arguments;
# sets $started once it listens.
start_server() {
  local name=$1 path=$2
  shift 2
  local cmd log=/dev/null
  case $name in
    noxd-l*)
      echo "persist.nox.feature=4" >"${path%.sock}.prop"
      cmd=("$noxd" --socket "$path" --props "${path%.sock}.prop" --log-level "${name#noxd-l}")
      # Level 2 writes a line per request: to /dev/null, so that a disk is not measured.
      [ "$name" = noxd-l4 ] && log=$dir/$name.log
      ;;
    *) cmd=("$ref_server" "$name" "$path") ;;
  esac
  "$@" "${cmd[@]}" >/dev/null 2>>"$log" &
  started=$!
  pids+=("$started")
  local _
  for _ in $(seq 1 1200); do
    listening "$path" && return 0
    kill -0 "$started" 2>/dev/null || break
    sleep 0.05
  done
  say "bench/run.sh: $name did not start listening on $path"
  exit 1
}
stop_server() { stop_pids "$1" || say "bench/run.sh: $1 ignored SIGTERM and was killed"; }

started_at=$(date +%s)
load_at_start=$(cut -d' ' -f1-3 /proc/loadavg)
say "== servers: ${servers[*]}"
for s in "${servers[@]}"; do
  sock[$s]=$dir/$s.sock
  start_server "$s" "${sock[$s]}" "${on_server[@]}"
  pid[$s]=$started
done

# Requests per second, latency and server CPU: every server at every depth in each run,
# so that a disturbance spreads over all of them.
say "== request path: $runs run(s) of ${seconds}s per server and depth"
: >"$dir/pipeline.txt"
for run in $(seq 1 "$runs"); do
  for depth in "${depths[@]}"; do
    for s in "${servers[@]}"; do
      line=$("${on_client[@]}" "$noxload" pipeline "${sock[$s]}" --depth "$depth" \
        --seconds "$seconds" --warmup "$warmup" --pid "${pid[$s]}" --spin "$spin")
      echo "$s $depth $run $(kv rps "$line") $(kv p50_us "$line") $(kv p99_us "$line")" \
        "$(kv cpu_ns_per_req "$line")" >>"$dir/pipeline.txt"
    done
  done
  say "   run $run done"
done
# Median of column $3 (4 rps, 5 p50, 6 p99, 7 CPU ns) for server $1 at depth $2.
med() {
  awk -v s="$1" -v d="$2" -v c="$3" '$1 == s && $2 == d { print $c }' "$dir/pipeline.txt" |
    sort -g | awk '{ v[NR] = $1 } END { if (NR) print v[int((NR + 1) / 2)]; else print "-" }'
}

# Deferred work (a trim a moment after the last client left, say) shows in the first
# window; a timer that keeps waking an idle server shows in the second.
say "== memory after the workload, wake-ups over the next ${settle}s and ${idle}s"
declare -A anon anon_idle file rss wake_settle wake
for s in "${servers[@]}"; do
  anon[$s]=$(status_kb "${pid[$s]}" RssAnon)
  wake_settle[$s]=$(switches "${pid[$s]}")
done
sleep "$settle"
for s in "${servers[@]}"; do
  wake[$s]=$(switches "${pid[$s]}")
  wake_settle[$s]=$((wake[$s] - wake_settle[$s]))
done
sleep "$idle"
for s in "${servers[@]}"; do
  wake[$s]=$(($(switches "${pid[$s]}") - wake[$s]))
  anon_idle[$s]=$(status_kb "${pid[$s]}" RssAnon)
  file[$s]=$(status_kb "${pid[$s]}" RssFile)
  rss[$s]=$(status_kb "${pid[$s]}" VmRSS)
done

# noxd at level 4: idle clients, then a framework client with 500 applications, then a
# storm of connections.
say "== noxd: 100 idle clients, 500 applications, $storm connect-and-close cycles"
nox=${pid[noxd-l4]}
mem_base=$(status_kb "$nox" RssAnon)
fds_base=$(ls "/proc/$nox/fd" | wc -l)
wait_ready() { wait_until grep -q ready "$1" || { say "bench/run.sh: $1 never got ready"; exit 1; }; }
"$noxload" hold "${sock[noxd-l4]}" --clients 100 --pid "$nox" >"$dir/hold-clients.out" &
hold_clients=$!
pids+=("$hold_clients")
wait_ready "$dir/hold-clients.out"
mem_clients=$(status_kb "$nox" RssAnon)
"$noxload" hold "${sock[noxd-l4]}" --clients 0 --apps 500 --pid "$nox" >"$dir/hold-apps.out" &
hold_apps=$!
pids+=("$hold_apps")
wait_ready "$dir/hold-apps.out"
mem_apps=$(status_kb "$nox" RssAnon)
stop_server "$hold_apps"
stop_server "$hold_clients"
wait_until sh -c "[ \$(ls /proc/$nox/fd | wc -l) -le $fds_base ]" || true
storm_line=$("${on_client[@]}" "$noxload" storm "${sock[noxd-l4]}" --cycles "$storm" --pid "$nox")

for s in "${servers[@]}"; do stop_server "${pid[$s]}"; done

# Instructions per request under callgrind: two runs of different lengths at depth 8,
# whose difference leaves out start-up and exit.
say "== instructions per request (callgrind, $cg_small and $cg_large requests at depth 8)"
declare -A instr
cg_run() {
  local s=$1 n=$2 path=$dir/cg-$1-$2.sock
  start_server "$s" "$path" "${on_server[@]}" valgrind --tool=callgrind --dump-instr=yes \
    --log-file="$dir/cg-$s-$n.vg" --callgrind-out-file="$dir/cg-$s-$n.out"
  "${on_client[@]}" "$noxload" pipeline "$path" --depth 8 --count "$n" >/dev/null
  stop_server "$started"
  awk '/^summary:/ { print $2 }' "$dir/cg-$s-$n.out"
}
for s in "${servers[@]}"; do
  small=$(cg_run "$s" "$cg_small")
  large=$(cg_run "$s" "$cg_large")
  [ -n "$small" ] && [ -n "$large" ] || { say "bench/run.sh: callgrind run of $s failed"; exit 1; }
  instr[$s]=$(((large - small) / (cg_large - cg_small)))
  say "   $s: ${instr[$s]}"
done

# Per function: instructions per request, from the same two runs. Self costs come per
# function and source file (code inlined from a header is counted under that header);
# inclusive costs per function, the largest of its entries (callgrind repeats them).
functions() {
  callgrind_annotate --auto=no --threshold=100 "$@" 2>/dev/null | awk '
    /^ *[0-9,]+ \(/ && !/PROGRAM TOTALS/ {
      n = $1; gsub(",", "", n)
      sub(/^ *[0-9,]+ \( *[0-9.]+%\) +/, ""); sub(/ \[[^]]*\]$/, "")
      file = $0; sub(/:.*/, "", file); sub(/.*\//, "", file)
      fn = $0; sub(/^[^:]*:/, "", fn)
      print n "\t" fn "\t" file
    }'
}
profile() {
  local s=$1 top=$2 a=$dir/cg-$1-$cg_small.out b=$dir/cg-$1-$cg_large.out
  functions "$a" >"$dir/self-a"
  functions "$b" >"$dir/self-b"
  functions --inclusive=yes "$a" >"$dir/incl-a"
  functions --inclusive=yes "$b" >"$dir/incl-b"
  awk -F'\t' -v n=$((cg_large - cg_small)) '
    FILENAME ~ /self-a$/ { sa[$2 "\t" $3] += $1; next }
    FILENAME ~ /self-b$/ { sb[$2 "\t" $3] += $1; next }
    FILENAME ~ /incl-a$/ { if ($1 > ia[$2]) ia[$2] = $1; next }
    { if ($1 > ib[$2]) ib[$2] = $1 }
    END {
      for (k in sb) {
        self = (sb[k] - sa[k]) / n
        split(k, f, "\t")
        if (self >= 0.5) printf "%.1f\t%.1f\t%s\t%s\n", self, (ib[f[1]] - ia[f[1]]) / n, f[1], f[2]
      }
    }' "$dir/self-a" "$dir/self-b" "$dir/incl-a" "$dir/incl-b" | sort -t$'\t' -k1,1gr | awk -v top="$top" 'NR <= top'
}
profile noxd-l4 30 >"$dir/profile-l4"
profile noxd-l2 12 >"$dir/profile-l2"

# From the framework's "mobile data connected" to the modem clients in the simulator:
# a WDS and a DFS client for each address family (features 1 and 2, no plug-ins).
say "== WWAN notification to modem clients ($wwan interfaces)"
for i in $(seq 0 $((wwan - 1))); do
  ip tuntap add dev "mdlnk$i" mode tun
  ip link set dev "mdlnk$i" addrgenmode none
  ip link set "mdlnk$i" up
done
echo "persist.nox.feature=6" >"$dir/wwan.prop"
"$noxd" --socket "$dir/wwan.sock" --props "$dir/wwan.prop" --log-level 4 2>"$dir/wwan.log" &
pids+=($!)
wait_until listening "$dir/wwan.sock"
wwan_line=$("$noxload" wwan "$dir/wwan.sock" --modem "$TOV_SIM_SOCKET" --repeat "$wwan")

say "== micro-benchmarks"
bench_ns() {
  "${on_client[@]}" "$build/bench/$1" "${bench_args[@]}" --benchmark_format=csv 2>/dev/null |
    awk -F, -v want="\"$2\"" -v med="\"$2_median\"" '$1 == want || $1 == med { print $4 }'
}
log_dropped=$(bench_ns log_bench BM_LogCall/Dropped)
log_passing=$(bench_ns log_bench BM_LogCall/PassingTagged)
timer_10=$(bench_ns timer_bench BM_TimerAddRemove/10)
timer_1000=$(bench_ns timer_bench BM_TimerAddRemove/1000)

# The report.
fmt() { awk -v x="$1" -v d="${2:-0}" 'BEGIN { if (x == "-" || x == "") print "-"; else printf "%.*f", d, x }'; }
thousands() {
  fmt "$1" | awk '{ s = $0; if (s !~ /^[0-9]+$/) { print s; next }
    o = ""; while (length(s) > 3) { o = "," substr(s, length(s) - 2) o; s = substr(s, 1, length(s) - 3) }
    print s o }'
}
met() { if awk "BEGIN { exit !($1) }"; then echo met; else echo "**not met**"; fi; }
rps64() { med "$1" 64 4; }
# The median over the runs of server $1's requests per second at depth 64 divided by
# server $2's in the same run: measured seconds apart, the two share most disturbances.
run_ratio() {
  awk -v a="$1" -v b="$2" '$2 == 64 && $1 == a { x[$3] = $4 } $2 == 64 && $1 == b { y[$3] = $4 }
    END { for (r in x) if (y[r] > 0) printf "%.4f\n", x[r] / y[r] }' "$dir/pipeline.txt" |
    sort -g | awk '{ v[NR] = $1 } END { if (NR) printf "%.2f", v[int((NR + 1) / 2)]; else print "-" }'
}
spread() {
  awk -v s="$1" '$1 == s && $2 == 64 { print $4 }' "$dir/pipeline.txt" | sort -g |
    awk -v w="$2" '{ v[NR] = $1 } END { print (w == "min" ? v[1] : v[NR]) }'
}

profile_table() {
  echo "| self | inclusive | function | code from |"
  echo "|---:|---:|---|---|"
  awk -F'\t' '{ f = $3; gsub(/\|/, "\\|", f); if (length(f) > 100) f = substr(f, 1, 97) "..."
    printf "| %s | %s | `%s` | %s |\n", $1, $2, f, $4 }' "$1"
}

cpu_model=$(lscpu | sed -n 's/^Model name: *//p' | sed -n 1p)
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt")
compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
compiler_version=$("$compiler" --version | sed -n 1p)
commit=$(git log -1 --format='%h %s' 2>/dev/null || echo unknown)
dirty=$(git status --porcelain -- common platform daemon 2>/dev/null | wc -l)
nox_mem_budget=1024
clients_budget=$((nox_mem_budget + 100 * record_buffer_kib))
apps_budget=$((nox_mem_budget + 101 * record_buffer_kib))

{
  echo "# Benchmarks: noxd beside reference servers"
  echo
  echo "Written by \`bench/run.sh\`; do not edit by hand."
  echo
  echo "- Command: \`$command_line\` (as root; \`make bench\` runs \`bench/run.sh\` on \`build/\`)"
  echo "- Date: $(date -u '+%Y-%m-%d %H:%M UTC'), $(($(date +%s) - started_at)) s; load average" \
    "$load_at_start at the start, $(cut -d' ' -f1-3 /proc/loadavg) at the end"
  echo "- Machine: $cpu_model, $(nproc) cores, $(free -g | awk '/^Mem:/ { print $2 }') GiB; kernel $(uname -r)"
  echo "- Build: \`$build\`, $build_type, $compiler_version"
  echo "- Source: $commit$([ "$dirty" -gt 0 ] && echo " with $dirty uncommitted change(s) in common/, platform/ or daemon/")"
  echo "- Method: server pinned to CPU 0, load client to CPU 1 polling for answers$([ ${#on_server[@]} -eq 0 ] && echo " (not pinned, not polling: one core)");" \
    "one framework client (\"init done\", then \"get feature status 2\" pipelined at depth 1, 8, 64:" \
    "records {1, token, 1, 2}, the id, a token, the count of values that follow and the feature;" \
    "answers {1, 2, 2, 3});" \
    "$runs interleaved run(s) of ${seconds} s after ${warmup} s of warm-up, medians shown. noxd runs" \
    "with persist.nox.feature=4 against the modem simulator, at log level 4 (\`noxd-l4\`) and 2" \
    "(\`noxd-l2\`, whose line per request goes to /dev/null)."
  echo "- Noise: wall-clock figures (req/s, latency, CPU) move with whatever else runs on this" \
    "small machine, e.g. a compiler on the other core; the callgrind instruction counts" \
    "(user space, all threads, the difference of a $cg_large- and a $cg_small-request run) are" \
    "the stable ones: compare those between builds."
  echo
  echo "## Request path"
  echo
  echo "| server | req/s d1 | req/s d8 | req/s d64 | d64 runs, lowest–highest | × records d64, same run | server CPU µs/req d64 | instructions/req d8 |"
  echo "|---|---:|---:|---:|---:|---:|---:|---:|"
  for s in "${servers[@]}"; do
    echo "| $s | $(thousands "$(med "$s" 1 4)") | $(thousands "$(med "$s" 8 4)") |" \
      "$(thousands "$(rps64 "$s")") | $(thousands "$(spread "$s" min)")–$(thousands "$(spread "$s" max)") |" \
      "$(run_ratio "$s" records) |" \
      "$(fmt "$(awk -v x="$(med "$s" 64 7)" 'BEGIN { print x / 1000 }')" 2) | $(thousands "${instr[$s]}") |"
  done
  echo
  echo "\"× records\" is the median over the runs of the ratio to the record-stream server in the" \
    "same run, which shares most of that run's disturbances; the targets below use it too." \
    "Depth 1 mostly measures how fast this virtual machine wakes a sleeping core, which" \
    "varies from run to run far more than the servers differ; depth 64 keeps the server busy."
  echo
  echo "Latency, p50 / p99 in µs:"
  echo
  echo "| server | d1 | d8 | d64 |"
  echo "|---|---:|---:|---:|"
  for s in "${servers[@]}"; do
    row="| $s |"
    for d in "${depths[@]}"; do row="$row $(fmt "$(med "$s" "$d" 5)" 1) / $(fmt "$(med "$s" "$d" 6)" 1) |"; done
    echo "$row"
  done
  echo
  echo "## Idle and memory"
  echo
  echo "After the workload above, no client connected. Wake-ups: context switches of all the" \
    "server's threads, in the first ${settle} s after the last client left and over the ${idle} s" \
    "after that. Private is resident anonymous memory (RssAnon), right after the workload and" \
    "after both windows; file-backed memory is mostly shared libraries (Debian's libutils and" \
    "its dependencies for noxd) and is reported, not judged."
  echo
  echo "| server | wake-ups, first ${settle} s | next ${idle} s | private KiB | idle | file-backed KiB | total RSS KiB |"
  echo "|---|---:|---:|---:|---:|---:|---:|"
  for s in "${servers[@]}"; do
    echo "| $s | ${wake_settle[$s]} | ${wake[$s]} | ${anon[$s]} | ${anon_idle[$s]} | ${file[$s]} | ${rss[$s]} |"
  done
  echo
  echo "noxd at level 4, its private memory as connections and applications are added:"
  echo
  echo "| state | private KiB | added KiB | budget KiB |"
  echo "|---|---:|---:|---:|"
  echo "| after the workload, idle | $mem_base | | $nox_mem_budget |"
  echo "| + 100 idle clients | $mem_clients | $((mem_clients - mem_base)) | $clients_budget (1 MiB + 100 record buffers of $record_buffer_kib KiB) |"
  echo "| + a framework client with 500 applications | $mem_apps | $((mem_apps - mem_clients)) | $apps_budget (1 MiB + 101 record buffers) |"
  echo
  echo "$(kv cycles "$storm_line") connect-and-close cycles against noxd (level 4) in" \
    "$(kv seconds "$storm_line") s, one client as fast as it goes:"
  echo
  echo "| private KiB before | at the end | idle again | descriptors before | peak | back to before after |"
  echo "|---:|---:|---:|---:|---:|---:|"
  echo "| $(kv anon_before_kb "$storm_line") | $(kv anon_end_kb "$storm_line") |" \
    "$(kv anon_idle_kb "$storm_line") | $(kv base_fds "$storm_line") | $(kv peak_fds "$storm_line") |" \
    "$(kv settle_ms "$storm_line") ms |"
  echo
  echo "\"Idle again\" is two seconds after noxd's descriptors are back to their number before the" \
    "storm; the peak is sampled from /proc/PID/fd every 0.1 ms or so."
  echo
  echo "## Other figures"
  echo
  echo "| what | value |"
  echo "|---|---:|"
  echo "| a log call below the threshold (dropped) | $(fmt "$log_dropped" 2) ns |"
  echo "| a log call that passes, tagged, printing nowhere | $(fmt "$log_passing" 1) ns |"
  echo "| timer add + remove, 10 pending | $(fmt "$timer_10" 0) ns |"
  echo "| timer add + remove, 1000 pending | $(fmt "$timer_1000" 0) ns |"
  echo "| WWAN connected to 4 modem clients in the simulator, median of $(kv runs "$wwan_line") (max) | $(fmt "$(awk -v x="$(kv created_us "$wwan_line")" 'BEGIN { print x / 1000 }')" 2) ms ($(fmt "$(awk -v x="$(kv max_us "$wwan_line")" 'BEGIN { print x / 1000 }')" 2) ms) |"
  echo
  echo "The WWAN figure runs noxd with features 1 and 2 (no plug-ins): the notification for a fresh" \
    "tun interface mdlnkN, with an IPv4 and an IPv6 address, until the simulator, polled over its" \
    "command socket every 50 µs, shows a WDS and a DFS client for each family."
  echo
  echo "## Targets"
  echo
  echo "| target | measured | |"
  echo "|---|---|---|"
  r=$(run_ratio noxd-l4 records)
  echo "| noxd ≥ 0.95 × the record-stream server at depth 64 | ${r} × | $(met "$r >= 0.95") |"
  for s in looper libevent sdevent; do
    r=$(run_ratio noxd-l4 "$s")
    echo "| noxd ahead of $s at depth 64 | ${r} × (medians $(thousands "$(rps64 noxd-l4)") and $(thousands "$(rps64 "$s")") req/s) |" \
      "$(met "$r > 1") |"
  done
  echo "| ≤ 800 user-space instructions per request (level 4, depth 8) | ${instr[noxd-l4]} | $(met "${instr[noxd-l4]} <= 800") |"
  echo "| zero idle wake-ups (over ${idle} s) | ${wake[noxd-l4]} (level 4), ${wake[noxd-l2]} (level 2) | $(met "${wake[noxd-l4]} == 0 && ${wake[noxd-l2]} == 0") |"
  echo "| private memory ≤ 1 MiB after the workload | ${anon[noxd-l4]} KiB, $mem_base KiB idle | $(met "${anon[noxd-l4]} <= $nox_mem_budget && $mem_base <= $nox_mem_budget") |"
  echo "| with 100 clients, ≤ 1 MiB + their record buffers | $mem_clients KiB | $(met "$mem_clients <= $clients_budget") |"
  echo "| and with 500 applications, ≤ 1 MiB + 101 record buffers | $mem_apps KiB | $(met "$mem_apps <= $apps_budget") |"
  echo
  echo "## Where noxd's instructions per request go"
  echo
  echo "callgrind, $build_type build, depth 8, level 4: user-space instructions per request by" \
    "function (self, and inclusive of its callees), the difference of the two runs divided by" \
    "their $((cg_large - cg_small)) requests; the largest $(wc -l <"$dir/profile-l4")."
  echo
  profile_table "$dir/profile-l4"
  echo
  echo "At level 2 (${instr[noxd-l2]} per request), the largest $(wc -l <"$dir/profile-l2"):"
  echo
  profile_table "$dir/profile-l2"
} >"$dir/report.md"

mkdir -p "$(dirname "$out")"
cp "$dir/report.md" "$out"
cat "$dir/report.md"
say "== written to $out"
