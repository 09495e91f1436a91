#!/usr/bin/env bash
# Writes a 12000 x 8000 JPEG at quality 90 with what photographs have, made by vips: smooth shading
# from cubic-upsampled noise and a grain of sigma 10 (about 50 MB, so that the entropy decoding
# weighs as in a photograph).
# Usage: bench/make_photo_jpeg.sh FOLDER  (writes FOLDER/photo.jpg)
set -euo pipefail
cd "$1"
for s in 1 2 3; do vips gaussnoise "c$s.v" 750 500 --sigma 50 --mean 128 --seed "$s"; done
vips bandjoin "c1.v c2.v c3.v" coarse.v
vips resize coarse.v smooth.v 16 --kernel cubic
vips gaussnoise grain.v 12000 8000 --sigma 10 --mean 0 --seed 4
vips add smooth.v grain.v sum.v
vips cast sum.v photo.v uchar
vips copy photo.v "photo.jpg[Q=90]"
rm -f c1.v c2.v c3.v coarse.v smooth.v grain.v sum.v photo.v
