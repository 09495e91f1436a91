#include <gtest/gtest.h>

#include "base/Log.h"
#include "imaging/ImageTile.h"
#include "imaging/TileCache.h"
#include "imaging/TilingImageSource.h"

namespace qor::imaging {
namespace {

SharedPtr<GenImageData<unsigned char, 4>> pattern(int width, int height) {
    auto data = GenImageData<unsigned char, 4>::create(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            data->at(x, y, 0) = (unsigned char)(x * 7 + y);
            data->at(x, y, 1) = (unsigned char)(x >> 8);
            data->at(x, y, 2) = (unsigned char)(y >> 8);
            data->at(x, y, 3) = (unsigned char)(y * 3 + x);
        }
    return data;
}

TEST(TilingImageSource, CutsAtTheGpuTileSizeAndKeepsEveryPixel) {
    ASSERT_EQ(ImageSource::getGPUPreferredTileSize(), (GenVec<int, 2>(1024, 1024)));
    auto data = pattern(3000, 2000);
    auto source = TilingImageSource::createRGBA(data);
    ASSERT_TRUE(source);
    const TileLayout layout = source->tileLayout();
    EXPECT_EQ(layout.tileCount, (GenVec<int, 2>(3, 2)));
    EXPECT_EQ(layout.getTileRect(2, 1), Recti(2048, 1024, 952, 976));
    EXPECT_FALSE(source->isCaching());

    auto tiles = source->getTiles({{2, 1}, {0, 0}}, false, nullptr, {});
    ASSERT_TRUE(tiles(2, 1) && tiles(0, 0));
    EXPECT_FALSE(tiles(1, 0));
    auto corner = tiles(2, 1)->getDataRGBA8();
    ASSERT_EQ(corner->width(), 952);
    ASSERT_EQ(corner->height(), 976);
    for (int y : {0, 500, 975})
        for (int x : {0, 313, 951})
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(corner->at(x, y, c), data->at(2048 + x, 1024 + y, c)) << x << "," << y;
    // Leaves answer at once with their own tiles; asking twice gives the same tile.
    EXPECT_EQ(source->getTile(2, 1, false, nullptr, {}), tiles(2, 1));
}

TEST(TilingImageSource, SmallImageIsOneTileOfItsOwnSize) {
    auto source = TilingImageSource::createRGBA(pattern(1024, 1024));
    ASSERT_TRUE(source);
    EXPECT_EQ(source->tileLayout().tileCount, (GenVec<int, 2>(1, 1)));
    auto one = TilingImageSource::createLum32F(GenImageData<float, 1>::create(5, 3));
    ASSERT_TRUE(one);
    EXPECT_EQ(one->pixelFormat(), PfLum32F);
    EXPECT_EQ(one->getTile(0, 0, false, nullptr, {})->size(), (GenVec<int, 2>(5, 3)));
}

TEST(TilingImageSource, CreateChecksThatPreparedTilesCutTheImage) {
    auto tile = [](int w, int h) -> SharedPtr<const ImageTile> {
        return ImageTile::createNonCached(GenVec<int, 2>(w, h), PfRGBA8);
    };
    ImageSource::TileArray good(2, 2);
    good(0, 0) = tile(64, 64);
    good(1, 0) = tile(36, 64);
    good(0, 1) = tile(64, 20);
    good(1, 1) = tile(36, 20);
    EXPECT_TRUE(TilingImageSource::create({100, 84}, {64, 64}, good, PfRGBA8));

    LogCapture log;
    ImageSource::TileArray wrongRow = good;
    wrongRow(0, 1) = tile(64, 21);
    wrongRow(1, 1) = tile(36, 21);
    EXPECT_FALSE(TilingImageSource::create({100, 84}, {64, 64}, wrongRow, PfRGBA8));
    ImageSource::TileArray ragged = good;
    ragged(1, 1) = tile(36, 19);
    EXPECT_FALSE(TilingImageSource::create({100, 84}, {64, 64}, ragged, PfRGBA8));
    EXPECT_FALSE(TilingImageSource::create({100, 84}, {64, 64}, ImageSource::TileArray(), PfRGBA8));
    ImageSource::TileArray tooFew(1, 2);
    EXPECT_FALSE(TilingImageSource::create({100, 84}, {64, 64}, tooFew, PfRGBA8));
    EXPECT_EQ(log.assertions("0"), 4u);
}

TEST(TilingImageSource, ItsTilesAreNotCached) {
    auto source = TilingImageSource::createRGBA(pattern(8, 8));
    auto tile = source->getTile(0, 0, false, nullptr, {});
    LogCapture log;
    TileCache::cacheLifeTile(tile, source.get(), Recti(0, 0, 8, 8), 0);
    EXPECT_EQ(log.assertions("dynamic_cast<const TilingImageSource*>(src) == 0"), 1u);
}

}  // namespace
}  // namespace qor::imaging
