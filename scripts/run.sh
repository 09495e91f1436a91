#!/usr/bin/env bash
# Sets everything up, builds the release preset and runs the main job: the qor tool on generated data.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
QOR=build/release/qor
"$QOR" --version
"$QOR" jobs --width 64 --depth 8
SAMPLES=$(mktemp -d)
trap 'rm -rf "$SAMPLES"' EXIT
"$QOR" tiles --width 3000 --height 2000 --tile 256 --save "$SAMPLES/generated.jpg"
"$QOR" pipeline --size 8000x8000 --scale 0.25 --check
# Bad arguments must give exit status 2.
for bad in "--size 8000 --scale 0.25" "--size 8000x8000 --scale 0" "--size 8000x8000" \
    "--size 8000x8000 --scale 0.5 --cache-mb 1" "--size 0x10 --scale 1" "--scale 0.5 --frob"; do
    status=0
    # shellcheck disable=SC2086
    "$QOR" pipeline $bad 2>/dev/null || status=$?
    [ "$status" -eq 2 ] || { echo "qor pipeline $bad: exit status $status, not 2" >&2; exit 1; }
done
"$QOR" thumb "$SAMPLES/generated.jpg" "$SAMPLES/thumb.jpg" --size 256
"$QOR" info "$SAMPLES/generated.jpg" "$SAMPLES/thumb.jpg"
