#!/usr/bin/env bash
# Builds the benchmarks (Release, in build-bench/), runs them and prints one table: operation,
# library time, baseline time (bare SQLite running the same SQL text), and their ratio, in wall
# clock and in CPU time. Times are medians of three repetitions. Then the memory figures.
#   scripts/bench.sh [extra google-benchmark arguments, e.g. --benchmark_filter=tick]
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="${ADB_BENCH_BUILD_DIR:-$root/build-bench}"

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DANALYTICSDB_BUILD_BENCH=ON -DANALYTICSDB_WERROR=ON \
  -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j2 >/dev/null

json="$(mktemp)"
trap 'rm -f "$json"' EXIT
"$build/bench/analyticsdb_bench" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_out="$json" --benchmark_out_format=json "$@" >/dev/null

echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(uname -m)"
echo
# Names are "<operation>/<side>/min_time:..."; the baseline of every operation is "sqlite" (the
# same SQL text through bare SQLite). The tick also has "upsert" (prepared INSERT ... ON CONFLICT
# DO UPDATE), "floor" (one UPDATE per row, compiled once) and "uncached" (the library with its
# statement cache off); the existing-row inventory write has "prepared" (one compiled UPDATE).
jq -r '
  [.benchmarks[] | select(.aggregate_name == "median")
   | {op: (.run_name | split("/")[0]), side: (.run_name | split("/")[1]),
      real: .real_time, cpu: .cpu_time}]
  | group_by(.op)[]
  | (map({(.side): .}) | add) as $s
  | ($s.library) as $lib
  | ([["sqlite", $s.sqlite], ["upsert", $s.upsert], ["floor", $s.floor],
      ["prepared", $s.prepared], ["uncached", $s.uncached]][] | select(.[1] != null)) as $base
  | [$lib.op, ($base[0]), $lib.real, $base[1].real, ($lib.real / $base[1].real),
     $lib.cpu, $base[1].cpu, ($lib.cpu / $base[1].cpu)]
  | @tsv' "$json" |
  awk -F'\t' 'BEGIN {
      printf "| %-28s | %-8s | %12s | %12s | %6s | %12s | %12s | %6s |\n", "operation", "baseline",
        "library us", "baseline us", "ratio", "lib CPU us", "base CPU us", "CPU r."
      printf "|%s|%s|%s|%s|%s|%s|%s|%s|\n", "------------------------------", "----------",
        "--------------", "--------------", "--------", "--------------", "--------------", "--------"
    }
    { printf "| %-28s | %-8s | %12.1f | %12.1f | %6.2f | %12.1f | %12.1f | %6.2f |\n",
        $1, $2, $3, $4, $5, $6, $7, $8 }'

echo
echo "Per tick (256 devices x 3 series): bytes written and syncs (counted by a VFS shim), SQLite's"
echo "heap peak over the run, and the statement cache held at its end:"
jq -r '.benchmarks[] | select(.aggregate_name == "median" and (.run_name | startswith("tick_")))
       | [(.run_name | split("/")[1]), .bytes_written, .syncs, .heap_peak_kib, .cache_statements,
          .cache_kib] | @tsv' "$json" |
  awk -F'\t' 'BEGIN {
      printf "| %-10s | %14s | %6s | %14s | %16s | %10s |\n", "side", "bytes written", "syncs",
        "heap peak KiB", "cache statements", "cache KiB"
      printf "|%s|%s|%s|%s|%s|%s|\n", "------------", "----------------", "--------",
        "----------------", "------------------", "------------"
    }
    { printf "| %-10s | %14.0f | %6.1f | %14.0f | %16.0f | %10.0f |\n", $1, $2, $3, $4, $5, $6 }'

echo
echo "Log lines handed to the handler per db_write (notice: default level, debug: debug level):"
jq -r '.benchmarks[] | select(.aggregate_name == "median" and (.run_name | test("log_.*library")))
       | "  \(.run_name | split("/")[0]): \(.lines_per_call)"' "$json"

echo
echo "Memory:"
"$build/bench/analyticsdb_span_probe" span | sed 's/^/  /'
"$build/bench/analyticsdb_memory_probe" rss | sed 's/^/  /'
weekdb="$(mktemp -d)"
trap 'rm -f "$json"; rm -rf "$weekdb"' EXIT
"$build/bench/analyticsdb_memory_probe" prepare "$weekdb/template.db"
if command -v valgrind >/dev/null; then
  for mode in tick week; do
    cp "$weekdb/template.db" "$weekdb/probe.db"
    out="$(mktemp)"
    valgrind --tool=massif --pages-as-heap=no --massif-out-file="$out" \
      "$build/bench/analyticsdb_memory_probe" "$mode" "$weekdb/probe.db" >/dev/null 2>&1
    peak="$(grep -o 'mem_heap_B=[0-9]*' "$out" | cut -d= -f2 | sort -n | tail -1)"
    extra="$(grep -o 'mem_heap_extra_B=[0-9]*' "$out" | cut -d= -f2 | sort -n | tail -1)"
    echo "  massif, $mode: heap peak $((peak / 1024)) KiB" \
         "(+$((extra / 1024)) KiB allocator overhead)"
    rm -f "$out"
  done
fi
if command -v heaptrack >/dev/null && command -v heaptrack_print >/dev/null; then
  for mode in tick week; do
    cp "$weekdb/template.db" "$weekdb/probe.db"
    dir="$(mktemp -d)"
    (cd "$dir" && heaptrack -o "$dir/ht" "$build/bench/analyticsdb_memory_probe" "$mode" \
      "$weekdb/probe.db" >/dev/null 2>&1) || true
    file="$(ls "$dir"/ht* 2>/dev/null | head -1)"
    if [ -n "$file" ]; then
      heaptrack_print "$file" 2>/dev/null |
        grep -E '^(total runtime|calls to allocation functions|peak heap memory consumption|total memory leaked)' |
        sed "s/^/  heaptrack, $mode: /"
    fi
    rm -rf "$dir"
  done
fi
