#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer, then:
#   smoke            each target over its seed corpus and a few thousand more inputs (make test)
#   all [SECONDS]    each target for SECONDS (default 300), one after the other (make fuzz)
#   run TARGET [libFuzzer args...]   one target for as long as you like
# New inputs go to build-fuzz/corpus/TARGET; the seeds in fuzz/corpus are only read.
set -euo pipefail
cd "$(dirname "$0")/.."
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DNOX_FUZZ=ON -DNOX_BUILD_TESTS=OFF \
  -DNOX_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build-fuzz -j"${JOBS:-2}" >/dev/null

# Runs target $1 with libFuzzer arguments $2...; prints how many inputs it ran and, if it
# failed, what the sanitizer or libFuzzer said and where the input was written (the whole
# output is in build-fuzz/TARGET.log).
fuzz() {
  local target=$1 name status=0
  shift
  name=$(basename "$target")
  mkdir -p "build-fuzz/corpus/$name"
  echo "== $name"
  "$target" -max_len=8192 "$@" "build-fuzz/corpus/$name" "fuzz/corpus/$name" \
    >"build-fuzz/$name.log" 2>&1 || status=$?
  grep -E '^Done [0-9]+ runs|ERROR|SUMMARY|Test unit written' "build-fuzz/$name.log" || true
  [ "$status" -eq 0 ] || echo "$name failed with status $status: build-fuzz/$name.log"
  return "$status"
}

# The targets that have a source (a build directory may hold one whose source is gone).
targets=()
for src in fuzz/*_fuzz.cpp; do targets+=("build-fuzz/fuzz/$(basename "$src" .cpp)"); done
mode=${1:-smoke}
case "$mode" in
  smoke)
    for t in "${targets[@]}"; do fuzz "$t" -runs=20000 -max_total_time=20; done
    ;;
  all)
    seconds=${2:-300}
    for t in "${targets[@]}"; do fuzz "$t" -max_total_time="$seconds" -print_final_stats=1; done
    ;;
  run)
    shift
    target=$1
    shift
    exec "build-fuzz/fuzz/$target" "$@"
    ;;
  *)
    echo "usage: $0 [smoke | all [SECONDS] | run TARGET [args...]]" >&2
    exit 2
    ;;
esac
