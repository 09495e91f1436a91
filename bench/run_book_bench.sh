#!/usr/bin/env bash
# Times `qor book render` of a photo book of many double pages and takes its peak memory: PAGES
# double pages from a generated template, each side a picture frame, filled with distinct pictures
# of 3000 x 2000 (so each preview is a full 2048 px one). Prints the wall time and the peaks of
# anonymous and file-backed resident memory of a first render (the previews made into the disk
# cache) and of a second one (the previews read from it), and the size of what was written.
#
# The renderer holds the pictures of one double page at a time and the thumbnail chain keeps
# within its budgets: the anonymous peak should not grow with the number of pages (compare PAGES
# 10 and 80).
#
# Usage: bench/run_book_bench.sh [PAGES]  (default 40)
# QOR_BENCH_BUILD names another build folder for the release preset (default build/release).
# QOR_BOOK_BENCH_KEEP=DIR makes the library and pictures in DIR (kept) instead of a temporary
# folder, for profiling a render by hand.
set -euo pipefail
cd "$(dirname "$0")/.."

pages=${1:-40}
build=${QOR_BENCH_BUILD:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target qor_tool >/dev/null
qor="$PWD/$build/qor"

if [ -n "${QOR_BOOK_BENCH_KEEP:-}" ]; then
    work=$QOR_BOOK_BENCH_KEEP
    rm -rf "$work"
    mkdir -p "$work"
else
    work=$(mktemp -d /tmp/qor_book_bench.XXXXXX)
    trap 'rm -rf "$work"' EXIT
fi
lib="$work/lib"
"$qor" library init --library "$lib" >/dev/null
"$qor" bag create event Trip --library "$lib" >/dev/null
pictures=$((2 * pages))
for ((i = 0; i < pictures; ++i)); do
    # Distinct sizes make distinct pictures.
    "$qor" tiles --width $((3000 + i)) --height 2000 --tile 256 --save "$work/p$i.jpg" >/dev/null
done
"$qor" bag add Trip "$work"/p*.jpg --library "$lib" >/dev/null

{
    echo '<?xml version="1.0" encoding="UTF-8"?>'
    echo '<layout style="bench" variant="square" covertype="0" current_view="0" current_page="0">'
    for ((p = 0; p < pages; ++p)); do
        echo '<page>'
        for side in 0 1; do
            echo "<subpage type=\"$side\" name=\"$((2 * p + side + 1))\" bgcolor=\"#ffffff\">"
            echo '<pictureframe layer="1" position="0.05,0.05" size="0.9,0.9">'
            echo '<picture size="900,900" alpha="1" imageurl=""/></pictureframe>'
            echo '</subpage>'
        done
        echo '</page>'
    done
    echo '</layout>'
} >"$work/bench.layout"
"$qor" book new Big --layout "$work/bench.layout" --from Trip --library "$lib" >/dev/null

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo "$pages double pages, $pictures pictures of 3000 x 2000"
# Wall time, and the peaks of the resident memory sampled every 10 ms: anonymous (the process's own
# memory) and file-backed (pages of the mapped disk cache, which the kernel may drop at will).
measure() {
    python3 - "$@" <<'PY'
import re, subprocess, sys, time
start = time.monotonic()
p = subprocess.Popen(sys.argv[1:], stdout=subprocess.DEVNULL)
anon = files = 0
while p.poll() is None:
    try:
        status = open(f"/proc/{p.pid}/status").read()
        anon = max(anon, int(re.search(r"RssAnon:\s+(\d+)", status).group(1)))
        files = max(files, int(re.search(r"RssFile:\s+(\d+)", status).group(1)))
    except (OSError, AttributeError):
        pass
    time.sleep(0.01)
if p.returncode != 0:
    sys.exit(f"exit status {p.returncode}")
print(f"{time.monotonic() - start:.2f} {anon // 1024} {files // 1024}")
PY
}
for run in first second; do
    rm -rf "$work/out"
    read -r seconds anon files < <(measure "$qor" book render Big -o "$work/out" --library "$lib")
    printf '%-6s render: %6.2f s, peak anonymous %4d MB, file-backed %4d MB, written %d MB\n' \
        "$run" "$seconds" "$anon" "$files" "$(du -sm "$work/out" | cut -f1)"
done
