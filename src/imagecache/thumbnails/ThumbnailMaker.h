#pragma once
// Making thumbnails and previews of picture files, the last link of the image cache chain: what
// the caches in front of it keep is what this makes.
//
// makeThumbnail gives the picture upright (its EXIF orientation applied), in sRGB (an embedded
// colour profile converted), 8-bit RGBA, fitted inside maxSide by maxSide keeping its proportions
// and never enlarged. It takes the fastest way that still gives at least the size asked:
// - a JPEG's EXIF thumbnail when it is at least as large as the result wants;
// - otherwise the JPEG decoded with libjpeg's reduction on load (scale_denom 1 to 8), then
//   resampled to the exact size;
// - a camera raw file's embedded preview (LibRaw), decoded at full size only when it has none;
// - a video's frame (FFmpeg), fitted the same way;
// - every other format through the decoder registry.
//
// Bad input. A file that cannot be read, a corrupt or truncated one, a zero-byte file, a broken
// EXIF thumbnail (the picture itself is decoded then), and a picture whose header claims more
// than kMaxPixels pixels (a decompression bomb: refused before any pixel is allocated) give a null
// image and one log line naming the file and the reason ("makeThumbnail: no thumbnail of '%*':
// %*", at warning level), the same text in `error` when it is given. A broken EXIF thumbnail
// logs one warning naming the file and gives the picture. Never throws, except std::bad_alloc.
//
// Thread contract: re-entrant; any number of threads at once. Blocks on the file; takes the
// file's shared path lock while it reads.

#include <cstdint>
#include <string>

#include "imageio/ImageIO.h"

namespace qor::imagecache {

// The size classes of the caches: the longest side of the result.
constexpr int kGridThumbnailSide = 256;
constexpr int kScreenPreviewSide = 2048;
// Pictures above this many pixels (width times height, as the header claims) are refused.
constexpr uint64_t kMaxPixels = 1ull << 30;

imageio::ImagePtr makeThumbnail(const std::string& path, int maxSide, std::string* error = nullptr);

// The stored form of a thumbnail: JPEG for an opaque one, PNG when it has transparency. Empty when
// encoding fails (logged).
std::string encodeThumbnail(const imageio::Image4ub& image);
// Decodes what encodeThumbnail made; null (logged) when the bytes are not such a thumbnail.
imageio::ImagePtr decodeThumbnail(const std::string& bytes);

}  // namespace qor::imagecache
