#!/usr/bin/env bash
# Installs the built library into a temporary prefix and builds a one-file program against it
# both ways another project would: through the CMake package (find_package(qor)) and through
# pkg-config (qor.pc). Runs both and checks what they print; compiles every installed header with
# only the flags qor.pc gives; runs the installed tool.
# Usage: install_test.sh BUILD_DIR CMAKE PKG_CONFIG CXX GENERATOR VERSION
set -euo pipefail
BUILD=$1 CMAKE=$2 PKG_CONFIG=$3 CXX=$4 GENERATOR=$5 VERSION=$6
HERE=$(cd "$(dirname "$0")" && pwd)
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
PREFIX=$WORK/prefix
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

"$CMAKE" --install "$BUILD" --prefix "$PREFIX" >/dev/null
expected="qor $VERSION: 4x2 tile, pixel 0.375"

# The CMake package.
"$CMAKE" -S "$HERE/consumer" -B "$WORK/cmake" -G "$GENERATOR" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$PREFIX" >"$WORK/cmake.log" 2>&1 ||
    { cat "$WORK/cmake.log" >&2; fail "find_package(qor) in $PREFIX"; }
"$CMAKE" --build "$WORK/cmake" >"$WORK/cmake.log" 2>&1 ||
    { cat "$WORK/cmake.log" >&2; fail "building against the CMake package"; }
got=$("$WORK/cmake/consumer") || fail "the program built through the CMake package: exit status $?"
[ "$got" = "$expected" ] || fail "CMake package: printed '$got', not '$expected'"

# pkg-config, as a Makefile would use it.
PC=$(find "$PREFIX" -name qor.pc)
[ -n "$PC" ] || fail "no qor.pc installed"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$PC")
[ "$("$PKG_CONFIG" --modversion qor)" = "$VERSION" ] || fail "qor.pc has another version"
libdir=$("$PKG_CONFIG" --variable=libdir qor)
[ -e "$libdir/libqor.so" ] || fail "qor.pc's libdir $libdir holds no libqor.so"
# shellcheck disable=SC2046
"$CXX" -std=c++20 "$HERE/consumer/main.cpp" -o "$WORK/pc-consumer" \
    $("$PKG_CONFIG" --cflags --libs qor) -Wl,-rpath,"$libdir" ||
    fail "building with pkg-config --cflags --libs qor"
got=$("$WORK/pc-consumer") || fail "the program built through pkg-config: exit status $?"
[ "$got" = "$expected" ] || fail "pkg-config: printed '$got', not '$expected'"

# Every installed header, with only qor.pc's flags: none may need an internal header left out or
# an include path the file does not give.
(cd "$PREFIX/include/qor" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include "\1"|') \
    >"$WORK/headers.cpp"
# shellcheck disable=SC2046
"$CXX" -std=c++20 -fsyntax-only $("$PKG_CONFIG" --cflags qor) "$WORK/headers.cpp" ||
    fail "the installed headers do not compile with pkg-config --cflags qor"

[ "$("$PREFIX/bin/qor" version)" = "qor $VERSION" ] || fail "the installed qor does not run"
echo "installed package: CMake and pkg-config programs print '$expected'"
