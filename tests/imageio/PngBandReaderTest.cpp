// Band reads of PNG files: the kept decoder against whole decodes at 8 bits and the stored samples
// at 16, and the tiles of a loader's source, through the band reader and through the fallback.
// Every comparison is exact: both roads run the same libpng transformations.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/LoaderImageSource.h"
#include "imageio/detail/LoaderPixels.h"
#include "imageio/detail/PngBandReader.h"
#include "imaging/ImageTile.h"
#include "imaging/ImagingException.h"

namespace qor::imageio {
namespace {

using math::Recti;
using testing::Bytes;
using testing::PngRecipe;
using testing::TempFolder;
using Image4us = imaging::GenImageData<unsigned short, 4>;
using Vec2i = math::GenVec<int, 2>;

constexpr int Width = 70, Height = 45;  // bands of 16 lines leave a last one of 13

template <class T>
bool samePixels(const imaging::GenImageData<T, 4>& a, const imaging::GenImageData<T, 4>& b) {
    if (a.width() != b.width() || a.height() != b.height()) return false;
    for (int y = 0; y < a.height(); ++y)
        for (int i = 0; i < a.width() * 4; ++i)
            if (a.row(y)[i] != b.row(y)[i]) return false;
    return true;
}

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> lines(const imaging::GenImageData<T, 4>& image,
                                             const Recti& rect) {
    return detail::orientRegion(image, Recti(0, 0, image.width(), image.height()), 1,
                                Vec2i(image.width(), image.height()), rect);
}

// 16-bit samples whose low bytes differ from their high bytes, so that a detour through 8 bits
// shows; opaque when `alpha` is false.
SharedPtr<Image4us> deepImage(int width, int height, bool alpha) {
    auto image = Image4us::create(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 4; ++c)
                image->at(x, y, c) =
                    c == 3 && !alpha ? 65535 : (unsigned short)(x * 911 + y * 37 + c * 5003);
    return image;
}

// A Width x Height file of `colorType` and `bitDepth` whose packed row y is `row(y)`; `edit`
// adds what else the file holds.
template <class Row>
Bytes pngWith(int colorType, int bitDepth, Row row, void (*edit)(PngRecipe&) = nullptr) {
    PngRecipe recipe;
    recipe.width = Width;
    recipe.height = Height;
    recipe.colorType = colorType;
    recipe.bitDepth = bitDepth;
    for (int y = 0; y < Height; ++y) recipe.rows.push_back(row(y));
    if (edit) edit(recipe);
    return testing::makePng(recipe);
}

Bytes deepPng(const Image4us& image, bool alpha) {
    return pngWith(alpha ? PNG_COLOR_TYPE_RGBA : PNG_COLOR_TYPE_RGB, 16, [&](int y) {
        Bytes row;
        for (int x = 0; x < Width; ++x)
            for (int c = 0; c < (alpha ? 4 : 3); ++c) {
                row.push_back(uint8_t(image.at(x, y, c) >> 8));
                row.push_back(uint8_t(image.at(x, y, c)));
            }
        return row;
    });
}

// A file of every kind, with the 16-bit samples it should give: the stored ones of 16-bit files,
// the 8-bit ones widened for the others.
struct Kind {
    std::string path;
    SharedPtr<Image4us> deep;
};

std::vector<Kind> kindsOfPng(const TempFolder& folder) {
    const ImagePtr gradient = testing::gradientImage(Width, Height);
    const auto grey = [](int y) {  // 4-bit
        Bytes row;
        for (int x = 0; x < Width; x += 2) row.push_back(uint8_t((x + y) * 0x11 + 0x10));
        return row;
    };
    const auto indices = [](int y) {
        Bytes row;
        for (int x = 0; x < Width; ++x) row.push_back(uint8_t((x + 3 * y) % 4));
        return row;
    };
    const auto palette = [](PngRecipe& recipe) {
        recipe.palette = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {10, 20, 30}};
        recipe.paletteAlpha = {0, 128};  // the last two entries stay opaque
    };
    std::vector<Kind> kinds{
        {folder.write("rgb.png", testing::pngOf(*gradient, false)), nullptr},
        {folder.write("rgba.png", testing::pngOf(*gradient, true)), nullptr},
        {folder.write("grey.png", pngWith(PNG_COLOR_TYPE_GRAY, 4, grey)), nullptr},
        {folder.write("palette.png", pngWith(PNG_COLOR_TYPE_PALETTE, 8, indices, palette)),
         nullptr}};
    for (bool alpha : {false, true}) {
        auto deep = deepImage(Width, Height, alpha);
        kinds.push_back(
            {folder.write(alpha ? "rgba16.png" : "rgb16.png", deepPng(*deep, alpha)), deep});
    }
    for (Kind& kind : kinds) {
        if (kind.deep) continue;
        ImagePtr whole;
        EXPECT_TRUE(loadPng(FastString<char>(kind.path), &whole, nullptr));
        kind.deep = detail::convertImage<unsigned short>(*whole);
    }
    return kinds;
}

ImagePtr loadWhole(const std::string& path) {
    ImagePtr whole;
    EXPECT_TRUE(loadPng(FastString<char>(path), &whole, nullptr)) << path;
    return whole;
}

TEST(PngBandReader, BandsGoingDownDecodeEachLineOnceAndEqualWholeDecodes) {
    TempFolder folder;
    for (const Kind& kind : kindsOfPng(folder)) {
        SCOPED_TRACE(kind.path);
        const ImagePtr whole = loadWhole(kind.path);
        detail::PngBandReader reader(kind.path);
        for (int top = 0; top < Height; top += 16) {
            const Recti band(0, top, Width, std::min(16, Height - top));
            const ImagePtr got = reader.read<unsigned char>(top, band.height());
            ASSERT_TRUE(got);
            EXPECT_TRUE(samePixels(*got, *lines(*whole, band))) << top;
        }
        EXPECT_EQ(reader.linesDecoded(), Height);

        // After the last line a band starts over, skipping the lines above it; so does a band
        // above the decoder's line, and a band of the other sample size.
        const auto again = reader.read<unsigned char>(16, 16);
        ASSERT_TRUE(again);
        EXPECT_TRUE(samePixels(*again, *lines(*whole, Recti(0, 16, Width, 16))));
        EXPECT_EQ(reader.linesDecoded(), Height + 32);
        const auto above = reader.read<unsigned char>(0, 8);
        ASSERT_TRUE(above);
        EXPECT_TRUE(samePixels(*above, *lines(*whole, Recti(0, 0, Width, 8))));
        EXPECT_EQ(reader.linesDecoded(), Height + 40);
        const auto deep = reader.read<unsigned short>(20, 25);
        ASSERT_TRUE(deep);
        EXPECT_EQ(reader.linesDecoded(), Height + 40 + 45);
        EXPECT_TRUE(samePixels(*deep, *lines(*kind.deep, Recti(0, 20, Width, 25))));
    }
}

TEST(PngBandReader, LeavesInterlacedFilesAndLinesOutsideToTheCaller) {
    TempFolder folder;
    const ImagePtr gradient = testing::gradientImage(Width, Height);
    detail::PngBandReader interlaced(folder.write("i.png", testing::pngOf(*gradient, true, true)));
    EXPECT_FALSE(interlaced.read<unsigned char>(0, 16));
    EXPECT_FALSE(interlaced.read<unsigned short>(0, 16)) << "the file stays with the caller";

    detail::PngBandReader reader(folder.write("p.png", testing::pngOf(*gradient, true)));
    EXPECT_FALSE(reader.read<unsigned char>(Height - 10, 11));
    EXPECT_FALSE(reader.read<unsigned char>(-1, 10));
    EXPECT_TRUE(reader.read<unsigned char>(Height - 10, 10));
}

// The CRC-32 of a chunk's type and data, as the PNG format computes it.
uint32_t chunkCrc(const Bytes& typeAndData) {
    uint32_t crc = 0xffffffffu;
    for (uint8_t byte : typeAndData) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) crc = crc & 1 ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
    }
    return ~crc;
}

// A Width x Height file with a second IHDR, claiming a picture four times as wide, between its
// image data and IEND. libpng reads the first header and fails on the second only after the
// lines; the metadata reader takes the second.
std::string pngWithTwoHeaders(const TempFolder& folder) {
    Bytes file = testing::pngOf(*testing::gradientImage(Width, Height), false);
    const auto be32 = [](Bytes& out, uint32_t v) {
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
    };
    Bytes chunk{'I', 'H', 'D', 'R'};
    be32(chunk, 4 * Width);
    be32(chunk, Height);
    chunk.insert(chunk.end(), {8, PNG_COLOR_TYPE_RGB, 0, 0, 0});
    Bytes header;
    be32(header, 13);
    header.insert(header.end(), chunk.begin(), chunk.end());
    be32(header, chunkCrc(chunk));
    file.insert(file.end() - 12, header.begin(), header.end());  // before IEND
    return folder.write("two-headers.png", file);
}

// Found by fuzz_png: the loader's source took the second header's width and copied its tiles out
// of bands a quarter as wide, beyond their end. The band reader leaves such a file to the loader,
// which cannot read it.
TEST(PngBandReader, FileWithASecondHeaderIsLeftToTheLoaderWhoseTilesFail) {
    TempFolder folder;
    const std::string path = pngWithTwoHeaders(folder);
    detail::PngBandReader reader(path);
    EXPECT_FALSE(reader.read<unsigned char>(0, 16));
    EXPECT_FALSE(reader.read<unsigned short>(0, 16));
    EXPECT_TRUE(reader.failure().empty()) << "not a libpng failure: the caller decodes it";

    const ImageLoader loader{FastString<char>(path)};
    LogCapture log;
    for (imaging::RawPixelFormat format : {imaging::PfRGBA8, imaging::PfRGBA16}) {
        const auto source = std::dynamic_pointer_cast<detail::LoaderSourceBase>(
            loader.getImageSource(format, ImageLoader::ImageTypeFull, Vec2i(64, 16), {}));
        ASSERT_TRUE(source);
        const imaging::TileLayout layout = source->tileLayout();
        for (int x = 0; x < layout.tileCount.x; ++x)
            EXPECT_THROW(source->readTileNow(unsigned(x), 0), ImageLoaderException) << x;
    }
    EXPECT_GT(log.count("loadPng: libpng failed"), 0u);
}

// A picture of noise, which compresses so badly that a file cut in half still holds its top half.
std::string noisePng(const TempFolder& folder) {
    ImagePtr noise = Image4ub::create(200, 100);
    uint32_t state = 12345;
    for (int y = 0; y < 100; ++y)
        for (int i = 0; i < 200 * 4; ++i)
            noise->row(y)[i] = uint8_t((state = state * 1664525u + 1013904223u) >> 24);
    return folder.write("noise.png", testing::pngOf(*noise, false));
}

// Every tile of a 32 x 16 source of `path` in format F, asked for at once, equals its rectangle
// of `image`.
template <imaging::RawPixelFormat F, class T>
void expectTiles(const std::string& path, const imaging::GenImageData<T, 4>& image) {
    const auto source = ImageLoader(FastString<char>(path), false)
                            .getImageSource(F, ImageLoader::ImageTypeFull, Vec2i(32, 16), {});
    const imaging::TileLayout layout = source->tileLayout();
    std::set<Vec2i> all;
    for (int y = 0; y < layout.tileCount.y; ++y)
        for (int x = 0; x < layout.tileCount.x; ++x) all.insert(Vec2i(x, y));
    const auto tiles = source->getTiles(all, false, nullptr, {});
    for (const Vec2i& t : all) {
        ASSERT_TRUE(tiles(t.x, t.y));
        EXPECT_TRUE(samePixels(*tiles(t.x, t.y)->template getRawData<F>(),
                               *lines(image, layout.getTileRect(t.x, t.y))))
            << t.x << "," << t.y;
    }
}

TEST(LoaderImageSource, PngTilesEqualWholeDecodesAndKeepSixteenBitSamples) {
    TempFolder folder;
    const auto deep = deepImage(Width, Height, true);
    const ImagePtr gradient = testing::gradientImage(Width, Height);
    const std::string deepPath = folder.write("d.png", deepPng(*deep, true));
    const std::string interlaced = folder.write("i.png", testing::pngOf(*gradient, true, true));
    for (const std::string& path : {deepPath, interlaced}) {
        SCOPED_TRACE(path);
        const ImagePtr whole = loadWhole(path);
        const auto exact = path == deepPath ? deep : detail::convertImage<unsigned short>(*whole);
        expectTiles<imaging::PfRGBA8>(path, *whole);
        expectTiles<imaging::PfRGBA16>(path, *exact);
        expectTiles<imaging::PfRGBA32F>(path, *detail::convertImage<float>(*exact));
    }
    const Recti region(9, 7, 30, 20);
    EXPECT_TRUE(samePixels(*ImageLoader(FastString<char>(deepPath)).read<unsigned short>(2, region),
                           *lines(*deep, region)));
}

// The band reader gives the top rows; at the cut it logs once and leaves the file to the
// loader's read, which fails the tile. A failed band reader is not tried again.
TEST(LoaderImageSource, PngCutShortFailsItsTileNamingThePath) {
    TempFolder folder;
    const std::string path = noisePng(folder);
    const auto source =
        ImageLoader(FastString<char>(path), false)
            .getImageSource(imaging::PfRGBA8, ImageLoader::ImageTypeFull, Vec2i(64, 32), {});
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    LogCapture log;
    EXPECT_TRUE(source->getTile(0, 0, false, nullptr, {}));
    for (int column : {0, 1}) {
        try {
            source->getTile(column, 3, false, nullptr, {});
            ADD_FAILURE() << "a tile below the end of a file cut short";
        } catch (const imaging::ImagingException& e) {
            EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
        }
    }
    EXPECT_EQ(log.count("PngBandReader: libpng failed in '" + path + "'"), 1u);
}

}  // namespace
}  // namespace qor::imageio
