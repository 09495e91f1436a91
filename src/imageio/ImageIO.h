#pragma once
// The direct file entry points of image input and output: loading any picture file into 8-bit
// RGBA (JPEG through libjpeg, PNG through libpng, the other formats through the decoder
// registry), writing JPEG and BMP, the checksum that identifies an item in the caches, and the
// classification of files by extension.
//
// Images are GenImageData<unsigned char, 4>: four interleaved channels in the order R, G, B, A,
// alpha 255 for every opaque source.
//
// Outputs. `image` and `metadata` are optional out-parameters: a null pointer means that the
// output is not wanted, and a pointer that already holds an object means that the output is
// already there and is not produced again.
//
// Failures. Load functions never throw: they leave their outputs empty and log one line that
// names the file. Save functions return false after one log line. Every function blocks on file
// work; all are re-entrant and may run on any number of threads at once. libjpeg and libpng objects
// are local to a call.
//
// Locks. loadImage and the path forms of saveJpeg and saveBmp take the FilesystemScopedLock of the
// path (shared to read, exclusive to write), so that a file is not read while this process writes
// it. The ...Unlocked forms take none, for callers that already hold it; a caller that holds the
// lock must not call the locking forms.

#include <cstdint>

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/ImageQuality.h"
#include "imageio/ImageScaling.h"
#include "imageio/ItemType.h"
#include "imageio/Metadata.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/Digest.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

using ImagePtr = SharedPtr<Image4ub>;
using ConstImagePtr = SharedPtr<const Image4ub>;

// ---- loading ----

// Loads the picture at `path`, chosen by its extension: ".jpg" and ".jpeg" through libjpeg, ".png"
// through libpng, ".tif" and ".tiff" not at all ("Unknown file type: '%*'", both outputs untouched:
// TIFF pixels come through ImageLoader and the decoder registry), anything else through the
// decoder registry, which goes by the file's content (a JPEG without an extension loads there; see
// DecoderRegistry.h for what its decoders give).
//
// `size` (0, 0) gives the picture at full size; any other size gives it reduced to fit inside
// `size`, keeping its proportions; it is never enlarged. A non-empty `roi` (x0 < x1 and y0 < y1)
// gives only that rectangle of the full-size picture, clipped to the picture. With
// ImageQualityThumbnail a JPEG's EXIF thumbnail is taken when `metadata` is wanted in the same call
// (it is what tells where the thumbnail lies) and the thumbnail decodes; a corrupted thumbnail
// logs "loadJpeg: corrupted thumbnail in '%*'", gets thumbLocation 0 and the picture itself is
// decoded instead. The metadata of a JPEG is its EXIF, IPTC and XMP with Imagesize from the JPEG
// header; that of a PNG is Imagesize only.
//
// A truncated JPEG gives a picture of full size whose missing part is what libjpeg makes of a
// premature end. Never throws.
void loadImage(const FastString<char>& path, math::GenVec<int, 2> size, ImageQuality quality,
               ImagePtr* image, SharedPtr<Metadata>* metadata, const math::Recti& roi = {});
// The same without taking the path lock, for callers that hold it.
void loadImageUnlocked(const FastString<char>& path, math::GenVec<int, 2> size,
                       ImageQuality quality, ImagePtr* image, SharedPtr<Metadata>* metadata,
                       const math::Recti& roi = {});
// loadImage(path, (0, 0), ImageQualityBest, image, null, roi).
void loadROI(const FastString<char>& path, ImagePtr* image, const math::Recti& roi);

// Decodes the JPEG in `file` (read from its start) or in memory into *image, replacing what it
// held; reduced to fit inside `size` unless that is (0, 0). Returns whether an image came out; a
// failure leaves *image null and logs. The file forms read by position and leave the file's own
// position alone. Never throws.
bool loadJpeg(RandomAccessFile& file, math::GenVec<int, 2> size, ImageQuality quality,
              ImagePtr* image);
bool loadJpeg(const void* data, uint64_t byteCount, math::GenVec<int, 2> size, ImageQuality quality,
              ImagePtr* image);

// Decodes the PNG at `path`: every colour type and depth comes out as 8-bit RGBA (palettes and
// grey expanded, 16 bits stripped, tRNS turned into alpha, interlacing undone). `metadata`, when
// wanted and empty, gets a Metadata with Imagesize only. Takes no lock. Returns false, with one
// log line, when the file is not a PNG or cannot be read; the outputs are then untouched.
bool loadPng(const FastString<char>& path, ImagePtr* image, SharedPtr<Metadata>* metadata);
// The same on an open file, read from its start by position.
bool loadPng(RandomAccessFile& file, ImagePtr* image, SharedPtr<Metadata>* metadata);

// ---- saving ----

// Encodes `image` as a baseline JPEG of `quality` (0 to 100, asserted "0 <= quality && quality <=
// 100"), RGB with alpha dropped, floating point DCT. The path forms create or truncate the file
// (logging "saveJpeg: failed to create file: %*" when they cannot) and remove it again when the
// encoding fails; the file form writes from the file's current position and leaves the position
// behind the data. A file form on a FileRegion cannot grow the region: a picture that does not fit
// fails with "libjpeg: File too small for saving jpeg". Return false on any failure.
bool saveJpeg(const FastString<char>& path, ConstImagePtr image, int quality);
bool saveJpegUnlocked(const FastString<char>& path, ConstImagePtr image, int quality);
bool saveJpeg(RandomAccessFile& file, ConstImagePtr image, int quality);
// Into the `byteCount` bytes at `buffer`; a JPEG that does not fit fails with "libjpeg: File too
// small for saving jpeg". The length of the JPEG goes to *bytesWritten when that is not null.
bool saveJpeg(void* buffer, uint64_t byteCount, ConstImagePtr image, int quality,
              uint64_t* bytesWritten = nullptr);
// Row by row: `nextRow` hands out each row of `size.x` RGBA pixels, top to bottom, valid until the
// next call. An empty function or a null row stops the encoding, which is then still finished, and
// the function returns false. libjpeg's default DCT.
bool saveJpeg(const FastString<char>& path, const math::GenVec<int, 2>& size,
              const Function0<const unsigned char*>& nextRow, int quality);
bool saveJpegUnlocked(const FastString<char>& path, const math::GenVec<int, 2>& size,
                      const Function0<const unsigned char*>& nextRow, int quality);

// Writes `image` as a 32-bit BMP with bit fields: a header of 122 bytes whose signature is the
// bytes 0x4D 0x42 ("MB"), then the rows bottom row first, width x 4 bytes each, in the image's own
// channel order. Logs "saveBmp: failed to create file: %*" when the file cannot be created.
bool saveBmp(const FastString<char>& path, ConstImagePtr image);
bool saveBmpUnlocked(const FastString<char>& path, ConstImagePtr image);

// ---- identity ----

// The item checksum: MD5 over the first 20480 bytes of the file (all of it when smaller), read in
// blocks of 1024 bytes from offset 0. A file that cannot be read gives the null digest and a log
// line.
Digest imageChecksum(RandomAccessFile& file);
Digest imageChecksum(const FastString<char>& path);
// Copies `source` to `destination` (created or truncated, under its path lock) and returns the
// checksum of `source`, in one pass. On failure the partial copy is removed, the null digest
// returned and one line logged.
Digest imageChecksumCopy(const FastString<char>& source, const FastString<char>& destination);

// Number of leading bytes that imageChecksum covers.
constexpr uint64_t ImageChecksumLength = 20480;

// ---- classification ----

// Fills the process-wide extension lists (raw, image, video); later calls do nothing until
// destroySupportedItemsList empties them. Call before the first getItemType or
// hasSupportedExtension; the lists are read without a lock afterwards.
void initSupportedItemsList();
void destroySupportedItemsList();
// The kind of item by the path's extension, case-blind: raw list first, then image, then video.
ItemType getItemType(const FastString<char>& path);
// True only for an extension in the image list (.jpeg .jpg .png .tif .tiff .gif), case-blind.
bool hasSupportedExtension(const FastString<char>& path);

}  // namespace qor::imageio
