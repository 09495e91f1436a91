#!/usr/bin/env bash
# Builds the release preset and times, in the same run and alternating round by round, our
# thumbnail maker (bench/ThumbnailBench.cpp, each thumbnail written as a JPEG at quality 90) and
# vipsthumbnail writing the same JPEGs, both fitting into 256 x 256:
# - one 12000 x 8000 (96 Mpix) JPEG, twice: "pattern", the generated picture of `qor pipeline`
#   (flat ramps, 8 MB), and "photo", made by vips of what photographs have (smooth shading and a
#   grain of sigma 10, about 50 MB, so that the entropy decoding weighs as in a photograph);
# - 500 camera JPEGs of 2400 x 1600 with a 160 x 107 EXIF thumbnail and some 120 lines of
#   metadata (bench/make_camera_jpegs.sh): the thumbnail is too small for 256, so both decode the
#   picture at an eighth.
# Each tool runs as its own process on one thread (VIPS_CONCURRENCY=1; ours has no threads of its
# own). Prints the median wall and CPU times and their ratios to vipsthumbnail's (below 1: we are
# faster).
# Usage: bench/run_thumbnail_bench.sh [ROUNDS [COUNT]]  (default 5 rounds, 500 camera files).
# BUILD_DIR picks the build folder (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${1:-5}
COUNT=${2:-500}
BUILD=${BUILD_DIR:-build/release}
command -v vipsthumbnail >/dev/null || { echo "run_thumbnail_bench: vipsthumbnail is missing" >&2; exit 1; }

cmake --preset release -B "$BUILD" >/dev/null
cmake --build "$BUILD" --target qor_tool qor_bench_thumbnail >/dev/null

WORK=$(mktemp -d /tmp/qor_thumbnail_bench.XXXXXX)
trap 'rm -rf "$WORK"' EXIT
mkdir "$WORK/camera" "$WORK/ours" "$WORK/vips"
"$BUILD/qor" pipeline --size 12000x8000 --scale 1 --save "$WORK/pattern.jpg" >/dev/null 2>&1
bench/make_photo_jpeg.sh "$WORK"
bench/make_camera_jpegs.sh "$PWD/$BUILD/qor" "$WORK/camera" "$COUNT" >/dev/null
rm -f "$WORK"/camera/*-thumb.jpg "$WORK"/camera/base.jpg "$WORK"/camera/thumb.jpg
export VIPS_CONCURRENCY=1

echo "load average before the run: $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$BUILD/bench/qor_bench_thumbnail" "$WORK" "$ROUNDS" <<'PY'
import glob, os, sys
sys.path.insert(0, "bench")
from time_rounds import run

ours, work, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3])
camera = sorted(glob.glob(os.path.join(work, "camera", "img*.jpg")))
def pair(label, files):
    return {
        f"{label} ours": [ours, "256", f"{work}/ours"] + files,
        f"{label} vipsthumbnail": ["vipsthumbnail", "-s", "256", "-o",
                                   f"{work}/vips/%s.jpg[Q=90]"] + files,
    }
for label, files in (("pattern 96 Mpix", [f"{work}/pattern.jpg"]),
                     ("photo 96 Mpix", [f"{work}/photo.jpg"]),
                     (f"{len(camera)} camera JPEGs", camera)):
    print(f"\n{label}:")
    run(pair(label, files), rounds, peer=f"{label} vipsthumbnail", checked=(ours, "vipsthumbnail"))
PY
echo "load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
