#!/usr/bin/env bash
# Writes COUNT camera-like JPEGs, img001.jpg ..., into FOLDER: one picture drawn by `qor tiles
# --save`, copied, and given what a camera writes by `exiv2 -M` (about 50 EXIF and GPS tags, a
# Canon maker note with its setting, shot and colour arrays; some 160 lines of `exiv2 -pa`), IPTC
# and XMP, and a 160 x 107 EXIF thumbnail by `exiv2 -it`. QOR_INFO_BENCH_PLAIN=1 leaves the maker
# note and most tags out (15 lines).
#
# Usage: bench/make_camera_jpegs.sh QOR FOLDER COUNT
set -euo pipefail
qor=$1
work=$2
count=$3
command -v exiv2 >/dev/null || { echo "make_camera_jpegs: 'exiv2' is missing (scripts/setup.sh installs it)" >&2; exit 1; }
cd "$work"
"$qor" tiles --width 2400 --height 1600 --save base.jpg >/dev/null
"$qor" thumb base.jpg --size 160x120 -o thumb.jpg >/dev/null
for i in $(seq -w 1 "$count"); do
    cp base.jpg "img$i.jpg"
    ln -s thumb.jpg "img$i-thumb.jpg"  # what exiv2 -it inserts
done
# What a camera writes, roughly: the usual EXIF tags, GPS, a Canon maker note with its setting and
# shot arrays (which both tools decode tag by tag), IPTC and XMP.
short_array() { python3 -c "print(' '.join(str(i * 7 % 23) for i in range($1)))"; }
camera=(
    -M"set Exif.Image.Make Canon" -M"set Exif.Image.Model Canon EOS Bench"
    -M"set Exif.Image.Orientation 1" -M"set Exif.Image.XResolution 72/1"
    -M"set Exif.Image.YResolution 72/1" -M"set Exif.Image.ResolutionUnit 2"
    -M"set Exif.Image.Software qor tiles" -M"set Exif.Image.DateTime 2026:11:24 10:20:30"
    -M"set Exif.Image.Artist Qor Bench" -M"set Exif.Image.Copyright none"
    -M"set Exif.Image.YCbCrPositioning 2"
    -M"set Exif.Photo.ExposureTime 1/250" -M"set Exif.Photo.FNumber 56/10"
    -M"set Exif.Photo.ExposureProgram 3" -M"set Exif.Photo.ISOSpeedRatings 200"
    -M"set Exif.Photo.DateTimeOriginal 2026:11:24 10:20:30"
    -M"set Exif.Photo.DateTimeDigitized 2026:11:24 10:20:30"
    -M"set Exif.Photo.ShutterSpeedValue 8/1" -M"set Exif.Photo.ApertureValue 5/1"
    -M"set Exif.Photo.ExposureBiasValue 0/1" -M"set Exif.Photo.MaxApertureValue 3/1"
    -M"set Exif.Photo.MeteringMode 5" -M"set Exif.Photo.Flash 16"
    -M"set Exif.Photo.FocalLength 35/1" -M"set Exif.Photo.SubSecTimeOriginal 42"
    -M"set Exif.Photo.ColorSpace 1" -M"set Exif.Photo.PixelXDimension 2400"
    -M"set Exif.Photo.PixelYDimension 1600" -M"set Exif.Photo.FocalPlaneXResolution 4000/1"
    -M"set Exif.Photo.FocalPlaneYResolution 4000/1" -M"set Exif.Photo.FocalPlaneResolutionUnit 2"
    -M"set Exif.Photo.CustomRendered 0" -M"set Exif.Photo.ExposureMode 0"
    -M"set Exif.Photo.WhiteBalance 0" -M"set Exif.Photo.SceneCaptureType 0"
    -M"set Exif.Photo.BodySerialNumber 123456789" -M"set Exif.Photo.LensModel EF35mm f/2"
    -M"set Exif.Photo.LensSerialNumber 0000c0ffee"
    -M"set Exif.GPSInfo.GPSVersionID 2 2 0 0"
    -M"set Exif.GPSInfo.GPSLatitudeRef N" -M"set Exif.GPSInfo.GPSLatitude 48/1 8/1 2/1"
    -M"set Exif.GPSInfo.GPSLongitudeRef E" -M"set Exif.GPSInfo.GPSLongitude 11/1 34/1 5/1"
    -M"set Exif.GPSInfo.GPSAltitudeRef 0" -M"set Exif.GPSInfo.GPSAltitude 519/1"
    -M"set Exif.GPSInfo.GPSTimeStamp 10/1 20/1 30/1" -M"set Exif.GPSInfo.GPSDateStamp 2026:11:24"
    -M"set Exif.Canon.ImageType Canon EOS JPEG" -M"set Exif.Canon.FirmwareVersion Firmware 1.0.0"
    -M"set Exif.Canon.OwnerName Qor" -M"set Exif.Canon.ModelID Long 2147484289"
    -M"set Exif.Canon.CameraSettings Short $(short_array 49)"
    -M"set Exif.Canon.ShotInfo Short $(short_array 34)"
    -M"set Exif.Canon.FocalLength Short 2 35 0 0"
    -M"set Exif.Canon.ColorData Short $(short_array 600)"
    -M"set Iptc.Application2.City Munich" -M"set Iptc.Application2.Keywords bench"
    -M"set Xmp.dc.title A bench picture" -M"set Xmp.xmp.Rating 3"
)
plain=(
    -M"set Exif.Image.Make Qor" -M"set Exif.Image.Model Bench 1"
    -M"set Exif.Photo.DateTimeOriginal 2026:11:24 10:20:30" -M"set Exif.Photo.ExposureTime 1/250"
    -M"set Exif.Photo.FNumber 56/10" -M"set Exif.Photo.ISOSpeedRatings 200"
    -M"set Exif.GPSInfo.GPSLatitudeRef N" -M"set Exif.GPSInfo.GPSLatitude 48/1 8/1 2/1"
    -M"set Iptc.Application2.City Munich" -M"set Xmp.dc.title A bench picture"
)
if [ "${QOR_INFO_BENCH_PLAIN:-0}" = 1 ]; then
    exiv2 "${plain[@]}" img*[0-9].jpg
else
    exiv2 "${camera[@]}" img*[0-9].jpg
fi
exiv2 -it img*[0-9].jpg
rm -f img*-thumb.jpg base.jpg thumb.jpg

