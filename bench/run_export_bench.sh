#!/usr/bin/env bash
# Builds the release preset and measures, in the same run and alternating, `qor export` and
# `vips resize` turning a 12000 x 8000 JPEG into a half-size JPEG and a half-size LZW TIFF, each as
# its own process with two threads; then `qor pipeline` saving a 30000 x 20000 generated image to
# TIFF once. Prints the wall time, CPU time and peak RSS of each run, the medians and the ratios
# ours/vips (below 1: we are faster or smaller).
#
# Two inputs: "pattern", the generated picture of `qor pipeline` (flat ramps, 8 MB at quality 90),
# and "photo", made by vips of what photographs have (smooth shading from cubic-upsampled noise,
# and a grain of sigma 10: 50 MB at quality 90, so that the entropy decoding weighs as in a photo).
# `vips resize` decodes the whole picture, as our export did before it read JPEGs reduced; the
# row "vips-shrink" (`vips copy IN[shrink=2] OUT.jpg`) is vips' own reduced decode, shown for
# reference: it is a plain halving by the decoder with no resampling stage at all.
# Both TIFFs hold 8-bit samples: ours follows the picture's depth, vips its input's sample type.
# Usage: bench/run_export_bench.sh [RUNS [BIG_SIDES]]  (default 3 30000x20000; BIG_SIDES "none"
# leaves the large save out). BUILD_DIR picks the build folder (default build/release);
# BASELINE_QOR names another build's qor, whose exports then run in the same rounds ("base-").
set -euo pipefail
cd "$(dirname "$0")/.."

RUNS=${1:-3}
BIG=${2:-30000x20000}
BUILD=${BUILD_DIR:-build/release}

cmake --preset release -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target qor_tool >/dev/null

WORK=$(mktemp -d /tmp/qor_export_bench.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
"$BUILD/qor" pipeline --size 12000x8000 --scale 1 --save "$WORK/pattern.jpg" >/dev/null 2>&1
bench/make_photo_jpeg.sh "$WORK"
export VIPS_CONCURRENCY=2

python3 - "$BUILD/qor" "$WORK" "$RUNS" "$BIG" "${BASELINE_QOR:-}" <<'PY'
import os, statistics, sys, time

qor, work, runs, big, baseline = sys.argv[1:]

def cases_for(name):
    src = f"{work}/{name}.jpg"
    return {
        f"{name} ours-jpg": [qor, "export", src, "-o", f"{work}/o.jpg", "--scale", "0.5"],
        f"{name} vips-jpg": ["vips", "resize", src, f"{work}/v.jpg[Q=90]", "0.5"],
        f"{name} vips-shrink-jpg": ["vips", "copy", f"{src}[shrink=2]", f"{work}/s.jpg[Q=90]"],
        f"{name} ours-tif": [qor, "export", src, "-o", f"{work}/o.tif", "--scale", "0.5"],
        f"{name} vips-tif": ["vips", "resize", src, f"{work}/v.tif[compression=lzw]", "0.5"],
        **({f"{name} base-jpg": [baseline, "export", src, "-o", f"{work}/b.jpg", "--scale", "0.5"],
            f"{name} base-tif": [baseline, "export", src, "-o", f"{work}/b.tif", "--scale", "0.5"]}
           if baseline else {}),
    }

inputs = ("pattern", "photo")
cases = {k: v for name in inputs for k, v in cases_for(name).items()}

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

load = os.getloadavg()
print(f"load average before the run: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
rows = {k: [] for k in cases}
for i in range(int(runs)):
    for name, cmd in cases.items():
        wall, cpu, rss = measure(cmd)
        rows[name].append((wall, cpu, rss))
        print(f"run {i + 1} {name:<24}: wall {wall:7.3f} s, CPU {cpu:7.3f} s, "
              f"peak RSS {rss:7.1f} MB", flush=True)

med = {k: [statistics.median(r[j] for r in v) for j in range(3)] for k, v in rows.items()}
print()
print(f"12000x8000 JPEG to half size, {runs} runs each, 2 threads")
print(f"{'medians':<26}{'wall':>10}{'CPU':>12}{'peak RSS':>14}")
for k in cases:
    print(f"{k:<26}{med[k][0]:>8.3f} s{med[k][1]:>10.3f} s{med[k][2]:>11.1f} MB")
for name in inputs:
    for kind in ("jpg", "tif"):
        o, v = med[f"{name} ours-{kind}"], med[f"{name} vips-{kind}"]
        print(f"{name} ours/vips {kind}: wall {o[0] / v[0]:.2f}, CPU {o[1] / v[1]:.2f}, "
              f"peak RSS {o[2] / v[2]:.2f}")
    o, v = med[f"{name} ours-jpg"], med[f"{name} vips-shrink-jpg"]
    print(f"{name} ours/vips-shrink jpg: wall {o[0] / v[0]:.2f}, CPU {o[1] / v[1]:.2f}, "
          f"peak RSS {o[2] / v[2]:.2f}")

if big != "none":
    wall, cpu, rss = measure([qor, "pipeline", "--size", big, "--scale", "1", "--save",
                              f"{work}/x.tif"])
    size_mb = os.path.getsize(f"{work}/x.tif") / 1e6
    os.remove(f"{work}/x.tif")
    print(f"\n{big} generated image to 8-bit LZW TIFF ({size_mb:.0f} MB): wall {wall:.3f} s, "
          f"CPU {cpu:.3f} s, peak RSS {rss:.1f} MB (goal: under 300 MB)")
load = os.getloadavg()
print(f"load average after the run: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
PY
