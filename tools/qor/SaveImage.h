#pragma once
// Saving an image from the tool: the file format follows the extension, the work runs through
// ImageSaver with a progress bar on standard error, and Ctrl-C cancels it cleanly.

#include <string>

#include "imaging/ColorProfile.h"
#include "imaging/Image.h"
#include "util/SharedPtr.h"

namespace qor::tool {

struct SaveOptions {
    const char* command = "save";  // names the subcommand in messages
    int quality = 90;              // JPEG
    SharedPtr<imaging::ColorProfile> profile;  // embedded in JPEG and TIFF; ignored by OpenEXR
};

// True when `path` ends in an extension saveImage writes: .jpg/.jpeg, .tif/.tiff, .exr, any case.
bool savableExtension(const std::string& path);

// Writes `image` to `path`: JPEG (8-bit RGB), TIFF (RGB, LZW; 8-bit for 8-bit images, else 16-bit)
// or OpenEXR (half RGBA). The calling thread draws the progress bar (when standard error is a
// terminal) while a second thread saves. Returns the exit status: 0 saved, 130 interrupted by Ctrl-C (nothing is left at `path`),
// 1 failed (one line on standard error).
int saveImage(const SharedPtr<imaging::Image>& image, const std::string& path,
              const SaveOptions& options);

}  // namespace qor::tool
