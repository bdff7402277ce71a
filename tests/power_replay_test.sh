#!/usr/bin/env bash
# The energy report end to end (scripts/power.sh, root only): a short trace replayed
# through noxd and the modem simulator without and with the sample plug-ins. The policy
# must cost less energy, drop exactly the unasked downlink that comes while the screen
# is off and the link dormant, and deliver everything else; the oracles must come out
# below it, the bound one within no policy's promotions.
set -euo pipefail
source=$1 build=$2
if ! { [ "$(id -u)" -eq 0 ] && unshare --net true 2>/dev/null; }; then
  [ "${NOX_REQUIRE_NETNS:-}" = 1 ] && { echo "FAIL: NOX_REQUIRE_NETNS=1 but no private network namespace (needs root)" >&2; exit 1; }
  echo "SKIP: no private network namespace (needs root)"
  exit 77
fi
dir=$(mktemp -d /tmp/noxpower.XXXXXX)
trap 'rm -rf "$dir"' EXIT
fail() { echo "FAIL: $*" >&2; cat "$dir/report.md" >&2; exit 1; }

# Twenty seconds of trace apart at least, a second of wall clock at speed 20: noxd has
# long done what the previous event asked, also under the sanitizers.
cat >"$dir/short.trace" <<'TRACE'
# Four minutes, the screen off for most of them.
0:00 data connect mdlnk0 10.20.30.40 2001:db8::40
0:00 traffic mdlnk0 up --proto udp --dst-port 53
0:00.05 traffic mdlnk0 down --proto udp --src-port 53
0:05 screen off
0:30 traffic mdlnk0 down --src-port 443 --count 2
1:00 traffic mdlnk0 down --src-port 5228
1:00.2 traffic mdlnk0 up --dst-port 5228
1:40 traffic mdlnk0 up --dst-port 443 --count 3
1:40.3 traffic mdlnk0 down --src-port 443 --count 10
2:30 traffic mdlnk0 down --family v6 --proto udp --src-port 443
3:00 screen on
3:20 traffic mdlnk0 down --src-port 443
4:00 end
TRACE
NOX_BUILD_DIR=$build "$source/scripts/power.sh" --speed 20 --out "$dir/report.md" "$dir/short.trace" \
  >/dev/null || fail "power.sh ended with status $?"
# Energy, delivered and dropped of each run.
without=$(grep -F "| without a policy" "$dir/report.md" | awk -F'|' '{ print $5, $6, $7 }')
with=$(grep -F "| with the sample plug-ins" "$dir/report.md" | awk -F'|' '{ print $5, $6, $7 }')
read -r energy0 _ delivered0 dropped0 _ <<<"$without"
read -r energy1 _ delivered1 dropped1 _ <<<"$with"
[ "$delivered0 $dropped0" = "21 0" ] || fail "without a policy: delivered $delivered0, dropped $dropped0; expected 21, 0"
[ "$delivered1 $dropped1" = "18 3" ] || fail "with the policy: delivered $delivered1, dropped $dropped1; expected 18, 3"
grep -qF "Dropped with the policy: v4 tcp/443 2, v6 udp/443 1." "$dir/report.md" || fail "other packets dropped"
grep -qF "With the screen on: nothing dropped." "$dir/report.md" || fail "packets dropped with the screen on"
# About 0.47 with the short graces after screen off and after traffic; 0.67 without the latter.
awk -v a="$energy1" -v b="$energy0" 'BEGIN { exit !(a < 0.6 * b) }' ||
  fail "the policy's $energy1 J is not below 60 % of $energy0 J"
# The oracle within no policy's promotions spends no more than the policy, and the
# unlimited one no more than that.
bound=$(grep -F "| oracle (signalling-bound)" "$dir/report.md" | awk -F'|' '{ print $4, $5 }')
free=$(grep -F "| oracle (unlimited)" "$dir/report.md" | awk -F'|' '{ print $5 }')
read -r promotions2 energy2 _ <<<"$bound"
promotions0=$(grep -F "| without a policy" "$dir/report.md" | awk -F'|' '{ print $4 + 0 }')
awk -v u="${free% J*}" -v o="$energy2" -v p="$energy1" -v n="$promotions2" -v n0="$promotions0" \
  'BEGIN { exit !(u <= o && o <= p && n <= n0) }' ||
  fail "oracles: $energy2 J in $promotions2 promotions (no policy $promotions0), unlimited $free"
# The best fixed timer keeps to the same promotions, and no schedule beats the oracle.
timer=$(sed -n 's/^A timer that sees every packet.*, \([0-9.]*\) % of the signalling-bound oracle.s, \([0-9]*\) promotions\.$/\1 \2/p' \
  "$dir/report.md")
read -r share promotions3 <<<"$timer"
awk -v s="$share" -v n="$promotions3" -v n0="$promotions0" 'BEGIN { exit !(s != "" && s <= 100 && n <= n0) }' ||
  fail "the best timer: '$timer' (share of the oracle's saving, promotions; no policy $promotions0)"
echo "energy $energy1 J with the policy, $energy0 J without, $energy2 J for the oracle"
echo "1 passed, 0 failed"
