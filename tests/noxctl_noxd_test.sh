#!/usr/bin/env bash
# noxd's start-up refusals in one table, then noxctl against a running noxd: what it
# sends is dispatched, and `listen` receives what noxd sends to the framework client.
set -euo pipefail
noxd=$1
noxctl=$2
modemsim=$3
source "$(dirname "$0")/../scripts/lib.sh"
fail() {
  echo "FAIL: $*" >&2
  echo "--- daemon log" >&2
  cat "$dir/log" >&2
  exit 1
}
# Waits (up to 10 s) until the log holds the fixed text $1.
wait_log() { wait_until grep -qF -- "$1" "$dir/log" || fail "no '$1' in the log"; }
ctl() { "$noxctl" --socket "$dir/sock" "$@"; }

# The daemon starts the modem library first: give it a modem.
start_modemsim "$modemsim"

# Start-up: every misuse is refused before anything is built, and a daemon with no
# feature on stops as init would; each says so in one line on standard error.
# Case: exit status | text of the line | environment changes | arguments.
mkfifo "$dir/fifo"
mkdir "$dir/props.d"
head -c 1048577 /dev/zero >"$dir/big.prop"
echo "persist.nox.feature=abc" >"$dir/abc.prop"
head -c 4096 /dev/urandom | tr '=\n' 'xy' >"$dir/garbage.prop"
s="--socket $dir/s"
cases=(
  "2|invalid log level '5' (0 to 4)||--log-level 5"
  "2|unknown or incomplete option '--socket' (see --help)||--socket"
  "2|cannot create socket $dir/missing/sock: No such file or directory||--socket $dir/missing/sock"
  "2|ANDROID_SOCKET_noxd is unset: start noxd from init, or give --socket PATH|-u ANDROID_SOCKET_noxd|"
  "2|ANDROID_SOCKET_noxd 'abc' is not a descriptor number|ANDROID_SOCKET_noxd=abc|"
  "2|ANDROID_SOCKET_noxd '-1' is not a descriptor number|ANDROID_SOCKET_noxd=-1|"
  "2|ANDROID_SOCKET_noxd 0 is not an open socket|ANDROID_SOCKET_noxd=0|"
  "2|cannot use property file $dir/fifo: Invalid argument||$s --props $dir/fifo"
  "2|cannot use property file $dir/props.d: Is a directory|NOX_PROPERTY_FILE=$dir/props.d|$s"
  "2|cannot use property file $dir/big.prop: File too large||$s --props $dir/big.prop"
  "2|cannot use property file $dir/gone/p: No such file or directory||$s --props $dir/gone/p"
  "0|no feature is on (persist.nox.feature is \"abc\" in $dir/abc.prop)||$s --props $dir/abc.prop"
  "0|(persist.nox.feature is unset in $dir/new.prop, which did not exist)||$s --props $dir/new.prop"
  "0|no feature is on (persist.nox.feature is unset in $dir/garbage.prop)||$s --props $dir/garbage.prop"
)
for c in "${cases[@]}"; do
  IFS='|' read -r want text envs args <<<"$c"
  status=0
  # Bounded: a refusal that regressed into a serving daemon fails here (status 124).
  # shellcheck disable=SC2086
  env $envs timeout 10 "$noxd" --log-level 4 $args </dev/null 2>"$dir/err" || status=$?
  [ "$status" = "$want" ] && [ "$(wc -l <"$dir/err")" -eq 1 ] && grep -qF -- "$text" "$dir/err" ||
    fail "noxd $envs $args: exit $status, said: $(cat "$dir/err")"
done
grep -qx "ctl.stop=noxd" "$dir/new.prop" || fail "ctl.stop not recorded: $(cat "$dir/new.prop")"

# The socket file left behind is replaced.
# The threshold from its property: the lines waited for below are verbose.
printf 'persist.nox.feature=4\npersist.nox.loglevel=0\n' >"$dir/prop"
"$noxd" --socket "$dir/sock" --props "$dir/prop" 2>"$dir/log" &
pids+=($!)
wait_log "Control socket is ready"
# A second daemon on the same path leaves the live one alone.
timeout 10 "$noxd" --socket "$dir/sock" --log-level 4 2>"$dir/err" && fail "a second noxd started"
grep -qxF "noxd: another daemon serves $dir/sock" "$dir/err" || fail "second noxd said: $(cat "$dir/err")"

# Each command as the daemon decodes it: its bytes are right when the values come out.
# Case: command | a line of the daemon's log it leads to (the last one it writes).
commands=(
  "screen 1|handleScreenEvent: Screen State Event, newstate:0 oldstate:0"
  "tethering 0|handleTetheringEvent: Tetheirng State Event, newstate:1 oldstate:1"
  "wlan 1 2 0|handleWlanEvent: WlanInfo, type=1, state=2, softApState=0,"
  "wlan --softap=1 --type 3|handleWlanEvent: WlanInfo, type=3, state=0, softApState=1,"
  "wwan --type 0 --status 4 --nw-type 13 --roaming 1 --apn 3 --ipv4 10.0.0.2 --iface mdlnk0 --ipv6 fe80::1 --iface-v6 mdlnk1 --mccmnc 310260|WWAN: type=0, state=4, nwType=13 roaming=1, apn= 3, ipAddr=10.0.0.2, iface=mdlnk0, ipAddrV6=fe80::1, ifaceV6=mdlnk1, mccMnc=310260"
  "apps add 10050:com.a:1f:2a 4294967295:org.b|Inserting App: Name org.b , uid -1 into map."
  "apps remove 10050:com.a|Removing App com.a from map"
  "nsrm-bkg 0xffffffff -2 3|data: 3 ints"
  "raw 2 9|Nox does not recognize event '2'"
  "raw 42 -1 7|Nox does not recognize event '42'"
)
for c in "${commands[@]}"; do
  IFS='|' read -r args line <<<"$c"
  # shellcheck disable=SC2086
  ctl $args || fail "noxctl $args: exit $?"
  wait_log "$line"
done
# Feature requests announce themselves and print the answer; a refusal is status 3.
[ "$(ctl feature get 2)" = "feature 2 status 3" ] || fail "feature get"
status=0
out=$(ctl feature set 5 1) || status=$?
[ "$out" = "feature 5 status 1 result -2" ] && [ "$status" = 3 ] || fail "feature set 5 1: $out, exit $status"
# Misuse is one line and the hint; nobody listening is one line too.
for args in "bogus" "screen" "tethering 2147483648" "wwan --iface 0123456789abcdef" "apps add 1:com.a:zz"; do
  # shellcheck disable=SC2086
  if ctl $args 2>"$dir/err"; then fail "noxctl $args succeeded"; fi
  [ "$(sed -n 2p "$dir/err")" = "Try 'noxctl --help' for more information." ] || fail "noxctl $args: $(cat "$dir/err")"
done
if "$noxctl" --socket "$dir/nobody.sock" screen 1 2>"$dir/err"; then fail "noxctl reached nobody"; fi
grep -qx "noxctl: cannot connect to $dir/nobody.sock: No such file or directory" "$dir/err" ||
  fail "nobody listening: $(cat "$dir/err")"

# The framework client hears what others' requests make noxd send it. It starts last:
# the feature requests above announced themselves, and each was the client until it left.
announced=$(grep -c "NOXJ client is on descriptor" "$dir/log")
ctl listen >"$dir/listen" 2>"$dir/listen.err" &
pids+=($!)
more_announced() { [ "$(grep -c "NOXJ client is on descriptor" "$dir/log")" -gt "$announced" ]; }
wait_until more_announced ||
  fail "listen did not announce itself"
ctl raw 3 2 2 2 # sets the NSRM preference without announcing: the reply goes to `listen`
wait_until grep -qx "feature 2 status 2 result 0" "$dir/listen" ||
  fail "listen got: $(cat "$dir/listen" "$dir/listen.err")"
grep -qx "persist.sys.noxd.nsrm=2" "$dir/prop" || fail "property file: $(cat "$dir/prop")"
echo "1 passed, 0 failed"
