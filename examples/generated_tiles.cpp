// Computes the tiles of a generated image scaled to a third through the tile pipeline, and
// prints the mean of each tile of the result.
//   example_generated_tiles
#include <cstdio>

#include "base/Log.h"
#include "imaging/GenImageData.h"
#include "imaging/Image.h"
#include "imaging/ImageTile.h"
#include "imaging/ScaledImageSource.h"
#include "imaging/TileCache.h"
#include "imaging/TilingImageSource.h"

int main() {
    using namespace qor;
    using namespace qor::imaging;
    qor::setLogLevel(qor::LogWarning);  // the library's own log: warnings and errors only
    // A 3000 x 2000 gradient, held in tiles of the preferred GPU size.
    auto pixels = GenImageData<unsigned char, 4>::create(3000, 2000);
    for (int y = 0; y < pixels->height(); ++y)
        for (int x = 0; x < pixels->width(); ++x) {
            pixels->at(x, y, 0) = (unsigned char)(x * 255 / 2999);
            pixels->at(x, y, 1) = (unsigned char)(y * 255 / 1999);
            pixels->at(x, y, 2) = 128;
            pixels->at(x, y, 3) = 255;
        }
    TileCache::enable();
    SharedPtr<Image> gradient = Image::create(TilingImageSource::createRGBA(pixels));
    // A derived source: nothing is computed until tiles are asked for.
    SharedPtr<Image> third = Image::create(ScaledImageSource::create(gradient, 1.0 / 3));
    Image::TileSet all;
    for (int y = 0; y < third->tileRows(); ++y)
        for (int x = 0; x < third->tileColumns(); ++x) all.emplace(x, y);
    // Blocks until every tile is there; the jobs run on the worker threads.
    Image::TileArray tiles = third->getTiles(all, false, nullptr, {});
    for (const auto& index : all) {
        const SharedPtr<const ImageTile>& tile = tiles(index.x, index.y);
        auto data = tile->getDataRGBA8();
        double sum[3] = {0, 0, 0};
        for (int y = 0; y < tile->height(); ++y)
            for (int x = 0; x < tile->width(); ++x)
                for (int c = 0; c < 3; ++c) sum[c] += data->at(x, y, c);
        const double n = double(tile->width()) * tile->height();
        std::printf("tile (%d, %d) %d x %d: mean %.1f %.1f %.1f\n", index.x, index.y,
                    tile->width(), tile->height(), sum[0] / n, sum[1] / n, sum[2] / n);
    }
    return 0;
}
