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
"$QOR" thumb "$SAMPLES/generated.jpg" "$SAMPLES/thumb.jpg" --size 256
"$QOR" info "$SAMPLES/generated.jpg" "$SAMPLES/thumb.jpg"
