#!/usr/bin/env bash
# Builds the release preset, runs the job-system benchmark and prints, for each case, our time
# against the plain thread pool's and the ratio ours/plain (below 1: we are faster).
# Usage: bench/run_jobs_bench.sh [extra Google Benchmark arguments]
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset release >/dev/null
cmake --build --preset release --target qor_bench_jobs

out=$(mktemp /tmp/qor_bench_jobs.XXXXXX.json)
trap 'rm -f "$out"' EXIT
build/release/bench/qor_bench_jobs --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_out="$out" --benchmark_out_format=json "$@"

python3 - "$out" <<'PY'
import json, sys
data = json.load(open(sys.argv[1]))
median = {}
for b in data["benchmarks"]:
    if b.get("aggregate_name") == "median":
        median[b["run_name"].split("/")[0]] = b
print()
print(f"{'case':<10} {'ours':>14} {'plain':>14} {'ours/plain':>11}   jobs/s ours / plain")
for case, ours, plain in [("wide", "BM_Wide_Jobs", "BM_Wide_Plain"),
                          ("chain", "BM_Chain_Jobs", "BM_Chain_Plain"),
                          ("latency", "BM_Latency_Jobs", "BM_Latency_Plain"),
                          ("latency*", "BM_Latency_DispatcherJob", "BM_Latency_Plain")]:
    a, b = median.get(ours), median.get(plain)
    if not a or not b:
        continue
    unit = a["time_unit"]
    rate = ""
    if "items_per_second" in a:
        rate = f"   {a['items_per_second']:.0f} / {b['items_per_second']:.0f}"
    print(f"{case:<10} {a['real_time']:>11.3f} {unit:<2} {b['real_time']:>11.3f} {unit:<2}"
          f" {a['real_time'] / b['real_time']:>11.2f}{rate}")
print("\nlatency: DependentJobExecutor::process of one job; latency*: JobDispatcher::createJob")
PY
