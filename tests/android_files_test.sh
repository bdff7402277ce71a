#!/usr/bin/env bash
# The device files against the host build and the sources: Android.bp's source lists,
# noxd.rc's socket, installed plug-ins and settings, and the SELinux policy.
set -euo pipefail
top=$1 sources=$2 bp=$1/Android.bp se=$1/android/sepolicy
status=0
fail() { echo "FAIL: $*" >&2; status=1; }
# "module entry" for each quoted entry of the lists named $1 (srcs, required).
bp_list() {
  awk -v list="$1" '$1 == "name:" { m = $2; gsub(/[",]/, "", m) } $0 ~ "^ *" list ": *\\[" { on = 1 }
    on { while (match($0, /"[^"]*"/)) { print m, substr($0, RSTART + 1, RLENGTH - 2)
                                        $0 = substr($0, RSTART + RLENGTH) } }
    on && /\]/ { on = 0 }' "$bp"
}
while read -r module files; do
  want=$(tr ';' '\n' <<<"$files" | sed "s|^$top/||" | sort)
  have=$(bp_list srcs | awk -v m="$module" '$1 == m { print $2 }' | sort)
  [ "$want" = "$have" ] || fail "$module: Android.bp and CMake differ: $(diff <(echo "$have") <(echo "$want") | tr '\n' ' ')"
done <"$sources"
daemon=$(sed -n 's/.*SOCKET_NAME_NOX = "\([^"]*\)".*/\1/p' "$top/common/framework/src/Nox.cpp")
rc=$(awk '$1 == "socket" { print $2 }' "$top/android/noxd.rc")
[ -n "$daemon" ] && [ "$daemon" = "$rc" ] || fail "noxd.rc's socket '$rc' is not the daemon's '$daemon'"

# Plug-ins and settings installed (vendor modules only) where they are read, required.
installed=$(awk '/^[a-z_]+ *\{/ { t = $1 } $1 == "name:" { n = $2; gsub(/[",]/, "", n)
  print (t == "cc_binary" ? "/vendor/bin/" n : t == "prebuilt_etc" ? "/vendor/etc/" n : "/vendor/lib/" n ".so") }' "$bp"
  echo "/dev/socket/$rc")
required=$(bp_list required | awk '$1 == "noxd" { print $2 }')
dir=$(sed -n 's/.*NOX_PLUGIN_DIR "\(.*\)"/\1/p' "$top/common/framework/src/Nox.cpp")
for src in $(grep -l "kDefaultConfig\[\]" "$top"/plugins/*/*.cpp); do
  plugin=$(basename "$(dirname "$src")")
  conf=$(sed -n 's/.*kDefaultConfig\[\] = "\(.*\)";/\1/p' "$src")
  for path in "$dir/libnox$plugin.so" "$conf"; do
    grep -qx "${path#/system}" <<<"$installed" || fail "$path: no module installs it"
    grep -qx "$(basename "$path" .so)" <<<"$required" || fail "$path: not in noxd's required"
  done
  for tag in $(sed -n 's/^\([a-z0-9_]*\):.*/\1/p' "$top/android/etc/$(basename "$conf")"); do
    grep -qF "\"$tag\"" "$src" || fail "$(basename "$conf"): libnox$plugin does not read '$tag'"
  done
done

# SELinux: types declared (here or the platform's), labelled paths installed, a context
# for each property the sources name (init's ctl.* are the platform's).
te=$(sed 's/#.*//' "$se"/*.te)
declared=$(sed -n 's/^type \([a-z0-9_]*\),.*/\1/p; s/^vendor_[a-z]*_prop(\([a-z0-9_]*\))/\1/p' <<<"$te"
           printf '%s\n' self ctl_stop_prop vendor_file vendor_configs_file)
for type in $( (sed 's/#.*//' "$se"/*_contexts | grep -o 'u:object_r:[a-z0-9_]*' | cut -d: -f3
                awk '$1 == "allow" { print $2; sub(/:.*/, "", $3); print $3 }' <<<"$te"
                grep -v '^vendor_[a-z]*_prop(' <<<"$te" | grep -o '^[a-z_]*([^)]*)' | sed 's/^.*(//; s/)//' |
                  tr ', ' '\n\n') | sort -u); do
  grep -qx "$type" <<<"$declared" || fail "sepolicy: type $type is not declared"
done
while read -r regex _; do
  [[ -z $regex || $regex == '#'* ]] || grep -qEx "$regex" <<<"$installed" ||
    fail "file_contexts: $regex labels nothing the build installs"
done <"$se/file_contexts"
for prop in $(grep -rhoE '"(persist|ro|sys|vendor)\.[A-Za-z0-9_.]+"' "$top/common" "$top/daemon" "$top/plugins" |
              tr -d '"' | sort -u); do
  awk -v p="$prop" '$1 == p { found = 1 } END { exit !found }' "$se/property_contexts" ||
    fail "property $prop has no context"
done
[ "$status" -eq 0 ] && echo "1 passed, 0 failed"
exit "$status"
