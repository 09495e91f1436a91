#!/usr/bin/env bash
# Sets everything up, builds the release preset and runs the main job: the qor tool on generated data.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release
QOR=build/release/qor
"$QOR" --version
"$QOR" help
"$QOR" export --help
"$QOR" jobs --width 64 --depth 8
SAMPLES=$(mktemp -d)
trap 'rm -rf "$SAMPLES"' EXIT
"$QOR" tiles --width 3000 --height 2000 --tile 256 --save "$SAMPLES/generated.jpg"
"$QOR" pipeline --size 8000x8000 --scale 0.25 --check
"$QOR" pipeline --size 6000x4000 --scale 0.5 --save "$SAMPLES/scaled.tif"
"$QOR" pipeline --size 3000x2000 --scale 1 --save "$SAMPLES/generated.exr"
# Bad arguments must give exit status 2.
for bad in "--size 8000 --scale 0.25" "--size 8000x8000 --scale 0" "--size 8000x8000" \
    "--size 8000x8000 --scale 0.5 --cache-mb 1" "--size 0x10 --scale 1" "--scale 0.5 --frob" \
    "--size 10x10 --scale 1 --save out.png"; do
    status=0
    # shellcheck disable=SC2086
    "$QOR" pipeline $bad 2>/dev/null || status=$?
    [ "$status" -eq 2 ] || { echo "qor pipeline $bad: exit status $status, not 2" >&2; exit 1; }
done
# Sample photos: pictures from our encoder, metadata written by the exiv2 tool (camera, time, GPS,
# orientation, IPTC keyword and place, description), and an EXIF thumbnail in the first one.
"$QOR" tiles --width 1600 --height 1200 --tile 256 --save "$SAMPLES/harbour.jpg" >/dev/null
"$QOR" tiles --width 1200 --height 1600 --tile 256 --save "$SAMPLES/tower.jpg" >/dev/null
exiv2 -M"set Exif.Image.Make Canon" -M"set Exif.Image.Model Canon EOS R6" \
    -M"set Exif.Photo.DateTimeOriginal 2024:05:01 07:12:30" -M"set Exif.Image.Orientation 1" \
    -M"set Exif.Photo.FNumber 28/10" -M"set Exif.Photo.ExposureTime 1/250" \
    -M"set Exif.GPSInfo.GPSLatitude 53/1 32/1 45/1" -M"set Exif.GPSInfo.GPSLatitudeRef N" \
    -M"set Exif.GPSInfo.GPSLongitude 9/1 58/1 12/1" -M"set Exif.GPSInfo.GPSLongitudeRef E" \
    -M"set Iptc.Application2.Keywords harbour" -M"set Iptc.Application2.City Hamburg" \
    -M"set Xmp.dc.description lang=x-default Boats at dawn" "$SAMPLES/harbour.jpg"
exiv2 -M"set Exif.Image.Make NIKON CORPORATION" -M"set Exif.Image.Model NIKON Z 6" \
    -M"set Exif.Photo.DateTimeOriginal 2023:10:14 16:40:02" -M"set Exif.Image.Orientation 6" \
    -M"set Exif.GPSInfo.GPSLatitude 33/1 51/1 54/1" -M"set Exif.GPSInfo.GPSLatitudeRef S" \
    -M"set Exif.GPSInfo.GPSLongitude 151/1 12/1 36/1" -M"set Exif.GPSInfo.GPSLongitudeRef E" \
    -M"set Iptc.Application2.Keywords tower" -M"set Exif.Image.ImageDescription Tower at dusk" \
    "$SAMPLES/tower.jpg"
"$QOR" thumb "$SAMPLES/harbour.jpg" --size 160x160 -o "$SAMPLES/harbour-thumb.jpg"
exiv2 -it "$SAMPLES/harbour.jpg"  # inserts harbour-thumb.jpg as the EXIF thumbnail
"$QOR" info "$SAMPLES/harbour.jpg" "$SAMPLES/tower.jpg"
"$QOR" info --json "$SAMPLES/harbour.jpg" "$SAMPLES/tower.jpg" "$SAMPLES/generated.jpg"
"$QOR" thumb "$SAMPLES/harbour.jpg" --size 120x120 -o "$SAMPLES/harbour-small.jpg"
"$QOR" thumb "$SAMPLES/tower.jpg" --size 256x256 -o "$SAMPLES/tower.bmp"
"$QOR" thumb "$SAMPLES/generated.jpg" --size 320x200 -o "$SAMPLES/thumb.jpg"
# Pictures are known by their content: TIFF, OpenEXR and a JPEG without an extension.
cp "$SAMPLES/tower.jpg" "$SAMPLES/tower-without-extension"
"$QOR" info "$SAMPLES/scaled.tif" "$SAMPLES/generated.exr" "$SAMPLES/tower-without-extension"
"$QOR" thumb "$SAMPLES/generated.exr" --size 200x200 -o "$SAMPLES/exr-thumb.jpg"
# Export: the generated JPEG at half size to TIFF and OpenEXR, the turned tower upright into a box
# in Adobe RGB; bad arguments give exit status 2, an unreadable input 1.
"$QOR" export "$SAMPLES/generated.jpg" -o "$SAMPLES/half.tif" --scale 0.5
"$QOR" export "$SAMPLES/generated.jpg" -o "$SAMPLES/half.exr" --scale 0.5
"$QOR" export "$SAMPLES/tower.jpg" -o "$SAMPLES/tower-upright.jpg" --size 800x800 --quality 85 \
    --profile adobergb
# The library's log: on standard error with -v, in a file with --log, and nowhere without them.
"$QOR" -v export "$SAMPLES/generated.jpg" -o "$SAMPLES/quarter.jpg" --scale 0.25
"$QOR" export "$SAMPLES/generated.jpg" -o "$SAMPLES/quarter.jpg" --scale 0.25 -vv \
    --log "$SAMPLES/qor.log" 2>/dev/null
echo "qor.log: $(wc -l <"$SAMPLES/qor.log") lines of the library's log"
quiet=$("$QOR" export "$SAMPLES/generated.jpg" -o "$SAMPLES/quarter.jpg" --scale 0.25 2>&1)
[ -z "$quiet" ] || { echo "qor export without -v printed: $quiet" >&2; exit 1; }
for bad in "-o $SAMPLES/x.png" "--scale 0" "--size 10 -o $SAMPLES/x.jpg" "--quality 101" \
    "--profile cmyk" "--size 10x10 --scale 0.5 -o $SAMPLES/x.jpg"; do
    status=0
    # shellcheck disable=SC2086
    "$QOR" export "$SAMPLES/generated.jpg" $bad 2>/dev/null || status=$?
    [ "$status" -eq 2 ] || { echo "qor export $bad: exit status $status, not 2" >&2; exit 1; }
done
status=0
"$QOR" export "$SAMPLES/none.jpg" -o "$SAMPLES/x.jpg" 2>/dev/null || status=$?
[ "$status" -eq 1 ] || { echo "qor export of a missing file: exit status $status, not 1" >&2; exit 1; }
"$QOR" gpuinfo || echo "qor gpuinfo failed; the main job goes on without GL" >&2
"$QOR" checksum "$SAMPLES/harbour.jpg" "$SAMPLES/tower.jpg" "$SAMPLES/generated.jpg"
# A bad file among good ones: one line on standard error, the others still done, exit status 1.
head -c $(($(stat -c %s "$SAMPLES/tower.jpg") / 2)) "$SAMPLES/tower.jpg" >"$SAMPLES/truncated.jpg"
status=0
"$QOR" info --verify "$SAMPLES/truncated.jpg" "$SAMPLES/harbour.jpg" >/dev/null || status=$?
[ "$status" -eq 1 ] || { echo "qor info --verify on a truncated file: exit status $status, not 1" >&2; exit 1; }
# The metadata cache: every picture of the samples cached, fields read back from it (text fields
# from the files), every record checked against its file; a picture changed since is reported
# (exit status 1) and read again by the next get.
"$QOR" cache build "$SAMPLES" --cache "$SAMPLES/cache"
# The thumbnail cache: built twice (the second time every thumbnail comes from the cache), one
# answered from it, and a contact sheet of the samples. A sample that cannot be read is named on
# one line and makes the exit status 1.
status=0
"$QOR" thumbs build "$SAMPLES" --cache "$SAMPLES/cache" || status=$?
[ "$status" -le 1 ] || { echo "qor thumbs build: exit status $status" >&2; exit 1; }
status=0
"$QOR" thumbs build "$SAMPLES" --cache "$SAMPLES/cache" || status=$?
[ "$status" -le 1 ] || { echo "qor thumbs build: exit status $status" >&2; exit 1; }
"$QOR" thumb "$SAMPLES/harbour.jpg" --cache "$SAMPLES/cache" -o "$SAMPLES/harbour-cached.jpg"
status=0
"$QOR" thumbs contact "$SAMPLES" -o "$SAMPLES/contact-sheet.jpg" --size 160 || status=$?
[ "$status" -le 1 ] || { echo "qor thumbs contact: exit status $status" >&2; exit 1; }
"$QOR" cache get "$SAMPLES/harbour.jpg" "$SAMPLES/tower.jpg" --cache "$SAMPLES/cache" \
    --field FNumber --field OriginalTime --field GPSCoordinates --field Orientation --field MakeString
"$QOR" cache get --json "$SAMPLES/harbour.jpg" --cache "$SAMPLES/cache"
"$QOR" cache check --cache "$SAMPLES/cache"
exiv2 -M"set Exif.Photo.FNumber 56/10" "$SAMPLES/tower.jpg"
status=0
"$QOR" cache check --cache "$SAMPLES/cache" || status=$?
[ "$status" -eq 1 ] || { echo "qor cache check after a change: exit status $status, not 1" >&2; exit 1; }
"$QOR" cache get "$SAMPLES/tower.jpg" --cache "$SAMPLES/cache" --field FNumber
"$QOR" cache check --cache "$SAMPLES/cache"
# A library session: an event filled from the samples, a collection of one of its pictures, the
# pictures rated 4 (the tower, through the metadata cache), a move between events, a rename, and an
# event erased to a recycle bin of the samples' own (XDG_DATA_HOME), not the user's.
LIB="$SAMPLES/Photos"
export XDG_DATA_HOME="$SAMPLES/xdg"
exiv2 -M"set Xmp.xmp.Rating 4" "$SAMPLES/tower.jpg"
"$QOR" library init --library "$LIB"
"$QOR" bag create event Harbour --library "$LIB"
"$QOR" bag create event Trip --library "$LIB"
"$QOR" bag create collection Favourites --library "$LIB"
"$QOR" bag add Harbour "$SAMPLES/harbour.jpg" "$SAMPLES/tower.jpg" --library "$LIB"
"$QOR" bag add Favourites "$LIB/Harbour/tower.jpg" --library "$LIB"
"$QOR" stars 4 --library "$LIB"
"$QOR" bag move Trip "$LIB/Harbour/harbour.jpg" --library "$LIB"
"$QOR" bag rename Harbour Towers --library "$LIB"
"$QOR" ls --library "$LIB"
"$QOR" ls Favourites --json --library "$LIB"
"$QOR" bag erase Trip --library "$LIB"
"$QOR" ls --library "$LIB"
status=0
"$QOR" bag create collection FAVOURITES --library "$LIB" || status=$?
[ "$status" -eq 1 ] || { echo "qor bag create of a taken collection name: exit status $status, not 1" >&2; exit 1; }
# An import of a camera card: JPEGs of three days, raw files beside two of them (one name, the raw
# extension), a duplicate of a picture that the library holds already, and a file of no picture
# type. The pictures go into one event per capture day, each raw file into the event's "originals"
# as the original of its JPEG; the duplicate is skipped (no terminal to ask on) and listed.
CARD="$SAMPLES/card/DCIM/100CANON"
mkdir -p "$CARD"
for i in 1 2 3 4 5 6; do
    day=$(( (i + 1) / 2 ))
    cp "$SAMPLES/harbour.jpg" "$CARD/IMG_000$i.JPG"
    exiv2 -M"set Exif.Photo.DateTimeOriginal 2024:06:0$day 1$i:00:00" \
        -M"set Exif.Photo.ImageUniqueID card-shot-$i" "$CARD/IMG_000$i.JPG"
done
for i in 2 5; do
    cp "$CARD/IMG_000$i.JPG" "$CARD/IMG_000$i.CR2"
    exiv2 -M"set Exif.Photo.ImageUniqueID card-raw-$i" "$CARD/IMG_000$i.CR2"
done
cp "$LIB/Towers/tower.jpg" "$CARD/IMG_0007.JPG"  # in the library already
echo "shot list" >"$SAMPLES/card/DCIM/notes.txt"
"$QOR" import "$SAMPLES/card" --library "$LIB"
"$QOR" ls --library "$LIB"
"$QOR" ls 2024-06-01 --library "$LIB"
# The same card again, duplicates skipped: nothing more comes in.
"$QOR" import "$SAMPLES/card" --duplicates skip --json --library "$LIB"
status=0
mkdir -p "$SAMPLES/empty-card"
"$QOR" import "$SAMPLES/empty-card" --library "$LIB" || status=$?
[ "$status" -eq 1 ] || { echo "qor import of an empty folder: exit status $status, not 1" >&2; exit 1; }
# A photo book: the template samples/book.layout filled with the pictures of a collection (the
# tower and the card's JPEGs), shown, and rendered to one SVG per double page with an index.html.
# A template that is no book layout is refused with exit status 1.
"$QOR" bag add Favourites "$LIB"/2024/2024-06-0*/IMG_000[1-6].JPG --library "$LIB"
"$QOR" book new "Harbour book" --layout samples/book.layout --from Favourites --library "$LIB"
"$QOR" book show "Harbour book" --library "$LIB"
"$QOR" book show "Harbour book" --json --library "$LIB" >"$SAMPLES/book.json"
"$QOR" book render "Harbour book" -o "$SAMPLES/book" --library "$LIB"
ls "$SAMPLES/book"
status=0
"$QOR" book new Broken --layout "$SAMPLES/card/DCIM/notes.txt" --library "$LIB" || status=$?
[ "$status" -eq 1 ] || { echo "qor book new with a bad template: exit status $status, not 1" >&2; exit 1; }
