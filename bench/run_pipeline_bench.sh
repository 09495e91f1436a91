#!/usr/bin/env bash
# Builds the release preset and runs, in the same run and alternating, `qor pipeline` and libvips
# reducing the same generated RGBA8 image by the same integer factor, each as its own process with
# two threads. A third run per round gives libvips a black input instead (no pattern to compute):
# the cost of its reduction and sink alone. Prints the wall time, CPU time and peak RSS of each
# run, the medians and the ratios ours/vips (below 1: we are faster or smaller).
# Usage: bench/run_pipeline_bench.sh [SIDE [FACTOR [RUNS [CACHE_MB]]]]  (default 16000 4 3 256)
# BUILD_DIR picks the build folder (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

SIDE=${1:-16000}
FACTOR=${2:-4}
RUNS=${3:-3}
CACHE_MB=${4:-256}
BUILD=${BUILD_DIR:-build/release}

cmake --preset release -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target qor >/dev/null

# The peer, built against the installed libvips runtime (see the file's comment).
LIBDIR=/usr/lib/x86_64-linux-gnu
PEER=$(mktemp /tmp/qor_vips_reduce.XXXXXX)
trap 'rm -f "$PEER"' EXIT
cc -O2 -o "$PEER" bench/vips_reduce.c "$LIBDIR/libvips.so.42" "$LIBDIR/libgobject-2.0.so.0"

SCALE=$(python3 -c "print(1 / $FACTOR)")
export VIPS_CONCURRENCY=2

python3 - "$BUILD/qor" "$PEER" "$SIDE" "$FACTOR" "$SCALE" "$RUNS" "$CACHE_MB" <<'PY'
import os, re, statistics, sys, tempfile, time

qor, peer, side, factor, scale, runs, cache_mb = sys.argv[1:]
ours_cmd = [qor, "pipeline", "--size", f"{side}x{side}", "--scale", scale, "--cache-mb", cache_mb]
vips_cmd = [peer, side, side, factor]
black_cmd = [peer, side, side, factor, "black"]

def measure(cmd):
    """Wall seconds, CPU seconds, peak RSS in MB and stdout of one run, as its own child process."""
    with tempfile.TemporaryFile(mode="w+") as capture:
        start = time.monotonic()
        pid = os.fork()
        if pid == 0:
            os.dup2(capture.fileno(), 1)
            os.execv(cmd[0], cmd)
        _, status, usage = os.wait4(pid, 0)
        wall = time.monotonic() - start
        capture.seek(0)
        out = capture.read()
    if status != 0:
        sys.exit(f"{' '.join(cmd)} failed ({status}):\n{out}")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024, out

def mean_of(out):
    m = re.search(r"mean ([0-9.]+)", out)
    return float(m.group(1)) if m else float("nan")

names = ("ours", "vips", "vips-black")
rows = {k: [] for k in names}
for i in range(int(runs)):
    for name, cmd in zip(names, (ours_cmd, vips_cmd, black_cmd)):
        wall, cpu, rss, out = measure(cmd)
        rows[name].append((wall, cpu, rss))
        print(f"run {i + 1} {name:<10}: wall {wall:7.3f} s, CPU {cpu:7.3f} s, "
              f"peak RSS {rss:7.1f} MB, mean {mean_of(out):.4f}")
        if name == "ours" and i == 0:
            print("  " + out.strip().replace("\n", "\n  "))

load = os.getloadavg()
med = {k: [statistics.median(r[j] for r in v) for j in range(3)] for k, v in rows.items()}
print()
print(f"{side}x{side} RGBA8 reduced by {factor}, {runs} runs each, 2 threads, cache limit {cache_mb} MB")
print(f"{'medians':<12}{'wall':>12}{'CPU':>12}{'peak RSS':>14}")
for k in names:
    print(f"{k:<12}{med[k][0]:>10.3f} s{med[k][1]:>10.3f} s{med[k][2]:>11.1f} MB")
for peer_name in ("vips", "vips-black"):
    print(f"ours/{peer_name}: wall {med['ours'][0] / med[peer_name][0]:.2f}, "
          f"CPU {med['ours'][1] / med[peer_name][1]:.2f}, "
          f"peak RSS {med['ours'][2] / med[peer_name][2]:.2f}")
print(f"load average after the run: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
PY
