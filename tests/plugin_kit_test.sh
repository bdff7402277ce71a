#!/usr/bin/env bash
# A plug-in built out of tree against the installed framework with the README's own
# code and commands: with CMake (find_package) and with pkg-config.
set -euo pipefail
root=$1 build=$2
source "$root/scripts/lib.sh"
prefix=$dir/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
mkdir "$dir/src" && cd "$dir/src"
# The README's indented block after its line that holds $1, unindented.
readme_block() {
  awk -v m="$1" 'index($0, m) { on = 1; next } on && /^    / { sub(/^    /, ""); print; seen = 1; next }
                 on && seen && /^[^ ]/ { exit } on && seen { print }' "$root/README.md"
}
readme_block "A minimal plug-in:" >myplug.cpp
{ printf 'cmake_minimum_required(VERSION 3.18)\nproject(myplug CXX)\n'; readme_block "Then with CMake"; } >CMakeLists.txt
for step in "built with:" "or with the compiler alone:"; do
  eval "$(readme_block "$step" | sed "s|\$HOME/noxd|$prefix|g")" >/dev/null
done
[ -f libnoxfdmgr.so ] && [ -f build/libnoxfdmgr.so ]

# The installed noxd loads it and stops normally on SIGTERM, while it serves and during
# the modem start-up retries: at once, status 0, the stop hook before the modem's
# release, no fatal line and no socket file left.
start_modemsim "$prefix/bin/modemsim"
run() {  # $1 the modem's socket, $2 the line to stop at
  TOV_SIM_SOCKET=$1 start_noxd "$prefix/bin/noxd" 1 "$dir/noxd.log" --plugin-dir "$dir/src/build"
  wait_until grep -qF "$2" "$dir/noxd.log" && kill "$noxd_pid" && wait_until sh -c "! kill -0 $noxd_pid" && wait "$noxd_pid" &&
    [ ! -e "$dir/noxd.sock" ] && ! grep -q FATAL "$dir/noxd.log" &&
    awk '/MYPLUG\| stopped/ { s = 1 } /TOV service release/ && !s { exit 1 } END { exit !s }' "$dir/noxd.log" ||
    { tail -5 "$dir/noxd.log" >&2; exit 1; }
}
run "$TOV_SIM_SOCKET" "|MYPLUG| loaded, screen on"
run "$dir/nothing" "no modem at $dir/nothing"
echo "1 passed, 0 failed"
