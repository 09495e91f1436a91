#!/usr/bin/env bash
# Sets everything up, builds under AddressSanitizer and UndefinedBehaviorSanitizer and runs every
# test, then builds under ThreadSanitizer and runs the tests labelled "threads", then runs every
# test again in an optimised build (some faults show only there).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if [ "${CI:-}" = "true" ]; then export QOR_WERROR=ON; fi
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
# Paths below the checkout are hashed relative to it, so that another checkout of the same sources
# (CI's clean clone) reuses the cache.
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1
cmake --preset test >/dev/null
cmake --build --preset test
ctest --preset test
cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan
cmake --preset opt >/dev/null
cmake --build --preset opt
ctest --preset opt
