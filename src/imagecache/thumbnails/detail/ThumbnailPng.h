#pragma once
// The PNG form of thumbnails with transparency: 8-bit RGBA written into memory by libpng.
//
// Thread contract: each call has its own libpng object; calls run on any threads at once.

#include <string>

#include "imageio/ImageScaling.h"

namespace qor::imagecache::detail {

// `image` as a PNG of 8-bit RGBA, appended to *out. Returns false with libpng's message in
// *failure when libpng fails (*out is then unspecified). Throws std::bad_alloc.
bool encodePngRGBA(const imageio::Image4ub& image, std::string* out, std::string* failure);

}  // namespace qor::imagecache::detail
