// libFuzzer target: the JPEG decoder over memory, over a file, reduced, by region, and the whole
// load road of a ".jpg" file with its metadata and EXIF thumbnail. The input's length picks the
// road, so that every road sees every kind of input.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "FuzzSupport.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/JpegCodec.h"

using namespace qor;
using namespace qor::imageio;
using Vec2i = math::GenVec<int, 2>;

namespace {

const std::string& tempPath() {
    static const std::string path = "/tmp/qor-fuzz-jpeg-" + std::to_string(::getpid()) + ".jpg";
    return path;
}

void loadThroughTheRoad(const uint8_t* data, size_t size) {
    FILE* f = std::fopen(tempPath().c_str(), "wb");
    if (!f) return;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    ImagePtr image;
    SharedPtr<Metadata> metadata;
    loadImage(FastString<char>(tempPath()), Vec2i(48, 48), ImageQualityThumbnail, &image,
              &metadata);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::quietLog();
    if (fuzz::jpegPixels(data, size) > fuzz::MaxPixels) return 0;
    RandomAccessFileMemory file(data, size);
    ImagePtr image;
    switch (size % 4) {
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
        default:
            loadThroughTheRoad(data, size);
            break;
    }
    if (image) fuzz::touchPixels(*image);
    return 0;
}
