// libFuzzer target: the JPEG decoder over memory, over a file, reduced, by region, the whole load
// road of a ".jpg" file with its metadata and EXIF thumbnail, the band reader of a JPEG file in
// bands from the top with one band read again, and the file source road, whose tiles come from
// that band reader. The input's length picks the road, so that every road sees every kind of
// input.

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/JpegBandReader.h"
#include "imageio/detail/JpegCodec.h"

using namespace qor;
using namespace qor::imageio;
using Vec2i = math::GenVec<int, 2>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    int width, height;
    fuzz::jpegSize(data, size, &width, &height);
    if (uint64_t(width) * uint64_t(height) > fuzz::MaxPixels) return 0;
    RandomAccessFileMemory file(data, size);
    ImagePtr image;
    switch (size % 6) {
        case 0:
            loadJpeg(data, size, Vec2i(0, 0), ImageQualityFast, &image);
            break;
        case 1: {
            const Vec2i request(int(size % 97) + 1, int(size % 89) + 1);
            image = imageio::detail::decodeJpeg(file, request, ImageQualityBest, math::Recti());
            break;
        }
        case 2: {
            const math::Recti roi(int(size % 13), int(size % 11), int(size % 17) + 1,
                                  int(size % 19) + 1);
            image = imageio::detail::decodeJpeg(file, Vec2i(0, 0), ImageQualityBest, roi);
            break;
        }
        case 3: {
            const std::string path = fuzz::writeTempFile("jpeg", ".jpg", data, size);
            if (path.empty()) break;
            SharedPtr<Metadata> metadata;
            loadImage(FastString<char>(path), Vec2i(48, 48), ImageQualityThumbnail, &image,
                      &metadata);
            break;
        }
        case 4: {
            const std::string path = fuzz::writeTempFile("jpeg", ".jpg", data, size);
            if (path.empty()) break;
            imageio::detail::JpegBandReader reader(
                path, size / 6 % 2 ? ImageQualityBest : ImageQualityFast);
            fuzz::readBands(height, int(size / 12 % 23) + 1,
                            [&](int top, int lines) { return reader.read(top, lines); });
            break;
        }
        default: {
            const std::string path = fuzz::writeTempFile("jpeg", ".jpg", data, size);
            if (!path.empty())
                fuzz::readSourceTiles(path, size / 6 % 2 != 0, int(size / 12 % 48) + 16, 8);
            break;
        }
    }
    if (image) fuzz::touchPixels(*image);
    return 0;
}
