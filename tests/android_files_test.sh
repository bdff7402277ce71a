#!/usr/bin/env bash
# The device files cannot drift from the host build and the sources: Android.bp lists
# exactly the sources CMake builds for each target, noxd.rc's socket is the one the
# daemon takes, the plug-ins and their settings are installed where they are read, and
# the sample SELinux policy declares what it uses, labels only installed paths and gives
# every property the daemon touches a context.
set -euo pipefail
top=$1 sources=$2 bp=$1/Android.bp se=$1/android/sepolicy
status=0
fail() { echo "FAIL: $*" >&2; status=1; }
# Module type, name and the quoted entries of its list $1 (srcs, required), one a line.
bp_lists() {
  awk -v list="$1" '
    /^[a-z_]+ *\{/ { type = $1; module = ""; in_list = 0 }
    $1 == "name:" { module = $2; gsub(/[",]/, "", module) }
    $0 ~ "^ *" list ": *\\[" { in_list = 1 }
    in_list { while (match($0, /"[^"]*"/)) { print type, module, substr($0, RSTART + 1, RLENGTH - 2)
                                             $0 = substr($0, RSTART + RLENGTH) } }
    in_list && /\]/ { in_list = 0 }' "$bp"
}
while read -r module files; do
  want=$(tr ';' '\n' <<<"$files" | sed "s|^$top/||" | sort)
  have=$(bp_lists srcs | awk -v m="$module" '$2 == m { print $3 }' | sort)
  [ "$want" = "$have" ] || fail "$module: Android.bp and CMake differ: $(diff <(echo "$have") <(echo "$want") | tr '\n' ' ')"
done <"$sources"
daemon=$(sed -n 's/.*SOCKET_NAME_NOX = "\([^"]*\)".*/\1/p' "$top/common/framework/src/Nox.cpp")
rc=$(awk '$1 == "socket" { print $2 }' "$top/android/noxd.rc")
[ -n "$daemon" ] && [ "$daemon" = "$rc" ] || fail "noxd.rc's socket '$rc' is not the daemon's '$daemon'"

# What the device build installs (every module is a vendor one) and init creates.
installed=$(awk '/^[a-z_]+ *\{/ { type = $1 } $1 == "name:" { n = $2; gsub(/[",]/, "", n)
  if (type == "cc_binary") print "/vendor/bin/" n; if (type == "cc_library_shared") print "/vendor/lib/" n ".so"
  if (type == "prebuilt_etc") print "/vendor/etc/" n }' "$bp"; echo "/dev/socket/$rc")
required=$(bp_lists required | awk '$2 == "noxd" { print $3 }')
# The plug-ins where the daemon loads them, their settings where they read them.
dir=$(sed -n 's/.*NOX_PLUGIN_DIR "\(.*\)"/\1/p' "$top/common/framework/src/Nox.cpp")
for plugin in fdmgr ctmgr; do
  src=$(ls "$top"/plugins/$plugin/*.cpp)
  conf=$(sed -n 's/.*kDefaultConfig\[\] = "\(.*\)";/\1/p' "$src")
  for path in "$dir/libnox$plugin.so" "$conf"; do
    module=$(basename "$path" .so)
    grep -qx "${path#/system}" <<<"$installed" || fail "$path: no module installs it"
    grep -qx "$module" <<<"$required" || fail "$module: not in noxd's required"
  done
  for tag in $(sed -n 's/^\([a-z0-9_]*\):.*/\1/p' "$top/android/etc/$(basename "$conf")"); do
    grep -qF "\"$tag\"" "$src" || fail "$(basename "$conf"): libnox$plugin does not read '$tag'"
  done
done

# SELinux: types declared here or by the platform, labelled paths installed, and a
# context for every property the daemon and the plug-ins read or write.
platform="self ctl_stop_prop vendor_file vendor_configs_file"
declared=$(cat "$se"/*.te | sed 's/#.*//' | sed -n 's/^type \([a-z0-9_]*\),.*/\1/p; s/^vendor_[a-z]*_prop(\([a-z0-9_]*\))/\1/p')
used=$( (sed 's/#.*//' "$se"/*_contexts | grep -o 'u:object_r:[a-z0-9_]*' | cut -d: -f3
         sed 's/#.*//' "$se"/*.te | awk '$1 == "allow" { print $2; sub(/:.*/, "", $3); print $3 }'
         sed 's/#.*//' "$se"/*.te | grep -v '^vendor_[a-z]*_prop(' | grep -o '^[a-z_]*([^)]*)' |
           sed 's/^[a-z_]*(//; s/)$//' | tr ',' '\n' | tr -d ' ') | sort -u)
for type in $used; do
  grep -qx "$type" <<<"$declared"$'\n'"${platform// /$'\n'}" || fail "sepolicy: type $type is not declared"
done
while read -r regex _; do
  case $regex in ''|'#'*) continue ;; esac
  grep -qEx "$regex" <<<"$installed" || fail "file_contexts: $regex labels nothing the build installs"
done <"$se/file_contexts"
for prop in $(grep -rhoE '"(persist|ro|sys|vendor|ctl)\.[A-Za-z0-9_.]+"' "$top/common" "$top/daemon" \
              "$top/plugins" | tr -d '"' | sort -u); do
  case $prop in ctl.*) continue ;; esac  # init's control properties: the platform labels them
  awk -v p="$prop" '$1 == p' "$se/property_contexts" | grep -q . || fail "property $prop has no context"
done
[ "$status" -eq 0 ] && echo "1 passed, 0 failed"
exit "$status"
