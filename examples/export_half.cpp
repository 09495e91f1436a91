// Writes a picture at half its size as a JPEG file.
//   example_export_half IN OUT.jpg
#include <cstdio>
#include <exception>

#include "base/Log.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageIOImageSource.h"
#include "imageio/ImageSaver.h"
#include "imaging/Image.h"
#include "imaging/TileCache.h"

int main(int argc, char** argv) {
    using namespace qor;
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s IN OUT.jpg\n", argv[0]);
        return 2;
    }
    qor::setLogLevel(qor::LogWarning);  // the library's own log: warnings and errors only
    imaging::TileCache::enable();
    // Nothing is decoded yet: the image is a graph of sources that computes tiles on demand.
    // Where the file allows it (a JPEG), the decoder itself does the halving.
    SharedPtr<imaging::Image> half =
        imageio::ImageIOImageSource::createScaled(argv[1], {}, 0.5);
    if (!half) {
        std::fprintf(stderr, "cannot read %s\n", argv[1]);
        return 1;
    }
    imageio::ImageSaverJPEG jpeg;
    jpeg.setCompression(90);
    imageio::ImageSaver saver(half, &jpeg);
    try {
        // Rows of tiles are computed on the job system and written as they arrive.
        saver.save(argv[2], imaging::PfRGB8);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "saving %s failed: %s\n", argv[2], e.what());
        return 1;
    }
    std::printf("%s: %d x %d\n", argv[2], half->width(), half->height());
    return 0;
}
