#!/usr/bin/env bash
# A plug-in built out of tree against the installed framework, as the README says: with
# CMake (find_package) and with pkg-config. The installed noxd loads the first and runs
# its stop hook when it stops.
set -euo pipefail
root=$1 build=$2
source "$root/scripts/lib.sh"
prefix=$dir/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
mkdir "$dir/src" "$dir/pc"
cat >"$dir/src/myplug.cpp" <<'EOF'
#include <NoxPlugin.h>

NOX_PLUGIN_DECLARE_INTERFACE_VERSION();

extern "C" void init_fd_mgr(Nox* nox) {
  NOX_PLUGIN_LOG(NOX_LOG_INFO, "MYPLUG", "loaded, screen %s",
                 nox->dsm.getScreenState() == NOX_SCREEN_ON ? "on" : "off");
}

extern "C" void nox_plugin_stop(Nox*) { NOX_PLUGIN_LOG(NOX_LOG_INFO, "MYPLUG", "stopped"); }
EOF
cat >"$dir/src/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.18)
project(myplug CXX)
find_package(noxframework REQUIRED)
add_library(noxfdmgr SHARED myplug.cpp)
target_link_libraries(noxfdmgr PRIVATE noxframework::noxframework)
EOF
cmake -S "$dir/src" -B "$dir/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$dir/cmake" >/dev/null
export PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name noxframework.pc)")
c++ -shared -fPIC -o "$dir/pc/libnoxfdmgr.so" "$dir/src/myplug.cpp" $(pkg-config --cflags --libs noxframework)

start_modemsim "$prefix/bin/modemsim"
start_noxd "$prefix/bin/noxd" 1 "$dir/noxd.log" --plugin-dir "$dir/cmake" --log-level 2
kill_noxd() { kill "$noxd_pid" && wait "$noxd_pid"; }
wait_until grep -qF "|MYPLUG| loaded, screen on" "$dir/noxd.log" && kill_noxd &&
  grep -qF "|MYPLUG| stopped" "$dir/noxd.log" || { tail -5 "$dir/noxd.log" >&2; exit 1; }
echo "1 passed, 0 failed"
