#!/usr/bin/env bash
# The device build files cannot drift from the host build: android/Android.bp lists
# exactly the sources CMake builds for each target, and noxd.rc's socket is the one the
# daemon takes.
set -euo pipefail
top=$1 sources=$2
status=0
# The quoted entries of the srcs list of module $1.
bp_srcs() {
  awk -v name="\"$1\"" '
    /^[a-z_]+ *\{/ { module = ""; in_srcs = 0 }
    $1 == "name:" { module = $2; sub(/,$/, "", module) }
    module == name && /srcs: *\[/ { in_srcs = 1 }
    in_srcs { while (match($0, /"[^"]*"/)) { print substr($0, RSTART + 1, RLENGTH - 2);
                                              $0 = substr($0, RSTART + RLENGTH) } }
    in_srcs && /\]/ { in_srcs = 0 }' "$top/android/Android.bp" | sort
}
while read -r module files; do
  want=$(tr ';' '\n' <<<"$files" | sed "s|^$top/||" | sort)
  have=$(bp_srcs "$module")
  if [ "$want" != "$have" ]; then
    echo "FAIL: $module: Android.bp and CMake differ:" >&2
    diff <(echo "$have") <(echo "$want") | sed 's/^/  /' >&2 || true
    status=1
  fi
done <"$sources"
daemon=$(sed -n 's/.*SOCKET_NAME_NOX = "\([^"]*\)".*/\1/p' "$top/common/framework/src/Nox.cpp")
rc=$(awk '$1 == "socket" { print $2 }' "$top/android/noxd.rc")
if [ -z "$daemon" ] || [ "$daemon" != "$rc" ]; then
  echo "FAIL: noxd.rc's socket '$rc' is not the daemon's '$daemon'" >&2
  status=1
fi
[ "$status" -eq 0 ] && echo "1 passed, 0 failed"
exit "$status"
