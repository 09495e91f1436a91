// libFuzzer target: the PNG decoder on a file in memory, with and without the metadata output;
// the band reader of a PNG file, at 8 and at 16 bits, in bands from the top with one band read
// again; and the file source road, whose tiles come from that band reader. The input's length
// picks the road, so that every road sees every kind of input.

#include <cstdint>
#include <cstdlib>

#include "FuzzSupport.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/PngBandReader.h"

using namespace qor;
using namespace qor::imageio;

namespace {

// Bands of the file at 8 bits, then with a fresh reader one 8-bit band and the file at 16 bits
// (the other sample size starts the decoder over).
void readInBands(const std::string& path, int height, int band) {
    imageio::detail::PngBandReader eight(path);
    fuzz::readBands(height, band,
                    [&](int top, int lines) { return eight.read<unsigned char>(top, lines); });
    imageio::detail::PngBandReader sixteen(path, false);
    if (auto first = sixteen.read<unsigned char>(0, std::min(band, height)))
        fuzz::touchPixels(*first);
    fuzz::readBands(height, band,
                    [&](int top, int lines) { return sixteen.read<unsigned short>(top, lines); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    uint32_t width, height;
    fuzz::pngSize(data, size, &width, &height);
    if (uint64_t(width) * height > fuzz::MaxPixels) return 0;
    switch (size % 4) {
        case 0:
        case 1: {
            RandomAccessFileMemory file(data, size);
            ImagePtr image;
            SharedPtr<Metadata> metadata;
            loadPng(file, &image, size % 2 ? &metadata : nullptr);
            if (image) fuzz::touchPixels(*image);
            break;
        }
        case 2: {
            const std::string path = fuzz::writeTempFile("png", ".png", data, size);
            if (!path.empty())
                readInBands(path, int(std::min<uint64_t>(height, fuzz::MaxPixels)),
                            int(size / 4 % 23) + 1);
            break;
        }
        default: {
            const std::string path = fuzz::writeTempFile("png", ".png", data, size);
            if (!path.empty())
                fuzz::readSourceTiles(path, size / 4 % 2 != 0, int(size / 8 % 48) + 16, 8);
            break;
        }
    }
    return 0;
}
