// libFuzzer target: the PNG decoder on a file in memory, with and without the metadata output.

#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "imageio/ImageIO.h"

using namespace qor;
using namespace qor::imageio;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    if (fuzz::pngPixels(data, size) > fuzz::MaxPixels) return 0;
    RandomAccessFileMemory file(data, size);
    ImagePtr image;
    SharedPtr<Metadata> metadata;
    loadPng(file, &image, size % 2 ? &metadata : nullptr);
    if (image) fuzz::touchPixels(*image);
    return 0;
}
