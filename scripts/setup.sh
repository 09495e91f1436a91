#!/usr/bin/env bash
# Installs every Debian package the project needs. Does nothing slow when all of them are there.
set -euo pipefail

PACKAGES=(
    # toolchain and build
    build-essential cmake ninja-build pkg-config ccache clang libclang-rt-14-dev
    # tests and benchmarks
    libgtest-dev libgmock-dev libbenchmark-dev
    # peers the benchmarks run beside our code
    libvips-tools libjpeg-turbo-progs libimage-exiftool-perl exiv2
    # codecs and metadata
    libjpeg62-turbo-dev libpng-dev libtiff-dev libopenexr-dev libimath-dev libexiv2-dev
    liblcms2-dev libgif-dev libwebp-dev libheif-dev libraw-dev
    libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
    # formats, network, storage, crypto
    libpugixml-dev nlohmann-json3-dev libcurl4-openssl-dev libcpp-httplib-dev
    libsqlite3-dev libssl-dev
    # locale sources: a test makes a German locale (decimal comma) with localedef
    locales
    # the recycle bin (freedesktop.org trash through GIO)
    libglib2.0-dev
    # Unicode case mapping and UTF conversions
    libicu-dev
    # SVG files (diagnostics, book previews) are checked by rendering them with rsvg-convert;
    # their text needs a font
    librsvg2-bin fonts-dejavu-core
    # the book previews' index page is checked by a screenshot in headless Chromium
    chromium
    # OpenGL headless through EGL on Mesa (llvmpipe)
    libegl-dev libgl-dev libegl-mesa0 libgl1-mesa-dri libepoxy-dev libglu1-mesa-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
    status=$(dpkg-query -W -f='${db:Status-Status}' "$p" 2>/dev/null || true)
    [ "$status" = "installed" ] || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
