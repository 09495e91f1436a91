#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <thread>
#include <vector>

#include "PipelineTestSources.h"
#include "ProceduralImageSource.h"
#include "base/thread/DFSOrderScoreFunction.h"
#include "imaging/ImageProxy.h"
#include "imaging/ImagePyramid.h"
#include "imaging/ScaledImageSource.h"

namespace qor::imaging {
namespace {

using CacheEnabled = pipelinetest::CacheGuard;
using proctest::CpuTileSize;
using proctest::ProceduralSource;
using proctest::versionMark;
using TileSet = ImageSource::TileSet;

TileSet allTiles(const TileLayout& layout) {
    TileSet tiles;
    layout.tiles(tiles);
    return tiles;
}

// The largest difference, in element units, between every pixel of `scaled` and the direct area
// mean of `input` (a sub-image of `src` at `inputRect`) at the source's current version.
double largestDifference(ImageSource& scaled, const ProceduralSource& src, const Recti& inputRect,
                         double scale) {
    const TileLayout layout = scaled.tileLayout();
    const ImageSource::TileArray tiles = scaled.getTiles(allTiles(layout), false, nullptr, {});
    double worst = 0;
    proctest::withFormat(scaled.pixelFormat(), [&](auto f) {
        constexpr RawPixelFormat F = decltype(f)::value;
        using View = RawImageDataOf<F>;
        for (int ty = 0; ty < layout.tileCount.y; ++ty) {
            for (int tx = 0; tx < layout.tileCount.x; ++tx) {
                const SharedPtr<const ImageTile>& tile = tiles(tx, ty);
                if (!tile) {
                    worst = std::numeric_limits<double>::infinity();
                    continue;
                }
                const Recti rect = layout.getTileRect(tx, ty);
                EXPECT_EQ(tile->size(), rect.size());
                SharedPtr<const View> view = tile->getRawData<F>();
                for (int y = 0; y < rect.height(); ++y)
                    for (int x = 0; x < rect.width(); ++x)
                        for (int c = 0; c < View::Channels; ++c) {
                            const double mean = proctest::directAreaMean(
                                [&](int ix, int iy) {
                                    return src.value(ix + inputRect.xmin(), iy + inputRect.ymin(),
                                                     c, src.version());
                                },
                                inputRect.size(), scale, rect.xmin() + x, rect.ymin() + y);
                            const double got = double(float(view->at(x, y, c)));
                            worst = std::max(worst, std::abs(got - mean));
                        }
            }
        }
    });
    return worst;
}

// Unsigned means are rounded to the nearest value, so they are at most half a unit off; float and
// half hold the mean to their own precision.
double tolerance(RawPixelFormat format) {
    if (!isFloatFormat(format)) return 0.5 + 1e-9;
    return getBitsPerChannel(format) == 16 ? 1.0 / 2048 : 1e-6;
}

TEST(ScaledImageSource, AreaMeanMatchesDirectComputationInEveryFormat) {
    const CpuTileSize tileSize({16, 12});
    for (RawPixelFormat format :
         {PfRGBA8, PfRGB8, PfRGBA16, PfRGBA32F, PfLum32F, PfBGRA8, PfRGB16F, PfRed16}) {
        auto src = ProceduralSource::create({150, 97}, {64, 48}, format);
        // A sub-image that starts inside the source's first tile.
        const Recti inputRect(13, 7, 120, 80);
        auto input = Image::create(src)->getSubImage(inputRect);
        for (double scale : {0.37, 0.5, 0.21}) {
            auto scaled = ScaledImageSource::create(input, scale);
            EXPECT_LE(largestDifference(*scaled, *src, inputRect, scale), tolerance(format))
                << pixelFormatString(format).view() << " at " << scale;
        }
    }
}

TEST(ScaledImageSource, FactorOneReproducesTheInputExactly) {
    const CpuTileSize tileSize({40, 40});
    for (RawPixelFormat format : {PfRGBA16, PfRGBA32F, PfRGB8}) {
        auto src = ProceduralSource::create({90, 70}, {32, 32}, format);
        const Recti inputRect(5, 3, 80, 60);
        auto scaled = ScaledImageSource::create(Image::create(src)->getSubImage(inputRect), 1.0);
        EXPECT_EQ(scaled->size(), inputRect.size());
        EXPECT_EQ(largestDifference(*scaled, *src, inputRect, 1.0), 0.0)
            << pixelFormatString(format).view();
    }
}

TEST(ScaledImageSource, LastTileOfOnePixelHoldsTheLastInputPixels) {
    const CpuTileSize tileSize({64, 64});
    auto src = ProceduralSource::create({258, 130}, {50, 50}, PfRGBA8);
    auto scaled = ScaledImageSource::create(Image::create(src), 0.5);
    ASSERT_EQ(scaled->size(), (GenVec<int, 2>(129, 65)));
    const TileLayout layout = scaled->tileLayout();
    ASSERT_EQ(layout.tileCount, (GenVec<int, 2>(3, 2)));
    EXPECT_EQ(layout.getTileRect(2, 1), Recti(128, 64, 1, 1));
    EXPECT_LE(largestDifference(*scaled, *src, Recti(src->size()), 0.5), tolerance(PfRGBA8));
}

TEST(ScaledImageSource, SizesAndBadArguments) {
    EXPECT_EQ(ScaledImageSource::scaledSize({100, 100}, 0.37), (GenVec<int, 2>(37, 37)));
    EXPECT_EQ(ScaledImageSource::scaledSize({101, 3}, 0.5), (GenVec<int, 2>(51, 2)));
    EXPECT_EQ(ScaledImageSource::scaledSize({100, 7}, 1e-9), (GenVec<int, 2>(1, 1)));
    EXPECT_EQ(ScaledImageSource::scaledSize({10, 7}, 2.5), (GenVec<int, 2>(25, 18)));

    auto input = Image::create(ProceduralSource::create({20, 20}, {8, 8}, PfRGBA8));
    for (double bad : {0.0, -0.5, std::nan(""), std::numeric_limits<double>::infinity(), 1e12})
        EXPECT_THROW(ScaledImageSource::create(input, bad), Exception) << bad;
    EXPECT_THROW(ScaledImageSource::create(nullptr, 0.5), Exception);
}

TEST(ScaledImageSource, NeighbouringTilesShareInputWorkAndTheCacheServesRepeats) {
    const CacheEnabled cache;
    const CpuTileSize tileSize({16, 16});
    auto src = ProceduralSource::create({128, 128}, {32, 32}, PfRGBA8);
    auto scaled = ScaledImageSource::create(Image::create(src), 0.37);
    const TileSet tiles = allTiles(scaled->tileLayout());
    ASSERT_EQ(tiles.size(), 9u);  // 48 x 48 output, footprints overlapping the 4 x 4 input tiles

    auto first = scaled->getTiles(tiles, false, nullptr, {});
    EXPECT_EQ(src->computed.load(), 16);
    auto again = scaled->getTiles(tiles, false, nullptr, {});
    EXPECT_EQ(again(1, 1), first(1, 1));
    auto half = ScaledImageSource::create(Image::create(src), 0.5);
    EXPECT_LE(largestDifference(*half, *src, Recti(src->size()), 0.5), tolerance(PfRGBA8));
    EXPECT_EQ(src->computed.load(), 16);
}

TEST(ScaledImageSource, VersionChangeOfTheInputReachesScaledAndProxy) {
    const CacheEnabled cache;
    auto src = ProceduralSource::create({64, 64}, {32, 32}, PfRGBA8, true);
    auto scaled = ScaledImageSource::create(Image::create(src), 0.5);
    auto proxy = ImageProxy::create(Image::create(scaled));
    int changed = 0;
    ScopedConnection counting(proxy->OnVersionChanged.connect([&] { ++changed; }));

    auto before = proxy->getTile(0, 0, false, nullptr, {});
    ASSERT_TRUE(before);
    EXPECT_EQ(before->getDataRGBA8()->at(3, 3, 3), versionMark(0));
    const unsigned proxyVersion = proxy->version();

    src->incrementVersion();
    EXPECT_EQ(scaled->version(), 1u);
    EXPECT_NE(proxy->version(), proxyVersion);
    EXPECT_EQ(changed, 1);
    unsigned version = 0;
    auto after = proxy->getTile(0, 0, false, &version, {});
    ASSERT_TRUE(after);
    EXPECT_NE(after.get(), before.get());
    EXPECT_EQ(version, proxy->version());
    EXPECT_EQ(after->getDataRGBA8()->at(3, 3, 3), versionMark(1));
}

TEST(ImageProxy, RetargetServesTheNewImageUnderTheProxy) {
    const CacheEnabled cache;
    auto a = ProceduralSource::create({60, 40}, {32, 32}, PfRGBA8);
    auto big = ProceduralSource::create({100, 80}, {32, 32}, PfRGBA8);
    // The new image starts inside a tile of its source, so the proxy's first tile does too.
    auto b = Image::create(big)->getSubImage(Recti(37, 3, 60, 40));
    auto proxy = ImageProxy::create(Image::create(a));
    auto fromA = proxy->getTile(1, 0, false, nullptr, {});
    ASSERT_TRUE(fromA);
    EXPECT_EQ(double(fromA->getDataRGBA8()->at(0, 0, 0)), a->value(32, 0, 0, 0));

    int changed = 0;
    ScopedConnection counting(proxy->OnVersionChanged.connect([&] { ++changed; }));
    const unsigned before = proxy->version();
    proxy->setImage(b);
    EXPECT_GT(proxy->version(), before);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(proxy->tileLayout(), b->tileLayout());

    // Tiles reach an asynchronous caller with the proxy as their source.
    std::promise<void> ended;
    std::vector<ComputedTileInfo> records;
    proxy->requestTiles({{1, 0}}, std::make_shared<thread::DFSOrderScoreFunction>(),
                        [&](const ComputedTileInfo& cti) {
                            records.push_back(cti);
                            if (cti.type == ComputedTileInfo::RequestEnded) ended.set_value();
                        },
                        true, {});
    ended.get_future().wait();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].source, proxy);
    ASSERT_TRUE(records[0].tile);
    const Recti rect = proxy->getTileRect(1, 0);  // (-5, -3) + (32, 0): source tile (2, 0)
    EXPECT_EQ(rect.mins, (GenVec<int, 2>(27, -3)));
    EXPECT_EQ(double(records[0].tile->getDataRGBA8()->at(0, 0, 0)), big->value(64, 0, 0, 0));

    // Version changes now come from the new image's source only.
    a->incrementVersion();
    EXPECT_EQ(changed, 1);
    big->incrementVersion();
    EXPECT_EQ(changed, 2);

    EXPECT_THROW(proxy->setImage(Image::create(a)->getSubImage(Recti(0, 0, 50, 40))), Exception);
    EXPECT_THROW(proxy->setImage(nullptr), Exception);
    EXPECT_EQ(proxy->image(), b);
}

// A graph built for a reader of the proxy while the proxy is pointed back and forth must hold the
// lock of whichever image it reads: the builders read each input's caching flag, which the third
// thread writes under that input's lock (a race the thread sanitizer reports).
TEST(ImageProxyThreads, RetargetingWhileDependentsBuildGraphsKeepsTheirLocks) {
    auto a = ProceduralSource::create({64, 64}, {32, 32}, PfRGBA8);
    auto b = ProceduralSource::create({64, 64}, {32, 32}, PfRGBA8);
    auto proxy = ImageProxy::create(Image::create(a));
    auto scaled = ScaledImageSource::create(Image::create(proxy), 0.5);
    const TileSet tiles = allTiles(scaled->tileLayout());

    std::atomic<bool> done{false};
    std::atomic<int> served{0}, badTiles{0};
    auto reader = std::async(std::launch::async, [&] {
        for (int i = 0; i < 1000; ++i) {
            // A retarget during the request may leave it outdated: its tiles stay null.
            const ImageSource::TileArray out = scaled->getTiles(tiles, false, nullptr, {});
            for (const auto& idx : tiles) {
                const SharedPtr<const ImageTile>& tile = out(idx.x, idx.y);
                if (!tile) continue;
                ++served;
                if (tile->size() != scaled->getTileRect(idx.x, idx.y).size()) ++badTiles;
            }
        }
        done = true;
    });
    auto flipper = std::async(std::launch::async, [&] {
        // A pause between retargets: flipping without one, an optimised build outdated every
        // request of the reader, and no graph was built at all.
        for (bool toA = false; !done; toA = !toA) {
            proxy->setImage(Image::create(toA ? a : b));
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    auto toggler = std::async(std::launch::async, [&] {
        for (bool on = false; !done; on = !on) {
            a->enableCaching(on);
            b->enableCaching(on);
        }
    });
    ASSERT_EQ(reader.wait_for(std::chrono::seconds(120)), std::future_status::ready);
    flipper.get();
    toggler.get();
    EXPECT_GT(served.load(), 0);
    EXPECT_EQ(badTiles.load(), 0);
}

TEST(ImagePyramid, HalvesDownToOneTileAndPicksTheSmallestSufficientLevel) {
    const CpuTileSize tileSize({256, 256});
    auto src = ProceduralSource::create({1000, 600}, {256, 256}, PfRGBA8);
    auto pyramid = ImagePyramid::create(Image::create(src));
    ASSERT_EQ(pyramid->levelCount(), 3);
    EXPECT_EQ(pyramid->level(0)->source(), src);
    EXPECT_EQ(pyramid->level(1)->size(), (GenVec<int, 2>(500, 300)));
    EXPECT_EQ(pyramid->level(2)->size(), (GenVec<int, 2>(250, 150)));
    EXPECT_EQ(pyramid->levelForZoom(0.3), 1);
    EXPECT_EQ(pyramid->levelForZoom(0.5), 1);
    EXPECT_EQ(pyramid->levelForZoom(0.51), 0);
    EXPECT_EQ(pyramid->levelForZoom(4.0), 0);
    EXPECT_EQ(pyramid->levelForZoom(0.25), 2);
    EXPECT_EQ(pyramid->levelForZoom(0.01), 2);
    EXPECT_EQ(pyramid->levelForZoom(0.0), 2);

    // Level 2 is the mean of 4 x 4 blocks of level 0, to rounding twice.
    auto tile = pyramid->level(2)->getTile(0, 0, false, nullptr, {});
    ASSERT_TRUE(tile);
    auto px = tile->getDataRGBA8();
    for (int c = 0; c < 4; ++c) {
        const double mean = proctest::directAreaMean(
            [&](int x, int y) { return src->value(x, y, c, 0); }, src->size(), 0.25, 7, 5);
        EXPECT_NEAR(px->at(7, 5, c), mean, 1.0);
    }

    auto small = ImagePyramid::create(Image::create(src), 100);
    ASSERT_EQ(small->levelCount(), 5);
    EXPECT_EQ(small->level(4)->size(), (GenVec<int, 2>(63, 38)));
    EXPECT_EQ(small->levelForZoom(0.01), 4);
}

}  // namespace
}  // namespace qor::imaging
