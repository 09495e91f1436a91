// The registry decoders on files made here with each format's own encoder (giflib, libwebp,
// libheif) or written byte by byte (BMP). Camera raw files are DNGs written with libtiff: the raw
// decoder is tested on them and for its dispatch by extension and LibRaw's refusal of files that
// are not raw.

#include <gif_lib.h>
#include <gtest/gtest.h>
#include <libheif/heif.h>
#include <webp/encode.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include "FormatSamples.h"
#include "TestRaw.h"
#include "base/Log.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageIO.h"
#include "imageio/decoders/detail/ImageResize.h"

// x265, behind libheif's HEVC encoder, keeps a few blocks of global state for the life of the
// process; they are not this library's leaks.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }

namespace qor::imageio {
namespace {

using namespace testing;
using Rgba8 = imaging::GenImageData<unsigned char, 4>;
using Vec = math::GenVec<int, 2>;

constexpr Vec kFullSize(0, 0);

// A gradient that differs in every pixel of the small images used here.
Pixel pattern(int x, int y) { return {x * 37 % 256, y * 53 % 256, (x + 2 * y) * 11 % 256, 255}; }

struct Decoded {
    bool ok = false;
    ImageOut image;
    SharedPtr<Metadata> metadata;
};

Decoded decode(const std::string& path, Vec size = kFullSize,
               ImageQuality quality = ImageQualityBest, const math::Recti& roi = math::Recti()) {
    Decoded d;
    d.ok = decodeWithRegistry(FastString<char>(path), size, quality, &d.image, &d.metadata, roi);
    return d;
}

// --- GIF through giflib's encoder ---

TEST(GifDecoder, FirstFrameOnTransparentScreenWithTransparentColour) {
    TempFolder folder;
    GifRecipe recipe;
    recipe.screen = Vec(6, 5);
    recipe.frame = math::Recti(1, 1, 4, 3);
    recipe.transparent = 9;
    recipe.index = [](int x, int y) { return x == 0 && y == 0 ? 9 : 20 + x + 4 * y; };
    recipe.secondFrame = true;
    const Decoded d = decode(folder.write("a.gif", makeGif(recipe)));
    ASSERT_TRUE(d.ok);
    ASSERT_EQ(d.image->width(), 6);
    ASSERT_EQ(d.image->height(), 5);
    EXPECT_EQ(d.metadata->size(), Vec2i(6, 5));
    for (int y = 0; y < 5; ++y) {
        for (int x = 0; x < 6; ++x) {
            const bool inFrame = recipe.frame.contains(Vec(x, y));
            const int fx = x - 1, fy = y - 1;
            if (!inFrame || (fx == 0 && fy == 0))
                EXPECT_EQ(pixelAt(*d.image, x, y)[3], 0) << x << "," << y;
            else
                EXPECT_EQ(pixelAt(*d.image, x, y), paletteColour(20 + fx + 4 * fy))
                    << x << "," << y;
        }
    }
}

TEST(GifDecoder, InterlacedRowsComeOutInOrder) {
    TempFolder folder;
    GifRecipe recipe;
    recipe.screen = Vec(3, 19);
    recipe.frame = math::Recti(Vec(3, 19));
    recipe.interlace = true;
    recipe.index = [](int, int y) { return 100 + y; };
    const Decoded d = decode(folder.write("i.gif", makeGif(recipe)));
    ASSERT_TRUE(d.ok);
    for (int y = 0; y < 19; ++y) EXPECT_EQ(pixelAt(*d.image, 2, y), paletteColour(100 + y)) << y;
}

TEST(GifDecoder, DamagedFiles) {
    TempFolder folder;
    GifRecipe recipe;
    recipe.screen = Vec(64, 64);
    recipe.frame = math::Recti(Vec(64, 64));
    std::mt19937 random(7);
    std::vector<int> noise(64 * 64);
    for (int& n : noise) n = int(random() % 256);
    recipe.index = [&](int x, int y) { return noise[size_t(y * 64 + x)]; };
    const Bytes whole = makeGif(recipe);

    // Cut in the middle of the pixel data: the rows read are kept, the rest is transparent.
    LogCapture log;
    const Decoded cut =
        decode(folder.write("cut.gif", Bytes(whole.begin(), whole.begin() + whole.size() / 2)));
    ASSERT_TRUE(cut.ok);
    EXPECT_TRUE(log.contains("ends early"));
    EXPECT_EQ(pixelAt(*cut.image, 5, 0), paletteColour(noise[5]));
    EXPECT_EQ(pixelAt(*cut.image, 5, 63)[3], 0);

    // A screen of 65535 x 65535 is refused before anything is allocated.
    Bytes huge = whole;
    huge[6] = huge[7] = huge[8] = huge[9] = 0xFF;
    const std::string hugePath = folder.write("huge.gif", huge);
    EXPECT_FALSE(decode(hugePath).ok);
    EXPECT_TRUE(log.contains("Failed to load image using WIC: '" + hugePath + "'"));

    // Only the signature.
    EXPECT_FALSE(decode(folder.write("stub.gif", Bytes(whole.begin(), whole.begin() + 8))).ok);
}

// --- WebP through libwebp's encoder ---

Pixel withAlpha(int x, int y) {
    Pixel p = pattern(x, y);
    p[3] = (x * 29 + y) % 256;
    if (p[3] == 0) p = {0, 0, 0, 0};  // the encoder may drop colour under alpha 0
    return p;
}

TEST(WebpDecoder, LosslessWithAlphaRegionAndMetadataOnly) {
    TempFolder folder;
    const std::string path = folder.write("a.webp", makeWebp(23, 17, true, withAlpha));
    const Decoded d = decode(path);
    ASSERT_TRUE(d.ok);
    ASSERT_EQ(d.image->width(), 23);
    ASSERT_EQ(d.image->height(), 17);
    for (int y = 0; y < 17; ++y)
        for (int x = 0; x < 23; ++x) ASSERT_EQ(pixelAt(*d.image, x, y), withAlpha(x, y));
    EXPECT_EQ(d.metadata->size(), Vec2i(23, 17));

    const math::Recti roi(5, 3, 7, 9);
    const Decoded r = decode(path, Vec(4, 4), ImageQualityBest, roi);
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.image->width(), 7);
    ASSERT_EQ(r.image->height(), 9);
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 7; ++x) ASSERT_EQ(pixelAt(*r.image, x, y), withAlpha(x + 5, y + 3));
    EXPECT_EQ(r.metadata->size(), Vec2i(23, 17));

    SharedPtr<Metadata> metadata;
    EXPECT_TRUE(decodeWithRegistry(FastString<char>(path), kFullSize, ImageQualityFast, nullptr,
                                   &metadata, math::Recti()));
    EXPECT_EQ(metadata->size(), Vec2i(23, 17));
}

TEST(WebpDecoder, LossyReducedBetweenHalves) {
    TempFolder folder;
    // Left half red, right half blue; reduced to a quarter, the halves stay apart.
    const auto halves = [](int x, int) {
        return x < 40 ? Pixel{255, 0, 0, 255} : Pixel{0, 0, 255, 255};
    };
    const Decoded d = decode(folder.write("l.webp", makeWebp(80, 40, false, halves)), Vec(20, 100));
    ASSERT_TRUE(d.ok);
    ASSERT_EQ(d.image->width(), 20);
    ASSERT_EQ(d.image->height(), 10);
    const Pixel left = pixelAt(*d.image, 2, 5), right = pixelAt(*d.image, 17, 5);
    // Lossy chroma: within 24 levels of the pure colours.
    EXPECT_NEAR(left[0], 255, 24);
    EXPECT_NEAR(left[2], 0, 24);
    EXPECT_NEAR(right[0], 0, 24);
    EXPECT_NEAR(right[2], 255, 24);
    EXPECT_EQ(left[3], 255);
    EXPECT_EQ(d.metadata->size(), Vec2i(80, 40));
}

TEST(WebpDecoder, DamagedFiles) {
    TempFolder folder;
    const Bytes whole = makeWebp(64, 64, false, pattern);
    EXPECT_FALSE(
        decode(folder.write("cut.webp", Bytes(whole.begin(), whole.begin() + whole.size() / 2)))
            .ok);
    Bytes noise = whole;
    std::mt19937 random(3);
    for (size_t i = 20; i < noise.size(); ++i) noise[i] = uint8_t(random());
    EXPECT_FALSE(decode(folder.write("noise.webp", noise)).ok);
}

// --- HEIF through libheif's encoder, when this libheif has one ---

// Left half red, right half blue.
Pixel halves(int x, int, int w) {
    return x < w / 2 ? Pixel{255, 0, 0, 255} : Pixel{0, 0, 255, 255};
}

TEST(HeifDecoder, PrimaryImageThumbnailAndCaptureTime) {
    TempFolder folder;
    const HeifFile file = makeHeif(
        folder, "image.heic", 128, 64, [](int x, int y) { return halves(x, y, 128); }, 32,
        "2021:06:15 10:20:30");
    if (!file.skipReason.empty()) GTEST_SKIP() << file.skipReason;

    const Decoded best = decode(file.path);
    ASSERT_TRUE(best.ok);
    ASSERT_EQ(best.image->width(), 128);
    ASSERT_EQ(best.image->height(), 64);
    // Lossy coding: within 24 levels of the pure colours away from the edge between them.
    EXPECT_NEAR(pixelAt(*best.image, 10, 30)[0], 255, 24);
    EXPECT_NEAR(pixelAt(*best.image, 118, 30)[2], 255, 24);
    EXPECT_EQ(pixelAt(*best.image, 118, 30)[3], 255);
    EXPECT_EQ(best.metadata->size(), Vec2i(128, 64));
    EXPECT_EQ(best.metadata->captureTime(), Timestamp::fromFields(2021, 6, 15, 10, 20, 30));

    // The thumbnail fits the 32 box: 32 x 16, reported as what was decoded.
    const Decoded thumb = decode(file.path, Vec(100, 100), ImageQualityThumbnail);
    ASSERT_TRUE(thumb.ok);
    EXPECT_EQ(thumb.metadata->size(), Vec2i(32, 16));
    EXPECT_EQ(thumb.image->width(), 100);
    EXPECT_EQ(thumb.image->height(), 50);

    const Decoded region = decode(file.path, kFullSize, ImageQualityBest, math::Recti(60, 0, 8, 4));
    ASSERT_TRUE(region.ok);
    EXPECT_EQ(region.image->width(), 8);
    EXPECT_NEAR(pixelAt(*region.image, 0, 0)[0], 255, 24);
    EXPECT_NEAR(pixelAt(*region.image, 7, 0)[2], 255, 24);
}

TEST(HeifDecoder, TruncatedFileIsRefused) {
    TempFolder folder;
    const HeifFile file =
        makeHeif(folder, "image.heic", 64, 64, [](int x, int y) { return halves(x, y, 64); });
    if (!file.skipReason.empty()) GTEST_SKIP() << file.skipReason;
    std::ifstream in(file.path, std::ios::binary);
    const Bytes whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_FALSE(
        decode(folder.write("cut.heic", Bytes(whole.begin(), whole.begin() + whole.size() / 2)))
            .ok);
}

// --- BMP written byte by byte ---

struct BmpRecipe {
    const char* signature = "BM";
    uint32_t infoSize = 40;
    int32_t width = 0;
    int32_t height = 0;  // negative: top-down
    uint16_t bits = 24;
    uint32_t compression = 0;
    std::vector<uint32_t> masks;                       // at offset 54, in the header or behind it
    Bytes palette;                                     // B, G, R, 0 entries
    std::function<void(int row, uint8_t* bytes)> row;  // rows in file order
};

void put16(Bytes& b, size_t at, uint32_t v) {
    b[at] = uint8_t(v);
    b[at + 1] = uint8_t(v >> 8);
}
void put32(Bytes& b, size_t at, uint32_t v) {
    put16(b, at, v);
    put16(b, at + 2, v >> 16);
}
void put16u(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}

Bytes makeBmp(const BmpRecipe& s) {
    const size_t masksBehind = s.infoSize == 40 ? s.masks.size() * 4 : 0;
    const size_t offset = 14 + s.infoSize + masksBehind + s.palette.size();
    const int rows = std::abs(s.height);
    const size_t stride = (size_t(s.width) * s.bits + 31) / 32 * 4;
    Bytes b(offset + stride * rows);
    b[0] = uint8_t(s.signature[0]);
    b[1] = uint8_t(s.signature[1]);
    put32(b, 2, uint32_t(b.size()));
    put32(b, 10, uint32_t(offset));
    put32(b, 14, s.infoSize);
    put32(b, 18, uint32_t(s.width));
    put32(b, 22, uint32_t(s.height));
    put16(b, 26, 1);
    put16(b, 28, s.bits);
    put32(b, 30, s.compression);
    put32(b, 34, uint32_t(stride * rows));
    for (size_t i = 0; i < s.masks.size(); ++i) put32(b, 54 + i * 4, s.masks[i]);
    std::copy(s.palette.begin(), s.palette.end(), b.begin() + ptrdiff_t(offset - s.palette.size()));
    for (int r = 0; r < rows; ++r) s.row(r, b.data() + offset + stride * r);
    return b;
}

TEST(BmpDecoder, TwentyFourBitBottomUpWithPadding) {
    TempFolder folder;
    BmpRecipe s;
    s.width = 5;  // 15 bytes a row, padded to 16
    s.height = 3;
    s.row = [](int r, uint8_t* p) {
        for (int x = 0; x < 5; ++x) {
            const Pixel c = pattern(x, 2 - r);
            p[x * 3] = uint8_t(c[2]), p[x * 3 + 1] = uint8_t(c[1]), p[x * 3 + 2] = uint8_t(c[0]);
        }
    };
    const Decoded d = decode(folder.write("a.bmp", makeBmp(s)));
    ASSERT_TRUE(d.ok);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(pixelAt(*d.image, x, y), pattern(x, y));
    EXPECT_EQ(d.metadata->size(), Vec2i(5, 3));
}

// The layout that saveBmp writes: "MB", a 108-byte header, bit fields R G B A in byte order,
// bottom row first.
TEST(BmpDecoder, ReadsOwnWriterLayoutWithAlphaAndTopDown) {
    TempFolder folder;
    BmpRecipe s;
    s.signature = "MB";
    s.infoSize = 108;
    s.width = 4;
    s.height = 3;
    s.bits = 32;
    s.compression = 3;
    s.masks = {0xFF, 0xFF00, 0xFF0000, 0xFF000000};
    s.row = [](int r, uint8_t* p) {
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 4; ++c) p[x * 4 + c] = uint8_t(withAlpha(x, 2 - r)[c]);
    };
    Bytes file = makeBmp(s);
    ASSERT_EQ(file.size(), 4u * 3 * 4 + 122);
    const Decoded d = decode(folder.write("own.bmp", file));
    ASSERT_TRUE(d.ok);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(pixelAt(*d.image, x, y), withAlpha(x, y));

    s.height = -3;
    s.row = [](int r, uint8_t* p) {
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 4; ++c) p[x * 4 + c] = uint8_t(withAlpha(x, r)[c]);
    };
    const Decoded top = decode(folder.write("top.bmp", makeBmp(s)));
    ASSERT_TRUE(top.ok);
    EXPECT_EQ(top.metadata->size(), Vec2i(4, 3));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(pixelAt(*top.image, x, y), withAlpha(x, y));
}

TEST(BmpDecoder, LoadImageReadsWhatSaveBmpWrites) {
    TempFolder folder;
    SharedPtr<Rgba8> picture = Rgba8::create(7, 5);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x)
            for (int c = 0; c < 4; ++c) picture->at(x, y, c) = uint8_t(withAlpha(x, y)[c]);
    const FastString<char> path((folder.path() + "/saved.bmp").c_str());
    ASSERT_TRUE(saveBmp(path, picture));
    ImageOut loaded;
    SharedPtr<Metadata> metadata;
    loadImage(path, kFullSize, ImageQualityBest, &loaded, &metadata);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(metadata->size(), Vec2i(7, 5));
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) EXPECT_EQ(pixelAt(*loaded, x, y), withAlpha(x, y));
}

TEST(BmpDecoder, PlainThirtyTwoBitIsOpaqueAndSixteenBitFieldsScale) {
    TempFolder folder;
    BmpRecipe s;
    s.width = 2;
    s.height = 1;
    s.bits = 32;
    s.row = [](int, uint8_t* p) {
        const uint8_t bytes[8] = {10, 20, 30, 0, 40, 50, 60, 0};  // B G R X
        std::copy(bytes, bytes + 8, p);
    };
    const Decoded plain = decode(folder.write("x.bmp", makeBmp(s)));
    ASSERT_TRUE(plain.ok);
    EXPECT_EQ(pixelAt(*plain.image, 0, 0), (Pixel{30, 20, 10, 255}));
    EXPECT_EQ(pixelAt(*plain.image, 1, 0), (Pixel{60, 50, 40, 255}));

    // 5-6-5 masks behind an INFO header: full scale maps to 255, mid-scale rounds.
    s.bits = 16;
    s.compression = 3;
    s.masks = {0xF800, 0x07E0, 0x001F};
    s.row = [](int, uint8_t* p) {
        put16u(p, 0xF800 | 0x0000 | 0x001F);
        put16u(p + 2, (16u << 11) | (32u << 5));
    };
    const Decoded fields = decode(folder.write("f.bmp", makeBmp(s)));
    ASSERT_TRUE(fields.ok);
    EXPECT_EQ(pixelAt(*fields.image, 0, 0), (Pixel{255, 0, 255, 255}));
    EXPECT_EQ(pixelAt(*fields.image, 1, 0), (Pixel{132, 130, 0, 255}));
}

TEST(BmpDecoder, EightBitPalette) {
    TempFolder folder;
    BmpRecipe s;
    s.width = 3;
    s.height = 2;
    s.bits = 8;
    for (int i = 0; i < 256; ++i) {
        const Pixel c = paletteColour(i);
        s.palette.insert(s.palette.end(), {uint8_t(c[2]), uint8_t(c[1]), uint8_t(c[0]), 0});
    }
    s.row = [](int r, uint8_t* p) {
        for (int x = 0; x < 3; ++x) p[x] = uint8_t(50 + x + 10 * r);
    };
    const Decoded d = decode(folder.write("p.bmp", makeBmp(s)));
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(pixelAt(*d.image, 2, 1), paletteColour(52));  // file row 0 is the bottom row
    EXPECT_EQ(pixelAt(*d.image, 0, 0), paletteColour(60));
}

TEST(BmpDecoder, RefusesDamagedAndUnsupportedFiles) {
    TempFolder folder;
    BmpRecipe s;
    s.width = 40;
    s.height = 40;
    s.row = [](int, uint8_t*) {};
    const Bytes whole = makeBmp(s);
    EXPECT_FALSE(decode(folder.write("cut.bmp", Bytes(whole.begin(), whole.end() - 200))).ok);

    Bytes huge = whole;
    put32(huge, 18, 100000);
    put32(huge, 22, 100000);
    EXPECT_FALSE(decode(folder.write("huge.bmp", huge)).ok);

    Bytes negative = whole;
    put32(negative, 18, uint32_t(-5));
    EXPECT_FALSE(decode(folder.write("neg.bmp", negative)).ok);

    Bytes rle = whole;
    put16(rle, 28, 8);
    put32(rle, 30, 1);  // BI_RLE8
    EXPECT_FALSE(decode(folder.write("rle.bmp", rle)).ok);
}

// --- Camera raw ---

// A camera held upright: the preview is stored turned (left half red, right half green, marked
// with orientation 6, turn right to view). Preview and developed picture both come upright: red
// on top, the sizes exchanged, and a fitted preview fills the box as the upright picture does.
TEST(RawDecoder, PreviewAndDevelopedPictureComeUpright) {
    TempFolder folder;
    const std::string path = folder.path() + "/upright.dng";
    ASSERT_TRUE(testing::writeDng(path, 32, 16, 6, [](int x, int, unsigned char* rgb) {
        rgb[0] = x < 16 ? 255 : 0, rgb[1] = x < 16 ? 0 : 255, rgb[2] = 0;
    }));
    const Decoded preview = decode(path, kFullSize, ImageQualityThumbnail);
    ASSERT_TRUE(preview.ok);
    ASSERT_EQ(Vec(preview.image->width(), preview.image->height()), Vec(16, 32));
    EXPECT_EQ(preview.metadata->size(), Vec(16, 32));
    EXPECT_GT(preview.image->row(4)[8 * 4], 200);       // red on top
    EXPECT_GT(preview.image->row(28)[8 * 4 + 1], 200);  // green below
    const Decoded fitted = decode(path, Vec(8, 16), ImageQualityThumbnail);
    ASSERT_TRUE(fitted.ok);
    EXPECT_EQ(Vec(fitted.image->width(), fitted.image->height()), Vec(8, 16));
    const Decoded developed = decode(path);
    ASSERT_TRUE(developed.ok);
    EXPECT_EQ(Vec(developed.image->width(), developed.image->height()), Vec(32, 64));
}

TEST(RawDecoder, TakesRawExtensionsButLeavesSignedFormatsToTheirDecoders) {
    TempFolder folder;
    LogCapture log;
    // Raw files are TIFF inside: a TIFF under a raw name is the raw decoder's (LibRaw refuses
    // this one, which holds no raw data).
    const std::string tiffAsRaw = folder.path() + "/photo.nef";
    ImageSaverTIFF().save4ub(FastString<char>(folder.path() + "/photo.tif"), gradientImage(8, 8));
    std::filesystem::rename(folder.path() + "/photo.tif", tiffAsRaw);
    EXPECT_FALSE(decode(tiffAsRaw).ok);
    EXPECT_TRUE(log.contains("Raw file '" + tiffAsRaw + "' cannot be opened"));
    EXPECT_TRUE(log.contains("Failed to load image using WIC: '" + tiffAsRaw + "'"));
    // A JPEG has a signature of its own and is decoded as one under any name.
    const Decoded jpegAsRaw = decode(folder.write("photo.nrw", testing::makeJpeg(16, 8)));
    ASSERT_TRUE(jpegAsRaw.ok);
    EXPECT_EQ(jpegAsRaw.metadata->size(), Vec2i(16, 8));

    std::mt19937 random(11);
    Bytes noise(4096);
    for (uint8_t& b : noise) b = uint8_t(random());
    const std::string noiseAsRaw = folder.write("noise.CR2", noise);
    EXPECT_FALSE(decode(noiseAsRaw).ok);
    EXPECT_TRUE(log.contains("Raw file '" + noiseAsRaw + "'"));

    // A GIF named as a raw file reaches the GIF decoder, which knows it by its signature.
    GifRecipe recipe;
    recipe.screen = Vec(2, 2);
    recipe.frame = math::Recti(Vec(2, 2));
    recipe.index = [](int, int) { return 5; };
    EXPECT_TRUE(decode(folder.write("misnamed.DNG", makeGif(recipe))).ok);

    // No decoder: an unknown extension and no signature.
    const std::string unknown = folder.write("noise.xyz", noise);
    EXPECT_FALSE(decode(unknown).ok);
    EXPECT_EQ(log.count("Failed to load image using WIC: '" + unknown + "'"), 1u);
}

// --- The contract shared by every decoder ---

TEST(DecoderContract, FitRegionOutputsAlreadyThereAndThumbnailFallback) {
    TempFolder folder;
    const std::string path = folder.write("c.webp", makeWebp(40, 20, true, pattern));

    // Fitted inside the box, enlarged as well as reduced.
    EXPECT_EQ(decode(path, Vec(10, 10)).image->width(), 10);
    EXPECT_EQ(decode(path, Vec(10, 10)).image->height(), 5);
    EXPECT_EQ(decode(path, Vec(200, 200)).image->height(), 100);
    // No preview in the file: the picture itself.
    EXPECT_EQ(decode(path, kFullSize, ImageQualityThumbnail).image->width(), 40);

    // A region outside the image gives nothing.
    EXPECT_FALSE(decode(path, kFullSize, ImageQualityBest, math::Recti(30, 0, 20, 5)).ok);

    // Outputs that are already there are left alone.
    ImageOut image = Rgba8::create(1, 1);
    SharedPtr<Metadata> metadata = std::make_shared<Metadata>();
    const ImageOut before = image;
    const SharedPtr<Metadata> beforeMetadata = metadata;
    EXPECT_TRUE(decodeWithRegistry(FastString<char>(path), kFullSize, ImageQualityBest, &image,
                                   &metadata, math::Recti()));
    EXPECT_EQ(image, before);
    EXPECT_EQ(metadata, beforeMetadata);
    Vec2i size;
    EXPECT_FALSE(metadata->get(MetadataField::Imagesize, size));
}

// Several formats decoded on several threads at once give what one thread gives.
TEST(DecoderThreads, ConcurrentDecodesMatchSequentialOnes) {
    TempFolder folder;
    GifRecipe recipe;
    recipe.screen = Vec(30, 30);
    recipe.frame = math::Recti(Vec(30, 30));
    recipe.index = [](int x, int y) { return (x * y) % 256; };
    BmpRecipe bmp;
    bmp.width = 30;
    bmp.height = 30;
    bmp.row = [](int r, uint8_t* p) {
        for (int i = 0; i < 90; ++i) p[i] = uint8_t(i * r);
    };
    const std::vector<std::string> paths = {
        folder.write("t.gif", makeGif(recipe)),
        folder.write("t.webp", makeWebp(30, 30, true, withAlpha)),
        folder.write("t.bmp", makeBmp(bmp))};
    std::vector<ImageOut> expected;
    for (const std::string& p : paths) expected.push_back(decode(p, Vec(13, 13)).image);

    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 5; ++round) {
                const size_t i = size_t(t + round) % paths.size();
                const ImageOut got = decode(paths[i], Vec(13, 13)).image;
                // Pixels only: the padding behind each row is never written.
                if (!got || maxDifference(*got, *expected[i]) != 0) ++mismatches;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

// --- Resizing to the requested size ---

SharedPtr<Rgba8> imageOf(int w, int h, const std::vector<Pixel>& pixels) {
    SharedPtr<Rgba8> image = Rgba8::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c) image->at(x, y, c) = uint8_t(pixels[size_t(y * w + x)][c]);
    return image;
}

TEST(ImageResize, ReducesByAreaAndEnlargesBilinearlyWeightingColourByAlpha) {
    const std::vector<Pixel> pair = {{100, 0, 50, 255}, {200, 100, 150, 255}};
    EXPECT_EQ(pixelAt(*detail::resizeRgba(imageOf(2, 1, pair), 1, 1), 0, 0),
              (Pixel{150, 50, 100, 255}));

    // Three to two: each target covers one and a half source pixels.
    const auto reduced = detail::resizeRgba(
        imageOf(3, 1, {{0, 0, 0, 255}, {90, 90, 90, 255}, {180, 180, 180, 255}}), 2, 1);
    EXPECT_EQ(pixelAt(*reduced, 0, 0)[0], 30);   // (0 + 0.5 * 90) / 1.5
    EXPECT_EQ(pixelAt(*reduced, 1, 0)[0], 150);  // (0.5 * 90 + 180) / 1.5

    // A transparent neighbour lends no colour, only its transparency.
    const std::vector<Pixel> halfClear = {{255, 0, 0, 255}, {0, 255, 0, 0}};
    EXPECT_EQ(pixelAt(*detail::resizeRgba(imageOf(2, 1, halfClear), 1, 1), 0, 0),
              (Pixel{255, 0, 0, 128}));

    // Enlarged: pixel centres line up, so the outer pixels keep their colour and the inner ones
    // blend a quarter of the neighbour in.
    const auto big = detail::resizeRgba(imageOf(2, 1, pair), 4, 2);
    EXPECT_EQ(pixelAt(*big, 0, 1), pair[0]);
    EXPECT_EQ(pixelAt(*big, 1, 0), (Pixel{125, 25, 75, 255}));
    EXPECT_EQ(pixelAt(*big, 3, 1), pair[1]);
    EXPECT_EQ(pixelAt(*detail::resizeRgba(imageOf(2, 1, halfClear), 4, 1), 1, 0),
              (Pixel{255, 0, 0, 191}));
}

// The bilinear enlargement the decoders had before libswscale did it, kept as the reference: each
// target pixel blends the four nearest source pixels, weighted by distance and by alpha, pixel
// centres lined up (target t samples source (t + 0.5) * source / target - 0.5, clamped).
SharedPtr<Rgba8> referenceEnlargement(const Rgba8& source, int width, int height) {
    auto sample = [](int t, int from, int to, int& first, int& second, double& weight) {
        const double s = std::clamp((t + 0.5) * from / to - 0.5, 0.0, double(from - 1));
        first = int(s);
        second = std::min(from - 1, first + 1);
        weight = s - first;
    };
    SharedPtr<Rgba8> result = Rgba8::create(width, height);
    for (int y = 0; y < height; ++y) {
        int y0, y1;
        double wy;
        sample(y, source.height(), height, y0, y1, wy);
        for (int x = 0; x < width; ++x) {
            int x0, x1;
            double wx;
            sample(x, source.width(), width, x0, x1, wx);
            double acc[4] = {0, 0, 0, 0};
            const std::pair<int, double> xs[2] = {{x0, 1 - wx}, {x1, wx}};
            const std::pair<int, double> ys[2] = {{y0, 1 - wy}, {y1, wy}};
            for (auto [sy, fy] : ys)
                for (auto [sx, fx] : xs) {
                    const double w = fy * fx * source.at(sx, sy, 3);
                    for (int c = 0; c < 3; ++c) acc[c] += w * source.at(sx, sy, c);
                    acc[3] += w;
                }
            for (int c = 0; c < 3; ++c)
                result->at(x, y, c) = uint8_t(acc[3] > 0 ? std::lround(acc[c] / acc[3]) : 0);
            result->at(x, y, 3) = uint8_t(std::lround(acc[3]));
        }
    }
    return result;
}

// Enlargements against the reference on random images with random transparency, for several
// proportions, one side kept among them. The library steps through the source in 16.16 fixed
// point with 14-bit weights where the reference uses exact doubles; its rounded step drifts by
// up to half a 65536th of a source pixel per target pixel, which at 3 -> 1000 moves the last
// samples by 0.006 source pixels. So colour as it shows when composited (premultiplied by alpha)
// may differ by two levels and alpha by one. Unpremultiplied, a small alpha magnifies those
// differences; where alpha is at least 64 the colour stays within two levels.
TEST(ImageResize, EnlargementMatchesTheBilinearReference) {
    std::mt19937 random(7);
    const std::pair<Vec, Vec> sizes[] = {{Vec(7, 5), Vec(19, 13)},
                                         {Vec(33, 17), Vec(100, 51)},
                                         {Vec(64, 48), Vec(64, 97)},
                                         {Vec(3, 1), Vec(1000, 2)},
                                         {Vec(1, 1), Vec(5, 5)}};
    for (const auto& [from, to] : sizes) {
        SharedPtr<Rgba8> image = Rgba8::create(from.x, from.y);
        for (int y = 0; y < from.y; ++y)
            for (int x = 0; x < from.x; ++x) {
                const int kind = int(random() % 4);  // opaque, clear or in between
                for (int c = 0; c < 3; ++c) image->at(x, y, c) = uint8_t(random());
                image->at(x, y, 3) = uint8_t(kind == 0 ? 255 : kind == 1 ? 0 : random());
            }
        const SharedPtr<Rgba8> expected = referenceEnlargement(*image, to.x, to.y);
        const SharedPtr<Rgba8> got = detail::resizeRgba(image, to.x, to.y);
        ASSERT_EQ(got->width(), to.x);
        ASSERT_EQ(got->height(), to.y);
        int alphaDiff = 0, shownDiff = 0, colourDiff = 0;
        for (int y = 0; y < to.y; ++y)
            for (int x = 0; x < to.x; ++x) {
                const Pixel a = pixelAt(*got, x, y), b = pixelAt(*expected, x, y);
                alphaDiff = std::max(alphaDiff, std::abs(a[3] - b[3]));
                for (int c = 0; c < 3; ++c) {
                    const int shown = int(std::lround(std::abs(a[c] * a[3] - b[c] * b[3]) / 255.0));
                    shownDiff = std::max(shownDiff, shown);
                    if (a[3] >= 64 && b[3] >= 64)
                        colourDiff = std::max(colourDiff, std::abs(a[c] - b[c]));
                }
            }
        SCOPED_TRACE(::testing::Message()
                     << from.x << "x" << from.y << " -> " << to.x << "x" << to.y);
        EXPECT_LE(alphaDiff, 1);
        EXPECT_LE(shownDiff, 2);
        EXPECT_LE(colourDiff, 2);
    }
}

// Where one side grows and the other shrinks, the shrinking side is still an area average: each
// of two target columns is the mean of four source columns, not a blend of the nearest two.
TEST(ImageResize, ShrinkingSideOfAMixedResizeIsAnAreaAverage) {
    const int columns[8] = {0, 40, 80, 120, 200, 100, 0, 100};
    std::vector<Pixel> pixels;
    for (int y = 0; y < 2; ++y)
        for (int c : columns) pixels.push_back({c, 255 - c, c / 2, 255});
    const SharedPtr<Rgba8> got = detail::resizeRgba(imageOf(8, 2, pixels), 2, 5);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 2; ++x) {
            const int mean =
                (columns[4 * x] + columns[4 * x + 1] + columns[4 * x + 2] + columns[4 * x + 3]) / 4;
            const Pixel p = pixelAt(*got, x, y);
            EXPECT_NEAR(p[0], mean, 1) << x << "," << y;
            EXPECT_NEAR(p[1], 255 - mean, 1) << x << "," << y;
            EXPECT_EQ(p[3], 255);
        }
}


}  // namespace
}  // namespace qor::imageio
