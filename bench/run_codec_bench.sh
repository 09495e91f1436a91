#!/usr/bin/env bash
# Builds the release preset and runs the codec benchmark: JPEG decode of a 24-megapixel file beside
# djpeg, the metadata read of 500 files beside exiftool and exiv2, and checksums a second. Prints the
# machine, the medians and the ratios ours/peer (below 1: we are faster).
# Usage: bench/run_codec_bench.sh [extra Google Benchmark arguments]
# QOR_BENCH_BUILD names another build folder for the release preset (default build/release).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${QOR_BENCH_BUILD:-build/release}
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target qor_bench_codec

for tool in djpeg exiftool exiv2; do
    command -v "$tool" >/dev/null || { echo "run_codec_bench: '$tool' is missing (scripts/setup.sh installs it)" >&2; exit 1; }
done

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'),"\
     "load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "djpeg: $(djpeg -version 2>&1 | head -1); exiftool $(exiftool -ver); $(exiv2 --version | head -1)"

out=$(mktemp /tmp/qor_bench_codec.XXXXXX.json)
trap 'rm -f "$out"' EXIT
"$build/bench/qor_bench_codec" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
    --benchmark_out="$out" --benchmark_out_format=json "$@"
echo "load average after the run: $(cut -d' ' -f1-3 /proc/loadavg)"

python3 - "$out" <<'PY'
import json, sys
data = json.load(open(sys.argv[1]))
median = {}
for b in data["benchmarks"]:
    if b.get("aggregate_name") == "median":
        median[b["run_name"].replace("/real_time", "")] = b

def ms(b, key):
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
    return b[key] * scale

def cpu_ms(b):  # a peer's processor time is its child process's
    return b["child_cpu_ms"] if "child_cpu_ms" in b else ms(b, "cpu_time")

print()
print(f"{'case':<36} {'wall ms: ours':>13} {'peer':>8} {'ratio':>6}   {'cpu ms: ours':>12} {'peer':>8} {'ratio':>6}")
for label, ours, peer in [
        ("decode full, fast DCT (loadJpeg)", "decodeOurs/Full_Fast", "decodeDjpeg/Full_Fast"),
        ("decode full, fast DCT (loadImage)", "loadImageOurs/Full_Fast", "decodeDjpeg/Full_Fast"),
        ("decode full, float DCT (loadJpeg)", "decodeOurs/Full_Best", "decodeDjpeg/Full_Best"),
        ("decode 1/8, fast DCT (loadJpeg)", "decodeOurs/Eighth_Fast", "decodeDjpeg/Eighth_Fast"),
        ("decode 1/8, fast DCT (loadImage)", "loadImageOurs/Eighth_Fast", "decodeDjpeg/Eighth_Fast"),
        ("metadata, 500 files vs exiftool", "Metadata/Ours", "Metadata/Exiftool"),
        ("metadata, 500 files vs exiv2", "Metadata/Ours", "Metadata/Exiv2")]:
    a, b = median.get(ours), median.get(peer)
    if not a or not b:
        print(f"{label:<36} (missing: {ours if not a else peer})")
        continue
    wa, wb, ca, cb = ms(a, "real_time"), ms(b, "real_time"), cpu_ms(a), cpu_ms(b)
    print(f"{label:<36} {wa:>13.1f} {wb:>8.1f} {wa / wb:>6.2f}   {ca:>12.1f} {cb:>8.1f} {ca / cb:>6.2f}")
print()
for name in ("Metadata/Ours", "Metadata/Exiftool", "Metadata/Exiv2", "Checksum/Ours"):
    if name in median and "items_per_second" in median[name]:
        print(f"{name:<20} {median[name]['items_per_second']:>10.0f} files/s")
PY
