#pragma once
// The EXIF thumbnail of a JPEG file: a JPEG of its own inside the file, at the byte offset that
// the metadata read records as thumbLocation.

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/JpegCodec.h"

namespace qor::imageio::detail {

// The JPEG at `location` in `file` (through the end of the file), decoded as decodeJpeg does;
// null when the location lies outside the file or what lies there does not decode. With `report`
// a decode failure is put there instead of the log, and a thumbnail whose data broke off gives
// null too. Throws std::bad_alloc when the pixels cannot be allocated; nothing else.
ImagePtr decodeExifThumbnail(RandomAccessFile& file, long location, math::GenVec<int, 2> size,
                             ImageQuality quality, JpegDecodeReport* report = nullptr);

}  // namespace qor::imageio::detail
