#include <gtest/gtest.h>

#include "CodecTestSupport.h"
#include "base/Log.h"

namespace qor::imageio {
namespace {

using namespace testing;
using S = FastString<char>;
using Vec2i = math::GenVec<int, 2>;

struct Decoded {
    bool ok = false;
    ImagePtr image;
    SharedPtr<Metadata> metadata;
};

Decoded decodePng(const Bytes& file) {
    RandomAccessFileMemory memory(file.data(), file.size());
    Decoded d;
    d.ok = loadPng(memory, &d.image, &d.metadata);
    return d;
}

// The pixel (r, g, b, a) at every position of a w x h image given by `at`.
template <class F>
ImagePtr imageOf(int w, int h, F at) {
    ImagePtr image = Image4ub::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::array<int, 4> p = at(x, y);
            for (int c = 0; c < 4; ++c) image->at(x, y, c) = static_cast<unsigned char>(p[c]);
        }
    return image;
}

TEST(PngCodec, RgbAndRgbaComeOutAsRgbaWithTheMetadataSize) {
    ImagePtr source = gradientImage(33, 17);
    Decoded rgba = decodePng(pngOf(*source, true));
    ASSERT_TRUE(rgba.ok);
    EXPECT_EQ(maxDifference(*source, *rgba.image), 0);
    ASSERT_TRUE(rgba.metadata);
    EXPECT_EQ(rgba.metadata->size(), Vec2i(33, 17));
    EXPECT_TRUE(rgba.metadata->rawMap().empty());

    Decoded rgb = decodePng(pngOf(*source, false));
    ASSERT_TRUE(rgb.ok);
    EXPECT_EQ(maxDifference(*source, *rgb.image, 3), 0);
    for (int y = 0; y < 17; ++y)
        for (int x = 0; x < 33; ++x) ASSERT_EQ(rgb.image->at(x, y, 3), 255);
}

TEST(PngCodec, InterlacedPicturesEqualTheirProgressiveTwins) {
    // Odd sizes, so that the later passes leave partly filled rows and columns.
    ImagePtr source = gradientImage(37, 23);
    for (bool alpha : {false, true}) {
        Decoded plain = decodePng(pngOf(*source, alpha, false));
        Decoded interlaced = decodePng(pngOf(*source, alpha, true));
        ASSERT_TRUE(plain.ok && interlaced.ok) << alpha;
        EXPECT_EQ(maxDifference(*plain.image, *interlaced.image), 0) << alpha;
        EXPECT_EQ(maxDifference(*source, *interlaced.image, alpha ? 4 : 3), 0) << alpha;
    }
}

TEST(PngCodec, PaletteWithTransparencyExpandsToRgba) {
    PngRecipe recipe;
    recipe.width = 6;
    recipe.height = 2;
    recipe.colorType = PNG_COLOR_TYPE_PALETTE;
    recipe.bitDepth = 4;
    recipe.palette = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
    recipe.paletteAlpha = {0, 128};  // the third entry stays opaque
    // Two 4-bit indices a byte: rows 0 1 2 0 1 2 and 2 2 2 1 1 1.
    recipe.rows = {{0x01, 0x20, 0x12}, {0x22, 0x21, 0x11}};
    Decoded d = decodePng(makePng(recipe));
    ASSERT_TRUE(d.ok);
    const int index[2][6] = {{0, 1, 2, 0, 1, 2}, {2, 2, 2, 1, 1, 1}};
    ImagePtr expected = imageOf(6, 2, [&](int x, int y) {
        const int i = index[y][x];
        const png_color c = recipe.palette[i];
        return std::array<int, 4>{c.red, c.green, c.blue, i == 0 ? 0 : i == 1 ? 128 : 255};
    });
    EXPECT_EQ(maxDifference(*expected, *d.image), 0);
}

TEST(PngCodec, GreyOfEveryDepthExpandsToRgb) {
    // Depth 1, 2, 4: the samples 0 and the maximum, alternating; expanded to 0 and 255.
    for (int depth : {1, 2, 4}) {
        PngRecipe recipe;
        recipe.width = 8;
        recipe.height = 1;
        recipe.colorType = PNG_COLOR_TYPE_GRAY;
        recipe.bitDepth = depth;
        const int max = (1 << depth) - 1;
        Bytes row((8 * depth + 7) / 8, 0);
        for (int x = 0; x < 8; x += 2) {
            const int bit = x * depth;
            row[bit / 8] |= static_cast<uint8_t>(max << (8 - depth - bit % 8));
        }
        recipe.rows = {row};
        Decoded d = decodePng(makePng(recipe));
        ASSERT_TRUE(d.ok) << depth;
        ImagePtr expected = imageOf(8, 1, [](int x, int) {
            const int v = x % 2 == 0 ? 255 : 0;
            return std::array<int, 4>{v, v, v, 255};
        });
        EXPECT_EQ(maxDifference(*expected, *d.image), 0) << depth;
    }
}

TEST(PngCodec, SixteenBitsAreStrippedToTheHighByte) {
    PngRecipe grey;
    grey.width = 2;
    grey.height = 1;
    grey.colorType = PNG_COLOR_TYPE_GRAY_ALPHA;
    grey.bitDepth = 16;
    grey.rows = {{0x12, 0x34, 0xFF, 0xFF, 0xAB, 0xCD, 0x80, 0x01}};
    Decoded g = decodePng(makePng(grey));
    ASSERT_TRUE(g.ok);
    EXPECT_EQ(maxDifference(*imageOf(2, 1,
                                     [](int x, int) {
                                         return x == 0 ? std::array<int, 4>{0x12, 0x12, 0x12, 0xFF}
                                                       : std::array<int, 4>{0xAB, 0xAB, 0xAB, 0x80};
                                     }),
                            *g.image),
              0);

    PngRecipe rgb;
    rgb.width = 1;
    rgb.height = 1;
    rgb.colorType = PNG_COLOR_TYPE_RGB;
    rgb.bitDepth = 16;
    rgb.rows = {{0x01, 0x02, 0x7F, 0xFF, 0xFE, 0x00}};
    Decoded c = decodePng(makePng(rgb));
    ASSERT_TRUE(c.ok);
    EXPECT_EQ(maxDifference(*imageOf(1, 1,
                                     [](int, int) {
                                         return std::array<int, 4>{1, 0x7F, 0xFE, 255};
                                     }),
                            *c.image),
              0);
}

TEST(PngCodec, TransparentColourOfGreyAndRgbBecomesAlpha) {
    PngRecipe grey;
    grey.width = 3;
    grey.height = 1;
    grey.colorType = PNG_COLOR_TYPE_GRAY;
    grey.rows = {{10, 20, 30}};
    grey.hasTransparentColour = true;
    grey.transparentColour.gray = 20;
    Decoded g = decodePng(makePng(grey));
    ASSERT_TRUE(g.ok);
    EXPECT_EQ(g.image->at(0, 0, 3), 255);
    EXPECT_EQ(g.image->at(1, 0, 3), 0);
    EXPECT_EQ(g.image->at(2, 0, 0), 30);

    PngRecipe rgb;
    rgb.width = 2;
    rgb.height = 1;
    rgb.colorType = PNG_COLOR_TYPE_RGB;
    rgb.rows = {{1, 2, 3, 4, 5, 6}};
    rgb.hasTransparentColour = true;
    rgb.transparentColour.red = 4;
    rgb.transparentColour.green = 5;
    rgb.transparentColour.blue = 6;
    Decoded c = decodePng(makePng(rgb));
    ASSERT_TRUE(c.ok);
    EXPECT_EQ(c.image->at(0, 0, 3), 255);
    EXPECT_EQ(c.image->at(1, 0, 3), 0);
    EXPECT_EQ(c.image->at(1, 0, 2), 6);
}

TEST(PngCodec, BadFilesFailAndLeaveTheOutputsAlone) {
    const Bytes png = pngOf(*gradientImage(20, 20), false);
    LogCapture log;

    Decoded notPng = decodePng(makeJpeg(8, 8));
    EXPECT_FALSE(notPng.ok);
    EXPECT_FALSE(notPng.image || notPng.metadata);
    EXPECT_TRUE(log.contains("loadPng: not a PNG file"));

    const Bytes cut(png.begin(), png.begin() + png.size() / 2);
    Decoded truncated = decodePng(cut);
    EXPECT_FALSE(truncated.ok);
    EXPECT_FALSE(truncated.image || truncated.metadata);
    EXPECT_TRUE(log.contains("Couldn't read from file 'memory file'"));
    EXPECT_TRUE(log.contains("Read error in qor_png_read_function"));

    Bytes corrupt = png;
    corrupt[png.size() / 2] ^= 0x55;  // inside the image data: the CRC no longer matches
    EXPECT_FALSE(decodePng(corrupt).ok);

    log.clear();
    EXPECT_FALSE(loadPng(S("/nonexistent-folder/x.png"), nullptr, nullptr));
    EXPECT_TRUE(log.contains("Couldn't open png file '/nonexistent-folder/x.png'"));
}

TEST(PngCodec, OnlyWantedAndEmptyOutputsAreProduced) {
    const Bytes png = pngOf(*gradientImage(5, 4), true);
    RandomAccessFileMemory memory(png.data(), png.size());
    ImagePtr existing = solidImage(1, 1, 1, 2, 3);
    ImagePtr image = existing;
    SharedPtr<Metadata> metadata;
    EXPECT_TRUE(loadPng(memory, &image, &metadata));
    EXPECT_EQ(image, existing);
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->size(), Vec2i(5, 4));

    SharedPtr<Metadata> onlyMetadata;
    EXPECT_TRUE(loadPng(memory, nullptr, &onlyMetadata));
    EXPECT_TRUE(onlyMetadata);
}

}  // namespace
}  // namespace qor::imageio
