#!/usr/bin/env bash
# noxctl against a running noxd: every message noxctl sends is dispatched with its
# name, id and running count, and `listen` receives what noxd sends to the
# framework client.
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
echo "persist.nox.loglevel=4" >"$dir/unset.prop"
head -c 4096 /dev/urandom | tr '=\n' 'xy' >"$dir/garbage.prop"
s="--socket $dir/s"
cases=(
  "2|unknown or incomplete option '--bogus'||--bogus"
  "2|invalid log level '5' (0 to 4)||--log-level 5"
  "2|unknown or incomplete option '--socket' (see --help)||--socket"
  "2|cannot create socket $dir/missing/sock: No such file or directory||--socket $dir/missing/sock"
  "2|ANDROID_SOCKET_noxd is unset: start noxd from init, or give --socket PATH|-u ANDROID_SOCKET_noxd|"
  "2|ANDROID_SOCKET_noxd is unset|ANDROID_SOCKET_noxd=|"
  "2|ANDROID_SOCKET_noxd 'abc' is not a descriptor number|ANDROID_SOCKET_noxd=abc|"
  "2|ANDROID_SOCKET_noxd '-1' is not a descriptor number|ANDROID_SOCKET_noxd=-1|"
  "2|ANDROID_SOCKET_noxd 0 is not an open socket|ANDROID_SOCKET_noxd=0|"
  "2|cannot use property file $dir/fifo: Invalid argument||$s --props $dir/fifo"
  "2|cannot use property file $dir/props.d: Is a directory|NOX_PROPERTY_FILE=$dir/props.d|$s"
  "2|cannot use property file $dir/big.prop: File too large||$s --props $dir/big.prop"
  "2|cannot use property file $dir/gone/p: No such file or directory||$s --props $dir/gone/p"
  "0|no feature is on (persist.nox.feature is \"abc\" in $dir/abc.prop)||$s --props $dir/abc.prop"
  "0|no feature is on (persist.nox.feature is unset in $dir/unset.prop)||$s --props $dir/unset.prop"
  "0|(persist.nox.feature is unset in $dir/new.prop, which did not exist)||$s --props $dir/new.prop"
  "0|no feature is on (persist.nox.feature is unset in $dir/garbage.prop)||$s --props $dir/garbage.prop"
)
for c in "${cases[@]}"; do
  IFS='|' read -r want text envs args <<<"$c"
  status=0
  # shellcheck disable=SC2086
  env $envs "$noxd" --log-level 4 $args </dev/null 2>"$dir/err" || status=$?
  [ "$status" = "$want" ] && [ "$(wc -l <"$dir/err")" -eq 1 ] && grep -qF -- "$text" "$dir/err" ||
    fail "noxd $envs $args: exit $status, said: $(cat "$dir/err")"
done
grep -qx "ctl.stop=noxd" "$dir/new.prop" || fail "ctl.stop not recorded: $(cat "$dir/new.prop")"

# The socket file left behind is replaced.
echo "persist.nox.feature=4" >"$dir/prop"
"$noxd" --socket "$dir/sock" --props "$dir/prop" --log-level 0 2>"$dir/log" &
pids+=($!)
wait_log "Control socket is ready"
# A second daemon on the same path leaves the live one alone.
"$noxd" --socket "$dir/sock" --log-level 4 2>"$dir/err" && fail "a second noxd started"
grep -qxF "noxd: another daemon serves $dir/sock" "$dir/err" || fail "second noxd said: $(cat "$dir/err")"

ctl listen >"$dir/listen" 2>"$dir/listen.err" &
pids+=($!)
wait_log "NOXJ client is on descriptor"

ctl screen 0
ctl tethering 1
ctl wlan 1 1 0
ctl wwan --type 0 --status 4 --iface mdlnk9 --mccmnc 310260
ctl nsrm-bkg 1 2 3
ctl nsrm-config 5
ctl apps add 10050:com.a:1f:2a 10051:com.b
ctl raw 2 7
ctl raw 3 2 2 2 # sets the NSRM preference without announcing: the reply goes to `listen`

expected=(
  "'NOX_S_NOTIFY_INIT_DONE' (8) [token 1, count 0]"
  "'NOX_S_NOTIFY_SCREEN_STATE_CHG' (13) [token 1, count 1]"
  "'NOX_S_NOTIFY_TETHERING_STATE_CHG' (14) [token 1, count 2]"
  "'NOX_S_NOTIFY_WLAN_STATE_CHG' (9) [token 1, count 3]"
  "'NOX_S_NOTIFY_WWAN_STATE_CHG' (10) [token 1, count 4]"
  "'NOX_S_NOTIFY_NSRM_BKG_EVT_STATE_CHG' (11) [token 1, count 5]"
  "'NOX_S_RSP_REFRESH_NSRM_CONFIG' (6) [token 1, count 6]"
  "'NOX_S_NOTIFY_APP_INFO_LIST_CHG' (12) [token 1, count 7]"
  "'NOX_S_RSP_GET_FEATURE_STATUS' (2) [token 1, count 8]"
  "'NOX_S_REQ_SET_FEATURE_PREF' (3) [token 1, count 9]"
)
for e in "${expected[@]}"; do wait_log "processing NOX event $e"; done
wait_log "Nox does not recognize event '2'"

wait_until grep -qx "feature 2 status 2 result 0" "$dir/listen"
grep -qx "feature 2 status 2 result 0" "$dir/listen" || fail "listen got: $(cat "$dir/listen")"
grep -qx "persist.sys.noxd.nsrm=2" "$dir/prop" || fail "property file: $(cat "$dir/prop")"
echo "1 passed, 0 failed"
