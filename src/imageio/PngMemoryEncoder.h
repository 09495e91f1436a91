#pragma once
// PNG bytes in memory from RGBA rows, by libpng: the form of transparent thumbnails and of the
// image log's dumps. (Files of the image pipeline go through the PNG codec and its saver.)
//
// Thread contract: each call has its own libpng object; calls run on any threads at once.

#include <string>

#include "imaging/RgbaRows.h"

namespace qor::imageio {

// `rows` as a PNG, appended to *out, deflated at zlib's `compressionLevel` (0 to 9). Returns false
// with the reason in *failure when the rows are no picture of 8 or 16 bits or libpng fails (*out
// is then unspecified). Throws std::bad_alloc.
bool encodePngRgba(const imaging::RgbaRows& rows, int compressionLevel, std::string* out,
                   std::string* failure);

}  // namespace qor::imageio
