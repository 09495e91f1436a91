#include <gtest/gtest.h>
#include <jerror.h>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "base/filesystem/FileRegion.h"
#include "base/filesystem/Path.h"
#include "imageio/MetadataReader.h"
#include "imageio/detail/JpegCodec.h"

namespace qor::imageio {
namespace {

using namespace testing;
using S = FastString<char>;
using Vec2i = math::GenVec<int, 2>;

ImagePtr decodeBytes(const Bytes& jpeg, Vec2i size = Vec2i(0, 0),
                     ImageQuality quality = ImageQualityBest) {
    ImagePtr image;
    loadJpeg(jpeg.data(), jpeg.size(), size, quality, &image);
    return image;
}

Bytes encodeToMemory(const ConstImagePtr& image, int quality) {
    Bytes buffer(1 << 20);
    uint64_t written = 0;
    if (!saveJpeg(buffer.data(), buffer.size(), image, quality, &written)) return Bytes();
    buffer.resize(written);
    return buffer;
}

TEST(JpegCodec, RoundTripThroughAFileStaysWithinJpegTolerance) {
    TempFolder folder;
    const std::string path = folder.path() + "/round.jpg";
    ImagePtr original = gradientImage(96, 64);
    ASSERT_TRUE(saveJpeg(S(path), original, 95));

    ImagePtr loaded;
    loadImage(S(path), Vec2i(0, 0), ImageQualityBest, &loaded, nullptr);
    ASSERT_TRUE(loaded);
    // Smooth gradients at quality 95 with 2x2 chroma subsampling: a few levels of error at most.
    EXPECT_LE(maxDifference(*original, *loaded, 3), 8);
    for (int y = 0; y < loaded->height(); ++y)
        for (int x = 0; x < loaded->width(); ++x) ASSERT_EQ(loaded->at(x, y, 3), 255);
}

TEST(JpegCodec, SavingDropsAlphaWithoutBlending) {
    // Transparent and opaque pixels of one colour must come back as that colour.
    ImagePtr image = solidImage(32, 16, 200, 40, 120, 0);
    for (int x = 16; x < 32; ++x)
        for (int y = 0; y < 16; ++y) image->at(x, y, 3) = 255;
    const Bytes jpeg = encodeToMemory(image, 100);
    ImagePtr loaded = decodeBytes(jpeg);
    ASSERT_TRUE(loaded);
    ImagePtr expected = solidImage(32, 16, 200, 40, 120, 255);
    EXPECT_LE(maxDifference(*expected, *loaded), 3);  // colour conversion rounding only
}

TEST(JpegCodec, RequestedSizeReducesButNeverEnlarges) {
    const Bytes jpeg = makeJpeg(800, 600);
    struct Case {
        Vec2i request;
        Vec2i expected;
    } cases[] = {
        {{0, 0}, {800, 600}},                                // full size
        {{1000, 1000}, {800, 600}},                          // never enlarged
        {{800, 600}, {800, 600}},   {{100, 75}, {100, 75}},  // libjpeg's 1/4, then the last step
        {{300, 300}, {300, 225}},                            // fitted inside, proportions kept
        {{1600, 300}, {400, 300}},
    };
    for (const Case& c : cases) {
        ImagePtr image = decodeBytes(jpeg, c.request, ImageQualityFast);
        ASSERT_TRUE(image) << c.request;
        EXPECT_EQ(Vec2i(image->width(), image->height()), c.expected) << c.request;
    }
}

TEST(JpegCodec, ScaleDenominatorIsTheLargestReductionTheRequestIsBelow) {
    const Vec2i full(800, 600);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {0, 10}), 1);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {10, 0}), 1);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {99, 600}), 8);  // 99 < 800 / 8
    EXPECT_EQ(detail::jpegScaleDenominator(full, {800, 74}), 8);  // either side decides
    EXPECT_EQ(detail::jpegScaleDenominator(full, {100, 600}), 4);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {199, 600}), 4);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {200, 600}), 2);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {399, 2000}), 2);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {400, 300}), 1);
    EXPECT_EQ(detail::jpegScaleDenominator(full, {5000, 5000}), 1);
}

TEST(JpegCodec, TruncatedFileGivesAFullSizePartialImage) {
    const Bytes whole = makeJpeg(256, 256, 90);
    const Bytes cut(whole.begin(), whole.begin() + whole.size() * 6 / 10);
    TempFolder folder;
    const std::string path = folder.write("cut.jpg", cut);

    ImagePtr full = decodeBytes(whole);
    LogCapture log;
    ImagePtr partial;
    loadImage(S(path), Vec2i(0, 0), ImageQualityBest, &partial, nullptr);
    ASSERT_TRUE(partial);
    EXPECT_EQ(partial->width(), 256);
    EXPECT_EQ(partial->height(), 256);
    EXPECT_TRUE(log.contains("raf_fill_input_buffer: Premature end of file"));
    // The rows before the cut are decoded as in the whole file.
    EXPECT_EQ(maxDifference(*crop(*full, {0, 0, 256, 64}), *crop(*partial, {0, 0, 256, 64})), 0);

    // The same from memory, where libjpeg's own warning marks the end.
    ImagePtr fromMemory = decodeBytes(cut);
    ASSERT_TRUE(fromMemory);
    EXPECT_EQ(maxDifference(*fromMemory, *partial), 0);
}

// The picture as plain libjpeg gives it in RGB, one scanline a call, with the decoder's settings
// for `quality` and the reduction 1/`denominator`.
ImagePtr libjpegRgb(const Bytes& jpeg, ImageQuality quality, unsigned denominator) {
    jpeg_decompress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_decompress(&c);
    jpeg_mem_src(&c, jpeg.data(), static_cast<unsigned long>(jpeg.size()));
    jpeg_read_header(&c, TRUE);
    c.scale_num = 1;
    c.scale_denom = denominator;
    c.out_color_space = JCS_RGB;
    c.dct_method = quality == ImageQualityBest ? JDCT_FLOAT : JDCT_IFAST;
    c.do_fancy_upsampling = FALSE;
    c.do_block_smoothing = FALSE;
    jpeg_start_decompress(&c);
    ImagePtr image = Image4ub::create(int(c.output_width), int(c.output_height));
    std::vector<unsigned char> line(size_t(c.output_width) * 3);
    while (c.output_scanline < c.output_height) {
        unsigned char* out = image->row(int(c.output_scanline));
        JSAMPROW row = line.data();
        jpeg_read_scanlines(&c, &row, 1);
        for (size_t x = 0; x < c.output_width; ++x) {
            std::memcpy(out + 4 * x, &line[3 * x], 3);
            out[4 * x + 3] = 255;
        }
    }
    jpeg_finish_decompress(&c);
    jpeg_destroy_decompress(&c);
    return image;
}

TEST(JpegCodec, DecodesTheSamePixelsAsLibjpegInRgb) {
    // Odd sizes, so that the chroma of 4:2:0 and 4:2:2 ends in half blocks; the decoder writes
    // RGBA rows straight from libjpeg, several at a time.
    auto textured = [](int width, int height, int hSampling, int vSampling) {
        return encodeJpeg(width, height, 3, JCS_RGB, 75,
                          [&](int y, unsigned char* row) {
                              for (int x = 0; x < width; ++x) {
                                  row[3 * x] = static_cast<unsigned char>(x * 7 + y * 3);
                                  row[3 * x + 1] = static_cast<unsigned char>((x ^ y) * 5);
                                  row[3 * x + 2] = static_cast<unsigned char>(y * 11 - x);
                              }
                          },
                          false, false, {hSampling, vSampling});
    };
    for (const auto& [h, v] : {std::pair(2, 2), std::pair(2, 1), std::pair(1, 1)}) {
        const Bytes jpeg = textured(203, 77, h, v);
        for (const ImageQuality quality : {ImageQualityFast, ImageQualityBest}) {
            ImagePtr ours = decodeBytes(jpeg, Vec2i(0, 0), quality);
            ASSERT_TRUE(ours);
            EXPECT_EQ(maxDifference(*ours, *libjpegRgb(jpeg, quality, 1)), 0)
                << h << "x" << v << " quality " << quality;
        }
        // A width of 100, below half of 203: libjpeg's 1/2 reduction, then our final reduction.
        ImagePtr half = decodeBytes(jpeg, Vec2i(100, 1000), ImageQualityFast);
        ASSERT_TRUE(half);
        ImagePtr expected = scaleTrilinear_destructive(libjpegRgb(jpeg, ImageQualityFast, 2), 100,
                                                       1000, ScaleFitInside);
        EXPECT_EQ(maxDifference(*half, *expected), 0) << h << "x" << v;
    }
}

TEST(JpegCodec, NonJpegDataFailsWithOneLogLine) {
    const Bytes junk(500, 0x42);
    LogCapture log;
    ImagePtr image = solidImage(2, 2, 0, 0, 0);
    EXPECT_FALSE(loadJpeg(junk.data(), junk.size(), Vec2i(0, 0), ImageQualityFast, &image));
    EXPECT_FALSE(image);
    EXPECT_EQ(log.count("decodeJpegCore: libjpeg failed with: "), 1u);

    const Bytes empty;
    EXPECT_FALSE(loadJpeg(empty.data(), 0, Vec2i(0, 0), ImageQualityFast, &image));
}

TEST(JpegCodec, RegionOfInterestEqualsTheCropOfAFullDecode) {
    TempFolder folder;
    const std::string path = folder.write("roi.jpg", makeJpeg(200, 150, 85));
    ImagePtr full;
    loadImage(S(path), Vec2i(0, 0), ImageQualityBest, &full, nullptr);
    ASSERT_TRUE(full);

    for (const math::Recti roi : {math::Recti(10, 20, 50, 30), math::Recti(0, 0, 200, 1),
                                  math::Recti(199, 149, 1, 1), math::Recti(64, 0, 17, 150)}) {
        ImagePtr part;
        loadROI(S(path), &part, roi);
        ASSERT_TRUE(part) << roi;
        EXPECT_EQ(maxDifference(*crop(*full, roi), *part), 0) << roi;
    }
    // A region reaching past the picture is clipped to it; one outside gives nothing.
    ImagePtr clipped;
    loadROI(S(path), &clipped, math::Recti(180, 140, 50, 50));
    ASSERT_TRUE(clipped);
    EXPECT_EQ(maxDifference(*crop(*full, {180, 140, 20, 10}), *clipped), 0);
    LogCapture log;
    ImagePtr outside;
    loadROI(S(path), &outside, math::Recti(300, 300, 10, 10));
    EXPECT_FALSE(outside);
    EXPECT_EQ(log.count(path), 1u);
}

TEST(JpegCodec, DecodesGreyAndAdobeCmykToRgb) {
    // Grey: one component in the file, three equal ones out.
    auto encode = [](int components, J_COLOR_SPACE space, const unsigned char* pixel) {
        return encodeJpeg(16, 16, components, space, 100, [&](int, unsigned char* row) {
            for (int x = 0; x < 16; ++x) std::memcpy(row + x * components, pixel, components);
        });
    };
    const unsigned char grey[1] = {77};
    ImagePtr g = decodeBytes(encode(1, JCS_GRAYSCALE, grey));
    ASSERT_TRUE(g);
    EXPECT_LE(maxDifference(*solidImage(16, 16, 77, 77, 77), *g), 1);

    // Adobe CMYK is inverted: 255 means no ink. Full magenta and yellow ink make red.
    const unsigned char red[4] = {255, 0, 0, 255};
    ImagePtr r = decodeBytes(encode(4, JCS_CMYK, red));
    ASSERT_TRUE(r);
    EXPECT_LE(maxDifference(*solidImage(16, 16, 255, 0, 0), *r), 2);
}

TEST(JpegCodec, MemoryAndFileRegionDestinationsThatAreTooSmallFail) {
    ImagePtr image = gradientImage(64, 64);
    {
        LogCapture log;
        Bytes buffer(100);
        uint64_t written = 7;
        EXPECT_FALSE(saveJpeg(buffer.data(), buffer.size(), image, 90, &written));
        EXPECT_EQ(written, 0u);
        EXPECT_TRUE(log.contains("libjpeg: File too small for saving jpeg"));
        EXPECT_TRUE(log.contains("encodeJpegCore: libjpeg failed with: "));
        EXPECT_FALSE(saveJpeg(buffer.data(), 0, image, 90));
    }
    {
        // A region of a file cannot grow: the JPEG must fit in it.
        RandomAccessFileMemory file(std::vector<uint8_t>(300, 0xEE));
        FileRegion region(file, 100, 100, false);
        LogCapture log;
        EXPECT_FALSE(saveJpeg(region, image, 90));
        EXPECT_TRUE(log.contains("libjpeg: File too small for saving jpeg"));
        // Nothing outside the region was touched.
        for (size_t i : {size_t(0), size_t(99), size_t(200), size_t(299)})
            EXPECT_EQ(file.data()[i], 0xEE) << i;
    }
    {
        // A region large enough takes the whole JPEG.
        const Bytes expected = encodeToMemory(image, 90);
        RandomAccessFileMemory file(std::vector<uint8_t>(expected.size() + 64, 0));
        FileRegion region(file, 32, expected.size(), false);
        EXPECT_TRUE(saveJpeg(region, image, 90));
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), file.data() + 32));
    }
}

TEST(JpegCodec, RowCallbackFormWritesEveryRowOrFails) {
    TempFolder folder;
    ImagePtr image = gradientImage(40, 30);
    int y = 0;
    const std::string good = folder.path() + "/rows.jpg";
    ASSERT_TRUE(saveJpeg(
        S(good), Vec2i(40, 30), [&]() -> const unsigned char* { return image->row(y++); }, 95));
    EXPECT_EQ(y, 30);
    ImagePtr loaded;
    loadImage(S(good), Vec2i(0, 0), ImageQualityBest, &loaded, nullptr);
    ASSERT_TRUE(loaded);
    EXPECT_LE(maxDifference(*image, *loaded, 3), 8);

    // A source that runs dry makes the save fail and leaves no file behind.
    LogCapture log;
    y = 0;
    const std::string bad = folder.path() + "/short.jpg";
    EXPECT_FALSE(saveJpeg(
        S(bad), Vec2i(40, 30),
        [&]() -> const unsigned char* { return y < 10 ? image->row(y++) : nullptr; }, 95));
    EXPECT_FALSE(filesystem::exists(bad));
    EXPECT_FALSE(saveJpegUnlocked(S(bad), Vec2i(40, 30), Function0<const unsigned char*>(), 95));
    EXPECT_FALSE(filesystem::exists(bad));
}

TEST(JpegCodec, SaveFailuresReturnFalseWithTheirLogLine) {
    ImagePtr image = gradientImage(8, 8);
    LogCapture log;
    EXPECT_FALSE(saveJpeg(S("/nonexistent-folder/x.jpg"), image, 80));
    EXPECT_TRUE(log.contains("saveJpeg: failed to create file: /nonexistent-folder/x.jpg"));
    EXPECT_FALSE(saveJpeg(S("/nonexistent-folder/x.jpg"), ConstImagePtr(), 80));

    TempFolder folder;
    const std::string path = folder.path() + "/q.jpg";
    EXPECT_TRUE(saveJpeg(S(path), image, 101));  // clamped by libjpeg, after the assertion
    EXPECT_EQ(log.assertions("0 <= quality && quality <= 100"), 1u);
}


TEST(JpegCodec, ThumbnailQualityTakesTheExifThumbnailWhenMetadataIsRead) {
    auto [file, location] = jpegWithThumbnail(160, 120, 16, 12, "Canon");
    ASSERT_GT(location, 0);
    TempFolder folder;
    const std::string path = folder.write("thumb.jpg", file);

    ImagePtr image;
    SharedPtr<Metadata> metadata;
    loadImage(S(path), Vec2i(0, 0), ImageQualityThumbnail, &image, &metadata);
    ASSERT_TRUE(image && metadata);
    EXPECT_EQ(Vec2i(image->width(), image->height()), Vec2i(16, 12));
    EXPECT_EQ(metadata->size(), Vec2i(160, 120));  // the picture's, from the JPEG header
    EXPECT_EQ(metadata->thumbLocation(), location);
    S make;
    EXPECT_TRUE(metadata->get(MetadataField::MakeString, make));
    EXPECT_EQ(make, "Canon");

    // Without metadata in the same call nothing says where the thumbnail is.
    ImagePtr main;
    loadImage(S(path), Vec2i(0, 0), ImageQualityThumbnail, &main, nullptr);
    ASSERT_TRUE(main);
    EXPECT_EQ(Vec2i(main->width(), main->height()), Vec2i(160, 120));
}

TEST(JpegCodec, CorruptedThumbnailFallsBackToThePictureAndClearsItsLocation) {
    auto [file, location] = jpegWithThumbnail(160, 120, 16, 12, "Canon");
    ASSERT_GT(location, 0);
    // A second SOI right behind the first is an error for libjpeg.
    file[location + 2] = 0xFF;
    file[location + 3] = 0xD8;
    TempFolder folder;
    const std::string path = folder.write("badthumb.jpg", file);

    LogCapture log;
    ImagePtr image;
    SharedPtr<Metadata> metadata;
    loadImage(S(path), Vec2i(0, 0), ImageQualityThumbnail, &image, &metadata);
    ASSERT_TRUE(image && metadata);
    EXPECT_EQ(Vec2i(image->width(), image->height()), Vec2i(160, 120));
    EXPECT_EQ(metadata->thumbLocation(), 0);
    EXPECT_TRUE(log.contains("loadJpeg: corrupted thumbnail in '" + path + "'"));
}

}  // namespace
}  // namespace qor::imageio
