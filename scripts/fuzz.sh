#!/bin/sh
# fuzz.sh [seconds] - builds the fuzz targets with clang and runs each for a bounded time
# (default 60 s), starting from the seed corpus of fuzz/corpus/<target>/. New inputs go to a
# scratch corpus under the build folder, so the seeds in the tree stay as they are. Prints the
# executions and executions per second of every target; exits non-zero when a target failed.
set -eu
seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${FUZZ_BUILD_DIR:-"$root/build-fuzz"}

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DANALYTICSDB_FUZZ=ON \
  -DANALYTICSDB_WERROR=ON -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target fuzz_write_composition fuzz_select_pieces \
  fuzz_record_conversions >/dev/null

status=0
printf '%-26s %12s %10s %s\n' target executions exec/s result
for target in fuzz_write_composition fuzz_select_pieces fuzz_record_conversions; do
  work="$build/fuzz-run/$target"
  mkdir -p "$work/corpus" "$work/artifacts"
  log="$work/log.txt"
  result=ok
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$work/artifacts/" "$work/corpus" "$root/fuzz/corpus/$target" \
      >"$log" 2>&1; then
    result="FAILED (see $log)"
    status=1
    tail -n 40 "$log" >&2
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  printf '%-26s %12s %10s %s\n' "$target" "${runs:-?}" "${rate:-?}" "$result"
done
exit $status
