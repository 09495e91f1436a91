#!/usr/bin/env bash
# Writes COUNT camera-like JPEGs of 5 to 10 MB into FOLDER (IMG_0001.JPG ...), and beside every
# tenth one a raw-named partner of the same shot (IMG_0010.CR2: JPEG content, so that every reader
# takes it, under a raw camera extension, so that an import files it as a raw original).
#
# Three photo-like pictures (smooth shading and grain, made by vips, 4000 x 3000 to 5400 x 3600)
# get what a camera writes by `exiv2 -M` (make, model, exposure, capture times, GPS, a serial and an
# image id) and a 160 x 120 EXIF thumbnail by `exiv2 -it`. Each file is a copy of one of them with
# its image id and capture day patched in place (same length), so no two files share an item
# checksum (the MD5 of the first 20480 bytes, which hold the EXIF block) and the shots fall on five
# days, as a few days of a trip do.
#
# Usage: bench/make_import_photos.sh FOLDER COUNT
set -euo pipefail
work=$1
count=$2
for tool in vips exiv2 python3; do
    command -v "$tool" >/dev/null ||
        { echo "make_import_photos: '$tool' is missing (scripts/setup.sh installs it)" >&2; exit 1; }
done
mkdir -p "$work"
tmp=$(mktemp -d "$work/.make.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
cd "$tmp"

# One photo-like picture: base$1.jpg of $2 x $3 pixels, grain sigma $4.
photo() {
    local n=$1 w=$2 h=$3 sigma=$4
    for s in 1 2 3; do
        vips gaussnoise "c$s.v" $((w / 16 + 1)) $((h / 16 + 1)) --sigma 50 --mean 128 --seed $((n * 10 + s))
    done
    vips bandjoin "c1.v c2.v c3.v" coarse.v
    vips resize coarse.v smooth.v 16 --kernel cubic
    vips extract_area smooth.v area.v 0 0 "$w" "$h"
    vips gaussnoise grain.v "$w" "$h" --sigma "$sigma" --mean 0 --seed $((n * 10 + 4))
    vips add area.v grain.v sum.v
    vips cast sum.v pixels.v uchar
    vips copy pixels.v "base$n.jpg[Q=90]"
    vips thumbnail "base$n.jpg" "base$n-thumb.jpg[Q=80]" 160 --height 120
    rm -f ./*.v
}
photo 1 4000 3000 7
photo 2 4800 3200 8
photo 3 5400 3600 8

# The placeholders that every copy patches: the image id (32 hex digits) and the capture day.
exiv2 -M"set Exif.Image.Make Canon" -M"set Exif.Image.Model Canon EOS Bench" \
    -M"set Exif.Image.Orientation 1" -M"set Exif.Image.Software Firmware 1.0.0" \
    -M"set Exif.Image.DateTime 2026:07:01 10:20:30" -M"set Exif.Image.Artist Qor Bench" \
    -M"set Exif.Photo.ExposureTime 1/250" -M"set Exif.Photo.FNumber 56/10" \
    -M"set Exif.Photo.ISOSpeedRatings 200" -M"set Exif.Photo.DateTimeOriginal 2026:07:01 10:20:30" \
    -M"set Exif.Photo.DateTimeDigitized 2026:07:01 10:20:30" -M"set Exif.Photo.FocalLength 35/1" \
    -M"set Exif.Photo.Flash 16" -M"set Exif.Photo.BodySerialNumber 123456789" \
    -M"set Exif.Photo.LensModel EF35mm f/2" \
    -M"set Exif.Photo.ImageUniqueID 00000000000000000000000000000000" \
    -M"set Exif.GPSInfo.GPSLatitudeRef N" -M"set Exif.GPSInfo.GPSLatitude 48/1 8/1 2/1" \
    -M"set Exif.GPSInfo.GPSLongitudeRef E" -M"set Exif.GPSInfo.GPSLongitude 11/1 34/1 5/1" \
    base1.jpg base2.jpg base3.jpg
exiv2 -it base1.jpg base2.jpg base3.jpg  # reads baseN-thumb.jpg

python3 - "$work" "$count" <<'PY'
import os, sys
work, count = sys.argv[1], int(sys.argv[2])
bases = [open(f"base{n}.jpg", "rb").read() for n in (1, 2, 3)]
uid, day = b"0" * 32, b"2026:07:01"
for base in bases:
    assert base.count(uid) == 1 and base.count(day) >= 3, "the placeholders are missing"
def write(path, base, ident, shot_day):
    data = base.replace(uid, ident).replace(day, shot_day)
    with open(path + ".part", "wb") as out:
        out.write(data)
    os.rename(path + ".part", path)
for i in range(1, count + 1):
    base = bases[i % 3]
    shot_day = b"2026:07:%02d" % (1 + (i - 1) * 5 // count)
    write(os.path.join(work, "IMG_%04d.JPG" % i), base, b"%032x" % i, shot_day)
    if i % 10 == 0:
        write(os.path.join(work, "IMG_%04d.CR2" % i), base, b"%032x" % (1 << 64 | i), shot_day)
PY
