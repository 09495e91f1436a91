#!/usr/bin/env bash
# Builds the release preset, runs the ResourceDB benchmark and prints, for each case, our time
# against plain SQLite's on the same file and the ratio ours/plain (below 1: we are faster), and
# the other choices a writer has (a row a record; a rollback journal) against plain SQLite.
# Usage: bench/run_resourcedb_bench.sh [extra Google Benchmark arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build --preset release --target qor_bench_resourcedb

out=$(mktemp /tmp/qor_bench_resourcedb.XXXXXX.json)
trap 'rm -f "$out"' EXIT
QOR_LOG_LEVEL=3 build/release/bench/qor_bench_resourcedb --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true --benchmark_out="$out" --benchmark_out_format=json "$@"

python3 - "$out" <<'PY'
import json, sys
data = json.load(open(sys.argv[1]))
median = {}
for b in data["benchmarks"]:
    if b.get("aggregate_name") == "median":
        median[b["run_name"]] = b
def ms(name):
    b = median.get(name)
    return b["real_time"] if b else None
rows = [
    ("start-up read, warm", "BM_StartupRead_ResourceDB/0", "BM_StartupRead_SQLite/0"),
    ("start-up read, evicted", "BM_StartupRead_ResourceDB/1", "BM_StartupRead_SQLite/1"),
    ("  + names, warm", "BM_StartupEnumerate_ResourceDB/0", "BM_StartupRead_SQLite/0"),
    ("metadata cache open, warm", "BM_OpenMetadataCache/0", "BM_StartupRead_SQLite/0"),
    ("metadata cache open, evicted", "BM_OpenMetadataCache/1", "BM_StartupRead_SQLite/1"),
    ("  row layout, warm", "BM_StartupRead_SQLiteRows/0", "BM_StartupRead_SQLite/0"),
    ("  row layout, evicted", "BM_StartupRead_SQLiteRows/1", "BM_StartupRead_SQLite/1"),
    ("flush 500 consecutive", "BM_Flush500_ResourceDB/0", "BM_Flush500_SQLiteWalNormal/0"),
    ("flush 500 spread", "BM_Flush500_ResourceDB/1", "BM_Flush500_SQLiteWalNormal/1"),
    ("  rollback journal, consecutive", "BM_Flush500_SQLiteRollbackFull/0",
     "BM_Flush500_SQLiteWalNormal/0"),
    ("  rollback journal, spread", "BM_Flush500_SQLiteRollbackFull/1",
     "BM_Flush500_SQLiteWalNormal/1"),
    ("  row layout, consecutive", "BM_Flush500_SQLiteRows/0", "BM_Flush500_SQLiteWalNormal/0"),
    ("  row layout, spread", "BM_Flush500_SQLiteRows/1", "BM_Flush500_SQLiteWalNormal/1"),
]
print()
print(f"{'case':<34} {'this (ms)':>10} {'plain (ms)':>11} {'ratio':>7}")
for label, ours, plain in rows:
    a, b = ms(ours), ms(plain)
    if a is None or b is None:
        continue
    print(f"{label:<34} {a:>10.2f} {b:>11.2f} {a / b:>7.2f}")
print("\nthis: ResourceDB, or (indented) another layout or journal through plain SQLite;")
print("plain: plain SQLite with ResourceDB's layout and journal (write-ahead log, synchronous=NORMAL)")
PY
