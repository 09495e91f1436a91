#!/usr/bin/env bash
# The metadata cache, each figure beside its anchor in one run:
# 1. bench/MetadataCacheBench.cpp: a cached get (with its allocations and read calls counted)
#    beside a mutex-guarded hash map and the file reader alone; a flush of 500 changed items beside
#    the same writes straight on a ResourceDB.
# 2. `qor cache build` of camera-like JPEGs (bench/make_camera_jpegs.sh) into an empty cache,
#    beside `exiv2 -pa` on the same files and `qor checksum` (the item checksum the cache stores),
#    interleaved round by round; then a second build over the full cache (nothing to read: one
#    stat a file) and `qor cache get --json` of every file from it. Prints the median wall and
#    processor times with the ratios to exiv2 (below 1: faster). `qor cache build` reads on
#    several threads: compare processor times for the work, wall times for what a user waits.
#
# Usage: bench/run_cache_bench.sh [FILES [ROUNDS]]   (default 500 files, 7 rounds)
# QOR_BENCH_BUILD names another build folder for the release preset (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

count=${1:-500}
rounds=${2:-7}
build=${QOR_BENCH_BUILD:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target qor_tool qor_bench_metadata_cache
qor="$PWD/$build/qor"

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'),"\
     "load average $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bench/qor_bench_metadata_cache" --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true

work=$(mktemp -d /tmp/qor_cache_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/pictures"
bash bench/make_camera_jpegs.sh "$qor" "$work/pictures" "$count"
first="$work/pictures/img$(seq -w 1 "$count" | head -1).jpg"
echo "$(exiv2 --version | head -1); $count files of $(stat -c %s "$first") bytes," \
     "$(exiv2 -pa "$first" 2>/dev/null | wc -l) lines of exiv2 -pa each"

python3 - "$qor" "$work" "$rounds" <<'PY'
import glob, os, shutil, sys
sys.path.insert(0, "bench")
from time_rounds import run

qor, work, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3])
pictures = os.path.join(work, "pictures")
files = sorted(glob.glob(os.path.join(pictures, "img*.jpg")))
empty, full = os.path.join(work, "empty-cache"), os.path.join(work, "full-cache")
commands = {
    "qor cache build": [qor, "cache", "build", pictures, "--cache", empty],
    "exiv2 -pa": ["exiv2", "-pa"] + files,
    "qor checksum": [qor, "checksum"] + files,
    "qor cache build (full cache)": [qor, "cache", "build", pictures, "--cache", full],
    "qor cache get --json": [qor, "cache", "get", "--json", "--cache", full] + files,
}
before = {"qor cache build": lambda: shutil.rmtree(empty, ignore_errors=True)}
run(commands, rounds, peer="exiv2 -pa", checked=(qor,), before=before,
    sums={"exiv2 -pa + qor checksum": ["exiv2 -pa", "qor checksum"]})
PY
echo "load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
