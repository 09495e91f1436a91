// Band reads of JPEG files: the kept decoder against region decodes, and the tiles of a loader's
// source cut from kept bands, in any order and on several threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "TestJpeg.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/JpegBandReader.h"
#include "imageio/detail/JpegCodec.h"
#include "imageio/detail/LoaderImageSource.h"

namespace qor::imageio {
namespace {

using math::Recti;
using testing::Bytes;
using testing::TempFolder;
using Vec2i = math::GenVec<int, 2>;

constexpr int Width = 300, Height = 200;

template <class T>
bool samePixels(const imaging::GenImageData<T, 4>& a, const imaging::GenImageData<T, 4>& b) {
    if (a.width() != b.width() || a.height() != b.height()) return false;
    for (int y = 0; y < a.height(); ++y)
        if (std::memcmp(a.row(y), b.row(y), size_t(a.width()) * 4 * sizeof(T)) != 0) return false;
    return true;
}

ImagePtr regionDecode(const std::string& path, ImageQuality quality, const Recti& rect) {
    RandomAccessFileStd file(path);
    return detail::decodeJpeg(file, Vec2i(0, 0), quality, rect);
}

// Grey, 4:2:0 colour, colour with restart markers and unsampled colour: each its own upsampler.
std::vector<std::string> kindsOfJpeg(const TempFolder& folder) {
    const auto fill3 = [](int y, unsigned char* row) {
        for (int x = 0; x < Width; ++x) {
            row[3 * x] = static_cast<unsigned char>(x * 255 / Width);
            row[3 * x + 1] = static_cast<unsigned char>((x * y) & 255);
            row[3 * x + 2] = static_cast<unsigned char>(y * 255 / Height);
        }
    };
    const auto grey = [](int y, unsigned char* row) {
        for (int x = 0; x < Width; ++x) row[x] = static_cast<unsigned char>((x + 3 * y) & 255);
    };
    return {folder.write("grey.jpg", testing::encodeJpeg(Width, Height, 1, JCS_GRAYSCALE, 85, grey)),
            folder.write("rgb.jpg", testing::encodeJpeg(Width, Height, 3, JCS_RGB, 85, fill3)),
            folder.write("restarts.jpg",
                         testing::encodeJpeg(Width, Height, 3, JCS_RGB, 85, fill3, false, true)),
            folder.write("full.jpg", testing::encodeJpeg(Width, Height, 3, JCS_RGB, 85, fill3,
                                                         false, false, {1, 1}))};
}

TEST(JpegBandReader, BandsMatchRegionDecodesAndDecodeEachLineOnceGoingDown) {
    TempFolder folder;
    for (const std::string& path : kindsOfJpeg(folder)) {
        for (ImageQuality quality : {ImageQualityBest, ImageQualityFast}) {
            SCOPED_TRACE(path + (quality == ImageQualityBest ? " best" : " fast"));
            detail::JpegBandReader reader(path, quality);
            for (int top = 0; top < Height; top += 64) {  // the last band is 8 lines
                const Recti band(0, top, Width, std::min(64, Height - top));
                const ImagePtr got = reader.read(top, band.height());
                ASSERT_TRUE(got);
                EXPECT_TRUE(samePixels(*got, *regionDecode(path, quality, band))) << top;
            }
            EXPECT_EQ(reader.linesDecoded(), Height);

            // A band above the decoder's place starts over; one further down skips ahead.
            ASSERT_TRUE(reader.read(64, 64));
            EXPECT_EQ(reader.linesDecoded(), Height + 128);
            const ImagePtr skipped = reader.read(150, 30);
            ASSERT_TRUE(skipped);
            EXPECT_EQ(reader.linesDecoded(), Height + 180);
            EXPECT_TRUE(samePixels(*skipped, *regionDecode(path, quality, Recti(0, 150, Width, 30))));
        }
    }
}

TEST(JpegBandReader, LeavesProgressiveCmykAndLinesOutsideToTheCaller) {
    TempFolder folder;
    const auto fill3 = [](int, unsigned char* row) { std::fill_n(row, Width * 3, 90); };
    const auto fill4 = [](int, unsigned char* row) { std::fill_n(row, Width * 4, 90); };
    const std::string progressive = folder.write(
        "p.jpg", testing::encodeJpeg(Width, Height, 3, JCS_RGB, 85, fill3, true));
    const std::string cmyk =
        folder.write("c.jpg", testing::encodeJpeg(Width, Height, 4, JCS_CMYK, 85, fill4));
    for (const std::string& path : {progressive, cmyk}) {
        detail::JpegBandReader reader(path, ImageQualityBest);
        EXPECT_FALSE(reader.read(0, 64)) << path;
        EXPECT_FALSE(reader.read(64, 64)) << path << ": the file stays with the caller";
    }
    detail::JpegBandReader reader(folder.write("b.jpg", testing::makeJpeg(Width, Height)),
                                  ImageQualityBest);
    EXPECT_FALSE(reader.read(Height - 10, 11));
    EXPECT_FALSE(reader.read(-1, 10));
    EXPECT_TRUE(reader.read(Height - 10, 10));
}

// Every tile of a 64 x 64 layout of the file, as a loader's source gives it in format F, checked
// against the loader's own region reads; `order` lists the tiles to read, repeats allowed.
template <imaging::RawPixelFormat F>
void readTilesInOrder(const ImageLoader& loader, detail::LoaderSourceBase& source,
                      const std::vector<Vec2i>& order) {
    using Element = typename imaging::RawStorageFormat<F>::Element;
    for (const Vec2i& t : order) {
        const Recti rect = source.tileLayout().getTileRect(t.x, t.y);
        const SharedPtr<const imaging::ImageTile> tile = source.readTileNow(unsigned(t.x), unsigned(t.y));
        ASSERT_TRUE(tile);
        const auto data = tile->getRawData<F>();
        ASSERT_TRUE(data);
        EXPECT_TRUE(samePixels(*data, *loader.read<Element>(ImageLoader::ImageTypeFull, rect)))
            << t.x << "," << t.y;
    }
}

std::vector<Vec2i> shuffledTiles(Vec2i count, unsigned seed, int rounds) {
    std::vector<Vec2i> order;
    for (int r = 0; r < rounds; ++r)
        for (int y = 0; y < count.y; ++y)
            for (int x = 0; x < count.x; ++x) order.emplace_back(x, y);
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    return order;
}

// A loader of a Width x Height JPEG written to `folder`.
ImageLoader testJpeg(const TempFolder& folder) {
    return ImageLoader(ImageLoader::String(folder.write("t.jpg", testing::makeJpeg(Width, Height))));
}

SharedPtr<detail::LoaderSourceBase> tileSource(const ImageLoader& loader, imaging::RawPixelFormat format) {
    return std::dynamic_pointer_cast<detail::LoaderSourceBase>(
        loader.getImageSource(format, ImageLoader::ImageTypeFull, Vec2i(64, 64), {}));
}

TEST(LoaderImageSource, JpegTilesInAnyOrderMatchRegionReads) {
    TempFolder folder;
    const ImageLoader loader = testJpeg(folder);
    const auto rgba8 = tileSource(loader, imaging::PfRGBA8);
    const auto rgba16 = tileSource(loader, imaging::PfRGBA16);
    ASSERT_TRUE(rgba8 && rgba16);
    const Vec2i count = rgba8->tileLayout().tileCount;
    // Line order (bands kept and let go), then at random with every tile twice (bands decoded
    // again, from the top or further down).
    std::vector<Vec2i> lines;
    for (int y = 0; y < count.y; ++y)
        for (int x = 0; x < count.x; ++x) lines.emplace_back(x, y);
    readTilesInOrder<imaging::PfRGBA8>(loader, *rgba8, lines);
    readTilesInOrder<imaging::PfRGBA8>(loader, *rgba8, shuffledTiles(count, 7, 2));
    readTilesInOrder<imaging::PfRGBA16>(loader, *rgba16, shuffledTiles(count, 11, 2));
}

// Tiles asked for column by column: two kept bands would decode the file once per column (five
// times here). The first band read again spans all four rows, so the source keeps them all from
// then on: at most the first column's pass and one more from the top.
TEST(LoaderImageSource, ColumnByColumnTilesDecodeTheFileAtMostTwice) {
    TempFolder folder;
    const ImageLoader loader = testJpeg(folder);
    const auto source = tileSource(loader, imaging::PfRGBA8);
    ASSERT_TRUE(source);
    const Vec2i count = source->tileLayout().tileCount;
    ASSERT_EQ(count, Vec2i(5, 4));
    std::vector<Vec2i> columns;
    for (int x = 0; x < count.x; ++x)
        for (int y = 0; y < count.y; ++y) columns.emplace_back(x, y);
    readTilesInOrder<imaging::PfRGBA8>(loader, *source, columns);
    EXPECT_LE(source->linesDecoded(), 2 * Height);
}

TEST(LoaderImageSourceThreads, JpegTilesReadAtOnceMatchRegionReads) {
    TempFolder folder;
    const ImageLoader loader = testJpeg(folder);
    const auto source = tileSource(loader, imaging::PfRGBA8);
    ASSERT_TRUE(source);
    const Vec2i count = source->tileLayout().tileCount;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            readTilesInOrder<imaging::PfRGBA8>(loader, *source, shuffledTiles(count, i, 1));
        });
    for (std::thread& t : threads) t.join();
}

}  // namespace
}  // namespace qor::imageio
