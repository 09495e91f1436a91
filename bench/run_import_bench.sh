#!/usr/bin/env bash
# Times `qor import` of a folder of camera files into a fresh library (scan, metadata, checksum
# and duplicate check, copy, grouping of raw and JPEG pairs, the library saved) beside what a
# person would do by hand with the same files in the same run: `cp -r` of the folder, and
# `exiv2 -pa` over every file, each one process, interleaved round by round. Prints the median
# wall and processor times and the ratios to the sum cp + exiv2 (the goal: import at most 1.5).
#
# The files: bench/make_import_photos.sh (COUNT JPEGs of 5 to 10 MB with EXIF and an EXIF
# thumbnail, and a raw-named partner beside every tenth).
#
# The page cache cannot be dropped without root: every command runs once untimed first, so all
# figures are warm-cache ones (the sources read from memory; the copies are written into the page
# cache, `sync` before each command writes out what the last one left dirty).
#
# Usage: bench/run_import_bench.sh [COUNT [ROUNDS]]  (default 500 files, 2 rounds)
# QOR_BENCH_BUILD names another build folder for the release preset (default build/release).
# QOR_IMPORT_BENCH_KEEP=DIR makes the files in DIR (kept, and reused when there) instead of a
# temporary folder, for profiling the import by hand.
set -euo pipefail
cd "$(dirname "$0")/.."

count=${1:-500}
rounds=${2:-2}
build=${QOR_BENCH_BUILD:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target qor_tool >/dev/null
qor="$PWD/$build/qor"

if [ -n "${QOR_IMPORT_BENCH_KEEP:-}" ]; then
    work=$QOR_IMPORT_BENCH_KEEP
    mkdir -p "$work"
else
    work=$(mktemp -d /tmp/qor_import_bench.XXXXXX)
    trap 'rm -rf "$work"' EXIT
fi
[ -d "$work/camera" ] || bash bench/make_import_photos.sh "$work/camera" "$count"
files=$(find "$work/camera" -type f | wc -l)
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'),"\
     "load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "$files files, $(du -sm "$work/camera" | cut -f1) MB; $(exiv2 --version | head -1)"

python3 - "$qor" "$work" "$rounds" <<'PY'
import glob, os, shutil, subprocess, sys
sys.path.insert(0, "bench")
from time_rounds import run

qor, work, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3])
camera = os.path.join(work, "camera")
files = sorted(glob.glob(os.path.join(camera, "*")))
copy, library = os.path.join(work, "copy"), os.path.join(work, "library")

# Before each command the copies of the last round go, and `sync` writes out what is dirty, so
# that no command pays for the write-back of another's 4 GB.
def fresh_copy():
    shutil.rmtree(copy, ignore_errors=True)
    subprocess.run(["sync"], check=True)

def fresh_library():
    shutil.rmtree(library, ignore_errors=True)
    subprocess.run([qor, "library", "init", "--library", library], check=True,
                   stdout=subprocess.DEVNULL)
    subprocess.run(["sync"], check=True)

commands = {
    "cp -r": ["cp", "-r", camera, copy],
    # The import makes each picture durable (fdatasync) before it takes its name; cp does not.
    # This line is cp made as durable, for comparison.
    "cp -r; sync": ["sh", "-c", 'cp -r "$0" "$1" && sync', camera, copy],
    "exiv2 -pa": ["exiv2", "-pa"] + files,
    "qor import": [qor, "import", camera, "--library", library, "--duplicates", "skip"],
}
run(commands, rounds, peer="cp -r + exiv2 -pa", checked=(qor, "cp"),
    before={"cp -r": fresh_copy, "cp -r; sync": fresh_copy, "exiv2 -pa": lambda: subprocess.run(["sync"], check=True),
            "qor import": fresh_library},
    sums={"cp -r + exiv2 -pa": ["cp -r", "exiv2 -pa"]})

# What the last import made: every file imported, raw files with their JPEG.
result = subprocess.run([qor, "import", camera, "--library", library, "--duplicates", "skip",
                         "--json"], capture_output=True, text=True)
print(f"\na second import of the same folder: exit status {result.returncode}, "
      f"{result.stdout.count('IMG_')} files listed (all should be duplicates, not imported)")
PY
echo "load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"
