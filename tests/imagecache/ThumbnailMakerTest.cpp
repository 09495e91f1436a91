#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FormatSamples.h"
#include "TestJpeg.h"
#include "TestRaw.h"
#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"
#include "imageio/ImageIO.h"
#include "imageio/detail/JpegCodec.h"
#include "imaging/ColorProfile.h"
#include "imaging/ColorTransform.h"

namespace qor::imagecache {
namespace {

using imageio::Image4ub;
using imageio::ImagePtr;
using imageio::testing::Bytes;
using imageio::testing::TempFolder;
using Rgb = std::array<int, 3>;

// A JPEG of one colour per quadrant (top left, top right, bottom left, bottom right).
Bytes quadrantJpeg(int width, int height, const std::array<Rgb, 4>& colours) {
    return imageio::testing::encodeJpeg(
        width, height, 3, JCS_RGB, 95, [&](int y, unsigned char* row) {
            for (int x = 0; x < width; ++x) {
                const Rgb& c = colours[(y >= height / 2 ? 2 : 0) + (x >= width / 2 ? 1 : 0)];
                for (int i = 0; i < 3; ++i) row[3 * x + i] = static_cast<unsigned char>(c[i]);
            }
        });
}

Bytes solidJpeg(int width, int height, Rgb colour) {
    return quadrantJpeg(width, height, {colour, colour, colour, colour});
}

Rgb pixel(const Image4ub& image, int x, int y) {
    const unsigned char* p = image.row(y) + 4 * x;
    return {p[0], p[1], p[2]};
}

// Whether every channel of `a` is within `tolerance` of `b`.
bool near(Rgb a, Rgb b, int tolerance) {
    for (int i = 0; i < 3; ++i)
        if (std::abs(a[i] - b[i]) > tolerance) return false;
    return true;
}

// Whether exactly one line at warning level or above was logged, and it names `path`: a failure
// is reported once, naming the file, and no decoder adds a line of its own beside it.
bool oneLineNaming(const LogCapture& log, const std::string& path) {
    size_t warnings = 0, naming = 0;
    for (const LogCapture::Entry& e : log.entries()) {
        if (e.level < LogWarning) continue;
        ++warnings;
        if (e.text.find(path) != std::string::npos) ++naming;
    }
    return warnings == 1 && naming == 1;
}

// A picture with a `thumbWidth` x `thumbHeight` EXIF thumbnail of another colour.
Bytes jpegWithColouredThumbnail(int thumbWidth, int thumbHeight) {
    const Bytes thumb = solidJpeg(thumbWidth, thumbHeight, {0, 0, 255});
    return imageio::testing::withMetadata(solidJpeg(1024, 768, {255, 0, 0}), [&](Exiv2::Image& i) {
        Exiv2::ExifThumb(i.exifData()).setJpegThumbnail(thumb.data(), thumb.size());
    });
}

TEST(ThumbnailMaker, FitsInsideTheBoxKeepingProportionsAndNeverEnlarges) {
    TempFolder folder;
    struct Case {
        int width, height, maxSide, wantWidth, wantHeight;
    };
    for (const Case& c :
         {Case{600, 400, 256, 256, 171}, Case{300, 900, 256, 85, 256}, Case{100, 60, 256, 100, 60},
          Case{5000, 20, 2048, 2048, 8}, Case{2049, 1366, 2048, 2048, 1365}}) {
        const std::string path =
            folder.write("fit.jpg", imageio::testing::makeJpeg(c.width, c.height));
        const ImagePtr image = makeThumbnail(path, c.maxSide);
        ASSERT_TRUE(image) << c.width << "x" << c.height;
        EXPECT_EQ(image->width(), c.wantWidth) << c.width << "x" << c.height;
        EXPECT_EQ(image->height(), c.wantHeight) << c.width << "x" << c.height;
    }
    // A PNG goes through its decoder, alpha kept.
    const auto png = Image4ub::create(500, 100);
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 500; ++x) {
            unsigned char* p = png->row(y) + 4 * x;
            p[0] = 10, p[1] = 200, p[2] = 30, p[3] = 128;
        }
    const std::string bytes = encodeThumbnail(*png);
    const std::string path = folder.write("fit.png", Bytes(bytes.begin(), bytes.end()));
    const ImagePtr image = makeThumbnail(path, 256);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->width(), 256);
    EXPECT_EQ(image->height(), 51);
    EXPECT_TRUE(near(pixel(*image, 100, 25), {10, 200, 30}, 1));
    EXPECT_EQ(image->row(25)[4 * 100 + 3], 128);
}

TEST(ThumbnailMaker, ReducesWithoutAliasingAndMatchesAReferenceReduction) {
    TempFolder folder;
    // One-pixel stripes: a reduction that skips pixels shows stripes or a flat black or white.
    const int w = 2048, h = 1536;
    const Bytes stripes =
        imageio::testing::encodeJpeg(w, h, 1, JCS_GRAYSCALE, 100, [&](int, unsigned char* row) {
            for (int x = 0; x < w; ++x) row[x] = (x % 2) ? 255 : 0;
        });
    ImagePtr image = makeThumbnail(folder.write("stripes.jpg", stripes), 256);
    ASSERT_TRUE(image);
    ASSERT_EQ(image->width(), 256);
    for (int y = 0; y < image->height(); y += 7)
        for (int x = 0; x < image->width(); x += 5)
            ASSERT_TRUE(near(pixel(*image, x, y), {128, 128, 128}, 12)) << x << "," << y;

    // A smooth picture against the full decode reduced by area averaging: the DCT reduction and
    // the final fit may differ from it only by rounding and JPEG's block error.
    const Bytes gradient = imageio::testing::makeJpeg(1600, 1200, 95);
    image = makeThumbnail(folder.write("gradient.jpg", gradient), 256);
    ImagePtr reference;
    ASSERT_TRUE(imageio::loadJpeg(gradient.data(), gradient.size(), {0, 0},
                                  imageio::ImageQualityBest, &reference));
    reference = imageio::scaleTrilinear_destructive(reference, 256, 192, imageio::ScaleExact);
    ASSERT_TRUE(image);
    ASSERT_EQ(image->width(), 256);
    ASSERT_EQ(image->height(), 192);
    int worst = 0;
    for (int y = 0; y < 192; ++y)
        for (int x = 0; x < 256; ++x)
            for (int i = 0; i < 3; ++i)
                worst = std::max(worst,
                                 std::abs(image->row(y)[4 * x + i] - reference->row(y)[4 * x + i]));
    EXPECT_LE(worst, 6);
}

TEST(ThumbnailMaker, EveryOrientationGivesTheUprightPicture) {
    TempFolder folder;
    const Rgb red{255, 0, 0}, green{0, 255, 0}, blue{0, 0, 255}, yellow{255, 255, 0};
    // Stored quadrants: red top left, green top right, blue bottom left, yellow bottom right.
    const Bytes stored = quadrantJpeg(640, 480, {red, green, blue, yellow});
    // What each orientation shows at its top left, top right, bottom left and bottom right.
    const std::array<std::array<Rgb, 4>, 9> upright = {{
        {},
        {red, green, blue, yellow},
        {green, red, yellow, blue},
        {yellow, blue, green, red},
        {blue, yellow, red, green},
        {red, blue, green, yellow},
        {blue, red, yellow, green},
        {yellow, green, blue, red},
        {green, yellow, red, blue},
    }};
    for (int orientation = 1; orientation <= 8; ++orientation) {
        const std::string path =
            folder.write("o" + std::to_string(orientation) + ".jpg",
                         imageio::testing::withMetadata(stored, [&](Exiv2::Image& image) {
                             image.exifData()["Exif.Image.Orientation"] = uint16_t(orientation);
                         }));
        const ImagePtr image = makeThumbnail(path, 256);
        ASSERT_TRUE(image) << orientation;
        const bool turned = orientation >= 5;
        EXPECT_EQ(image->width(), turned ? 192 : 256) << orientation;
        EXPECT_EQ(image->height(), turned ? 256 : 192) << orientation;
        const int right = image->width() - 10, bottom = image->height() - 10;
        const std::array<Rgb, 4> corners = {pixel(*image, 10, 10), pixel(*image, right, 10),
                                            pixel(*image, 10, bottom),
                                            pixel(*image, right, bottom)};
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(near(corners[i], upright[orientation][i], 24))
                << "orientation " << orientation << " corner " << i;
    }
}

// A camera raw file's preview and a WebP come upright too: each stored turned (left half red,
// right half green, orientation 6), each thumbnail tall with red on top.
TEST(ThumbnailMaker, RawPreviewsAndWebPComeUpright) {
    TempFolder folder;
    const auto redLeft = [](int x) { return x < 80 ? Rgb{255, 0, 0} : Rgb{0, 255, 0}; };
    const std::string dng = folder.path() + "/turned.dng";
    ASSERT_TRUE(imageio::testing::writeDng(dng, 160, 80, 6, [&](int x, int, unsigned char* rgb) {
        const Rgb c = redLeft(x);
        std::copy(c.begin(), c.end(), rgb);
    }));
    const std::string webp = folder.write(
        "turned.webp",
        imageio::testing::withMetadata(
            imageio::testing::makeWebp(160, 80, true,
                                       [&](int x, int) {
                                           const Rgb c = redLeft(x);
                                           return imageio::testing::Pixel{c[0], c[1], c[2], 255};
                                       }),
            [](Exiv2::Image& image) { image.exifData()["Exif.Image.Orientation"] = uint16_t(6); }));
    for (const std::string& path : {dng, webp}) {
        const ImagePtr image = makeThumbnail(path, 64);
        ASSERT_TRUE(image) << path;
        EXPECT_EQ(image->width(), 32) << path;
        EXPECT_EQ(image->height(), 64) << path;
        EXPECT_TRUE(near(pixel(*image, 16, 8), {255, 0, 0}, 24)) << path;
        EXPECT_TRUE(near(pixel(*image, 16, 56), {0, 255, 0}, 24)) << path;
    }
}

TEST(ThumbnailMaker, ConvertsAnEmbeddedProfileToSRGB) {
    TempFolder folder;
    const SharedPtr<imaging::ColorProfile> adobe = imaging::ColorProfile::adobeRGB();
    const Rgb stored{40, 180, 60};  // a saturated green, as Adobe RGB numbers
    const std::string path = folder.path() + "/adobe.jpg";
    {
        RandomAccessFileStd file(path, RandomAccessFileStd::ModeCreate);
        std::vector<unsigned char> row(64 * 3);
        for (int x = 0; x < 64; ++x) std::copy(stored.begin(), stored.end(), row.begin() + 3 * x);
        imageio::detail::JpegExtras extras;
        extras.inputChannels = 3;
        extras.icc = &adobe->data();
        bool stopped = false;
        ASSERT_TRUE(imageio::detail::encodeJpeg(
            file, {64, 48}, [&] { return row.data(); }, 100, extras, &stopped));
    }
    // The reference: the same colour through Little CMS from Adobe RGB to sRGB.
    const auto reference = Image4ub::create(1, 1);
    unsigned char* p = reference->row(0);
    p[0] = 40, p[1] = 180, p[2] = 60, p[3] = 255;
    imaging::ColorTransform::create(adobe, imaging::ColorProfile::sRGB())->apply(*reference);
    const Rgb expected = pixel(*reference, 0, 0);
    ASSERT_FALSE(near(expected, stored, 10)) << "the colour must differ between the two spaces";

    const ImagePtr image = makeThumbnail(path, 256);
    ASSERT_TRUE(image);
    EXPECT_TRUE(near(pixel(*image, 32, 24), expected, 3));
}

TEST(ThumbnailMaker, TakesTheExifThumbnailOnlyWhenItIsLargeEnoughAndOfTheSameShape) {
    TempFolder folder;
    const Rgb picture{255, 0, 0}, thumbnail{0, 0, 255};
    struct Case {
        int thumbWidth, thumbHeight, maxSide;
        Rgb want;
    };
    for (const Case& c : {Case{320, 240, 256, thumbnail}, Case{160, 120, 256, picture},
                          Case{160, 120, 160, thumbnail}, Case{320, 180, 256, picture}}) {
        const std::string path =
            folder.write("camera.jpg", jpegWithColouredThumbnail(c.thumbWidth, c.thumbHeight));
        const ImagePtr image = makeThumbnail(path, c.maxSide);
        ASSERT_TRUE(image);
        EXPECT_EQ(image->width(), c.maxSide);
        EXPECT_EQ(image->height(), c.maxSide * 3 / 4);
        EXPECT_TRUE(near(pixel(*image, 20, 20), c.want, 16))
            << c.thumbWidth << "x" << c.thumbHeight << " for " << c.maxSide;
    }
}

// The file of a JPEG whose frame header claims `width` x `height`.
Bytes withClaimedSize(Bytes jpeg, int width, int height) {
    for (size_t i = 2; i + 9 < jpeg.size(); ++i)
        if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) {
            jpeg[i + 5] = uint8_t(height >> 8), jpeg[i + 6] = uint8_t(height);
            jpeg[i + 7] = uint8_t(width >> 8), jpeg[i + 8] = uint8_t(width);
            break;
        }
    return jpeg;
}

TEST(ThumbnailMaker, BadFilesGiveNullAndOneLineNamingTheFile) {
    TempFolder folder;
    const Bytes good = imageio::testing::makeJpeg(512, 384, 90);
    Bytes corrupt = good;
    for (size_t i = 700; i < corrupt.size() - 2; i += 3) corrupt[i] = uint8_t(i * 31);
    const Bytes truncated(good.begin(), good.begin() + long(good.size() * 2 / 5));
    Bytes garbage(4000);
    for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = uint8_t(i * 7 + 3);
    garbage[0] = 0xFF, garbage[1] = 0xD8, garbage[2] = 0xFF;
    // A PNG signature and an IHDR of 60000 x 60000, then nothing: refused on the header alone.
    Bytes pngBomb = {0x89, 'P',  'N', 'G', '\r', '\n', 0x1a, '\n', 0,    0, 0,
                     13,   'I',  'H', 'D', 'R',  0,    0,    0xEA, 0x60, 0, 0,
                     0xEA, 0x60, 8,   6,   0,    0,    0,    0,    0,    0, 0};
    const std::pair<const char*, Bytes> cases[] = {
        {"corrupt.jpg", corrupt},
        {"truncated.jpg", truncated},
        {"empty.jpg", {}},
        {"garbage.jpg", garbage},
        {"bomb.png", pngBomb},
        {"bomb.jpg", withClaimedSize(good, 60000, 60000)},
        {"not-a-picture.txt", Bytes(100, 'x')},
    };
    for (const auto& [name, bytes] : cases) {
        const std::string path = folder.write(name, bytes);
        LogCapture log;
        std::string error;
        EXPECT_FALSE(makeThumbnail(path, 256, &error)) << name;
        EXPECT_TRUE(oneLineNaming(log, path)) << name;
        EXPECT_NE(error.find(path), std::string::npos) << name << ": " << error;
    }
    LogCapture log;
    EXPECT_FALSE(makeThumbnail(folder.path() + "/missing.jpg", 256));
    EXPECT_TRUE(oneLineNaming(log, folder.path() + "/missing.jpg"));
}

TEST(ThumbnailMaker, AFileThatCannotBeReadGivesNullAndOneLine) {
    TempFolder folder;
    const std::string path = folder.write("locked.jpg", imageio::testing::makeJpeg(64, 48));
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    // Root reads any file: the attempt is made as "nobody" in a child process.
    const pid_t child = ::fork();
    if (child == 0) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(10);
        LogCapture log;
        const bool made = makeThumbnail(path, 256) != nullptr;
        ::_exit(made ? 11 : oneLineNaming(log, path) ? 0 : 12);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10: no user to drop to, 11: made, 12: not one line";
}

TEST(ThumbnailMaker, ABrokenExifThumbnailGivesWayToThePictureWithOneLine) {
    TempFolder folder;
    Bytes bytes = jpegWithColouredThumbnail(320, 240);
    const SharedPtr<imageio::Metadata> m = imageio::readMetadata(bytes.data(), bytes.size());
    ASSERT_TRUE(m && m->thumbLocation() > 0);
    // An end of image right behind the thumbnail's start: no frame to decode.
    bytes[size_t(m->thumbLocation()) + 2] = 0xFF;
    bytes[size_t(m->thumbLocation()) + 3] = 0xD9;
    const std::string path = folder.write("broken-thumb.jpg", bytes);
    LogCapture log;
    const ImagePtr image = makeThumbnail(path, 256);
    ASSERT_TRUE(image);
    EXPECT_TRUE(near(pixel(*image, 20, 20), {255, 0, 0}, 16));
    EXPECT_TRUE(oneLineNaming(log, path));
}

TEST(ThumbnailMaker, EncodedThumbnailsComeBackAsTheyWent) {
    const auto opaque = Image4ub::create(200, 150);
    const auto clear = Image4ub::create(200, 150);
    for (int y = 0; y < 150; ++y)
        for (int x = 0; x < 200; ++x) {
            unsigned char* o = opaque->row(y) + 4 * x;
            unsigned char* c = clear->row(y) + 4 * x;
            o[0] = c[0] = uint8_t(x), o[1] = c[1] = uint8_t(y), o[2] = c[2] = 90;
            o[3] = 255;
            c[3] = uint8_t(x + y);
        }
    const std::string jpeg = encodeThumbnail(*opaque);
    ASSERT_GE(jpeg.size(), 3u);
    EXPECT_EQ(uint8_t(jpeg[0]), 0xFF);  // opaque: a JPEG
    const ImagePtr back = decodeThumbnail(jpeg);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->width(), 200);
    ASSERT_EQ(back->height(), 150);
    int worst = 0;
    for (int y = 0; y < 150; ++y)
        for (int x = 0; x < 200 * 4; ++x)
            worst = std::max(worst, std::abs(back->row(y)[x] - opaque->row(y)[x]));
    EXPECT_LE(worst, 8);  // quality 90 on a smooth gradient

    const std::string png = encodeThumbnail(*clear);
    ASSERT_GE(png.size(), 8u);
    EXPECT_EQ(png.substr(1, 3), "PNG");
    const ImagePtr exact = decodeThumbnail(png);
    ASSERT_TRUE(exact);
    ASSERT_EQ(exact->width(), 200);
    for (int y = 0; y < 150; ++y)
        ASSERT_TRUE(std::equal(exact->row(y), exact->row(y) + 800, clear->row(y))) << y;

    LogCapture log;
    EXPECT_FALSE(decodeThumbnail("not a thumbnail"));
    EXPECT_FALSE(decodeThumbnail(jpeg.substr(0, jpeg.size() / 2)));
    EXPECT_FALSE(decodeThumbnail(""));
    EXPECT_EQ(log.count("decodeThumbnail"), 3u);
}

TEST(ThumbnailMakerThreads, ThreadsMakingThumbnailsOfTheSameFilesGetTheSamePixels) {
    TempFolder folder;
    const std::string paths[] = {
        folder.write("a.jpg", jpegWithColouredThumbnail(160, 120)),
        folder.write("b.jpg", imageio::testing::withMetadata(
                                  imageio::testing::makeJpeg(900, 600),
                                  [](Exiv2::Image& image) {
                                      image.exifData()["Exif.Image.Orientation"] = uint16_t(6);
                                  })),
    };
    ImagePtr expected[2];
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(expected[i] = makeThumbnail(paths[i], 128));
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round) {
                const int i = (t + round) % 2;
                const ImagePtr image = makeThumbnail(paths[i], 128);
                if (!image || image->width() != expected[i]->width() ||
                    image->height() != expected[i]->height()) {
                    ++mismatches;
                    continue;
                }
                for (int y = 0; y < image->height(); ++y)
                    if (!std::equal(image->row(y), image->row(y) + image->width() * 4,
                                    expected[i]->row(y)))
                        ++mismatches;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace qor::imagecache
