#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer. "smoke" runs each briefly;
# "run TARGET [libFuzzer args...]" runs one for as long as you like.
set -euo pipefail
cd "$(dirname "$0")/.."
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DNOX_FUZZ=ON -DNOX_BUILD_TESTS=OFF \
  -DNOX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build-fuzz -j"${JOBS:-2}" >/dev/null
mode=${1:-smoke}
case "$mode" in
  smoke)
    for t in build-fuzz/fuzz/*_fuzz; do
      [ -x "$t" ] || continue
      echo "== $(basename "$t")"
      "$t" -runs=20000 -max_len=4096 2>&1 | tail -n 1
    done
    ;;
  run)
    shift
    target=$1
    shift
    exec "build-fuzz/fuzz/$target" "$@"
    ;;
  *)
    echo "usage: $0 [smoke | run TARGET [args...]]" >&2
    exit 2
    ;;
esac
