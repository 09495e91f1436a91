#!/usr/bin/env bash
# Times `qor info --json` on a few hundred camera-like JPEGs beside `exiv2 -pa` on the same files,
# each one process over all files, interleaved round by round in one run. Prints the machine, the
# median wall and processor times of each and the ratios qor/exiv2 (below 1: qor is faster), and
# `qor info --json --verify` (which decodes a small picture of each file) for comparison.
#
# The files: bench/make_camera_jpegs.sh (about 50 EXIF and GPS tags, a maker note, IPTC, XMP and an
# EXIF thumbnail; some 160 lines of `exiv2 -pa`). QOR_INFO_BENCH_PLAIN=1 leaves the maker note and
# most tags out (15 lines).
#
# Usage: bench/run_info_bench.sh [FILES [ROUNDS]]   (default 500 files, 7 rounds)
# QOR_BENCH_BUILD names another build folder for the release preset (default build/release).
# QOR_INFO_BENCH_BESIDE names another qor program (an earlier build, say) whose `info --json` runs
# in the same rounds, for a before-and-after in one session.
set -euo pipefail
cd "$(dirname "$0")/.."

count=${1:-500}
rounds=${2:-7}
build=${QOR_BENCH_BUILD:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target qor_tool
qor="$PWD/$build/qor"

work=$(mktemp -d /tmp/qor_info_bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
bash bench/make_camera_jpegs.sh "$qor" "$work" "$count"
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'),"\
     "load average $(cut -d' ' -f1-3 /proc/loadavg)"
first="$work/img$(seq -w 1 "$count" | head -1).jpg"
echo "$(exiv2 --version | head -1); $count files of $(stat -c %s "$first") bytes," \
     "$(exiv2 -pa "$first" 2>/dev/null | wc -l) lines of exiv2 -pa each"

python3 - "$qor" "$work" "$rounds" "${QOR_INFO_BENCH_BESIDE:-}" <<'PY'
import glob, os, sys
sys.path.insert(0, "bench")
from time_rounds import run

qor, work, rounds, beside = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
files = sorted(glob.glob(os.path.join(work, "img*.jpg")))
commands = {
    "qor info --json": [qor, "info", "--json"] + files,
    "exiv2 -pa": ["exiv2", "-pa"] + files,
    "qor info --json --verify": [qor, "info", "--json", "--verify"] + files,
}
if beside:
    commands["beside: info --json"] = [beside, "info", "--json"] + files
run(commands, rounds, peer="exiv2 -pa", checked=(qor, beside))
PY
echo "load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
