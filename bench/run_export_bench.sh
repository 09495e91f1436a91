#!/usr/bin/env bash
# Builds the release preset and measures, in the same run and alternating, `qor export` and
# `vips resize` turning a generated 12000 x 8000 JPEG into a half-size JPEG and a half-size LZW
# TIFF, each as its own process with two threads; then `qor pipeline` saving a 30000 x 20000
# generated image to TIFF once. Prints the wall time, CPU time and peak RSS of each run, the
# medians and the ratios ours/vips (below 1: we are faster or smaller).
# Both TIFFs hold 8-bit samples: ours follows the picture's depth, vips its input's sample type.
# Usage: bench/run_export_bench.sh [RUNS [BIG_SIDES]]  (default 3 30000x20000)
# BUILD_DIR picks the build folder (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

RUNS=${1:-3}
BIG=${2:-30000x20000}
BUILD=${BUILD_DIR:-build/release}

cmake --preset release -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target qor_tool >/dev/null

WORK=$(mktemp -d /tmp/qor_export_bench.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
"$BUILD/qor" pipeline --size 12000x8000 --scale 1 --save "$WORK/big.jpg" >/dev/null
export VIPS_CONCURRENCY=2

python3 - "$BUILD/qor" "$WORK" "$RUNS" "$BIG" <<'PY'
import os, statistics, sys, time

qor, work, runs, big = sys.argv[1:]
src = f"{work}/big.jpg"
cases = {
    "ours-jpg": [qor, "export", src, "-o", f"{work}/o.jpg", "--scale", "0.5"],
    "vips-jpg": ["vips", "resize", src, f"{work}/v.jpg[Q=90]", "0.5"],
    "ours-tif": [qor, "export", src, "-o", f"{work}/o.tif", "--scale", "0.5"],
    "vips-tif": ["vips", "resize", src, f"{work}/v.tif[compression=lzw]", "0.5"],
}

def measure(cmd):
    """Wall seconds, CPU seconds and peak RSS in MB of one run, as its own child process."""
    start = time.monotonic()
    pid = os.fork()
    if pid == 0:
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, 1)
        os.dup2(devnull, 2)
        os.execvp(cmd[0], cmd)
    _, status, usage = os.wait4(pid, 0)
    wall = time.monotonic() - start
    if status != 0:
        sys.exit(f"{' '.join(cmd)} failed ({status})")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024

rows = {k: [] for k in cases}
for i in range(int(runs)):
    for name, cmd in cases.items():
        wall, cpu, rss = measure(cmd)
        rows[name].append((wall, cpu, rss))
        print(f"run {i + 1} {name:<9}: wall {wall:7.3f} s, CPU {cpu:7.3f} s, peak RSS {rss:7.1f} MB",
              flush=True)

med = {k: [statistics.median(r[j] for r in v) for j in range(3)] for k, v in rows.items()}
print()
print(f"12000x8000 JPEG to half size, {runs} runs each, 2 threads")
print(f"{'medians':<12}{'wall':>12}{'CPU':>12}{'peak RSS':>14}")
for k in cases:
    print(f"{k:<12}{med[k][0]:>10.3f} s{med[k][1]:>10.3f} s{med[k][2]:>11.1f} MB")
for kind in ("jpg", "tif"):
    o, v = med[f"ours-{kind}"], med[f"vips-{kind}"]
    print(f"ours/vips {kind}: wall {o[0] / v[0]:.2f}, CPU {o[1] / v[1]:.2f}, peak RSS {o[2] / v[2]:.2f}")

wall, cpu, rss = measure([qor, "pipeline", "--size", big, "--scale", "1", "--save",
                          f"{work}/x.tif"])
size_mb = os.path.getsize(f"{work}/x.tif") / 1e6
os.remove(f"{work}/x.tif")
print(f"\n{big} generated image to 8-bit LZW TIFF ({size_mb:.0f} MB): wall {wall:.3f} s, "
      f"CPU {cpu:.3f} s, peak RSS {rss:.1f} MB (goal: under 300 MB)")
load = os.getloadavg()
print(f"load average after the run: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
PY
