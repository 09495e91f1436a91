#pragma once
// Reading the metadata of an image file (EXIF, IPTC, XMP) into a Metadata, through Exiv2.
//
// The result holds the raw map in the system's key notation ("exif:FNumber", "tiff:Make",
// "dc:title", "iptc:City"; see detail/Exiv2Keys.h) and the typed fields that a file read fills:
// Imagesize from the image header, thumbLocation (the byte offset of the EXIF thumbnail, a JPEG, in
// the file), the camera and exposure fields, FlashEnergy and GPSCoordinates (always set), the
// strings, and City, State and Country from the IPTC datasets 2:90, 2:95 and 2:101.
//
// None of these functions throws: a missing, empty, unknown, truncated or damaged file gives null
// and one log line at level 2 (info) that names the file and the reason, leaving the warning to the
// caller, who knows what the file was read for. Exiv2's own messages go to the log at levels 0
// and 1. They block on file reads and may run on any number of threads at once.

#include <cstdint>

#include "base/filesystem/RandomAccessFile.h"
#include "imageio/Metadata.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

// Reads the metadata of the image in `file`, any format Exiv2 knows (JPEG, TIFF and the raw formats
// built on it, PNG, WebP ...). Reads only the parts it needs, by position; the file's own position
// is left alone. The caller holds whatever lock the file needs.
SharedPtr<Metadata> readMetadata(RandomAccessFile& file);
// The same on the file at `path`, opened for reading; takes no lock.
SharedPtr<Metadata> readMetadata(const FastString<char>& path);
// The same on a file held in memory; thumbLocation is then an offset into the block.
SharedPtr<Metadata> readMetadata(const void* data, uint64_t byteCount);

}  // namespace qor::imageio
