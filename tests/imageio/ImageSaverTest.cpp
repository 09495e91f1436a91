#include <gtest/gtest.h>

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <tiffio.h>

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageIO.h"
#include "imageio/ImageSaver.h"
#include "imageio/MetadataReader.h"
#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/TilingImageSource.h"

namespace qor::imageio {
namespace {

using imaging::Image;
using imaging::ImageSource;
using imaging::ImageTile;
using imaging::RawPixelFormat;
using math::GenVec;
using math::Recti;
using testing::TempFolder;

// Channel c of the test picture at (x, y), for pictures up to 300 by 200: smooth ramps, so that
// JPEG keeps them closely.
unsigned char pixel(int x, int y, int c) {
    switch (c) {
        case 0: return (unsigned char)(x * 255 / 300);
        case 1: return (unsigned char)(y * 255 / 200);
        case 2: return (unsigned char)((x + y) / 2);
        default: return (unsigned char)(255 - ((x ^ y) & 63));
    }
}

// An RGBA8 picture computed tile by tile through jobs. Tiles can be held at a gate (to cancel or
// save again while a save runs) or fail with an ImagingException.
class TestSource : public ImageSource {
public:
    static SharedPtr<TestSource> create(GenVec<int, 2> size, GenVec<int, 2> tile) {
        auto* s = new TestSource(size, tile);
        return std::static_pointer_cast<TestSource>(s->setupSelfRef());
    }
    imaging::TileLayout tileLayout() const override { return _layout; }

    std::atomic<int> failRow{-1};
    std::atomic<bool> hold{false};
    void release() {
        std::lock_guard<std::mutex> lock(_m);
        _released = true;
        _cv.notify_all();
    }
    bool waitHeld() {
        std::unique_lock<std::mutex> lock(_m);
        return _cv.wait_for(lock, std::chrono::seconds(20), [this] { return _holding > 0; });
    }

protected:
    TestSource(GenVec<int, 2> size, GenVec<int, 2> tile)
        : ImageSource(size, imaging::PfRGBA8), _layout(size, tile, GenVec<int, 2>(0, 0), size) {}
    bool defaultCachingState() const override { return false; }

    SharedPtr<const ImageTile> computeTileData(unsigned int x, unsigned int y) override {
        if (int(y) == failRow)
            throw imaging::ImagingException(imaging::ImagingException::TypeIO, "tile row broken");
        if (hold && y > 0) {
            std::unique_lock<std::mutex> lock(_m);
            ++_holding;
            _cv.notify_all();
            _cv.wait_for(lock, std::chrono::seconds(20), [this] { return _released; });
        }
        const Recti r = _layout.getTileRect(int(x), int(y));
        SharedPtr<ImageTile> tile = ImageTile::create(r.size(), imaging::PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < r.height(); ++j)
            for (int i = 0; i < r.width(); ++i)
                for (int c = 0; c < 4; ++c) data->at(i, j, c) = pixel(r.xmin() + i, r.ymin() + j, c);
        return tile;
    }

private:
    const imaging::TileLayout _layout;
    std::mutex _m;
    std::condition_variable _cv;
    bool _released = false;
    int _holding = 0;
};

bool exists(const std::string& path) { return std::filesystem::exists(path); }

// Files other than `keep` in the folder: what a failed save may have left behind.
int strayFiles(const TempFolder& folder, const std::string& keep = "") {
    int n = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path()))
        n += entry.path().filename() != keep;
    return n;
}

// The largest difference of channels 0..2 between a decoded picture and the test picture shown
// at `offset` (a sub-image).
int largestDifference(const Image4ub& image, GenVec<int, 2> offset) {
    int worst = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            for (int c = 0; c < 3; ++c)
                worst = std::max(worst, std::abs(int(image.row(y)[4 * x + c]) -
                                                 int(pixel(x + offset.x, y + offset.y, c))));
    return worst;
}

// ---- the row adapter ----

TEST(ExportData, ServesRowsAndDropsTheFourthChannelForThreeChannelRequests) {
    auto image = imaging::GenImageData<unsigned char, 4>::create(3, 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            for (int c = 0; c < 4; ++c) image->at(x, y, c) = pixel(x, y, c);
    ExportData<imaging::PfRGBA8> rows(image);
    const auto* rgba = static_cast<const unsigned char*>(rows.getRow(12, DtRGBA8, Recti(0, 1, 3, 1)));
    ASSERT_TRUE(rgba);
    EXPECT_EQ(rgba, image->row(1)) << "a 4-channel request reads the image itself";
    const auto* rgb = static_cast<const unsigned char*>(rows.getRow(9, DtRGB8, Recti(0, 1, 3, 1)));
    ASSERT_TRUE(rgb);
    for (int x = 0; x < 3; ++x)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(rgb[3 * x + c], pixel(x, 1, c));
    {
        LogCapture log;
        EXPECT_FALSE(rows.getRow(12, DtRGB16, Recti(0, 1, 3, 1)))
            << "2-byte rows from 1-byte pixels";
        EXPECT_EQ(log.assertions("rowBytes == _size.x * bytes * chan"), 1u);
    }
    EXPECT_EQ(moduleChannels(DtRGBA16F), 4);
    EXPECT_EQ(moduleBytesPerChannel(DtRGB32F), 4);
    EXPECT_EQ(moduleDataType(imaging::PfRGB16F), DtRGB16F);
    EXPECT_EQ(moduleDataType(imaging::PfLum8), 0);
}

TEST(IImageSaver, ParametersFollowTheFormat) {
    ImageSaverTIFF tiff;
    TempFolder folder;
    auto image = imaging::GenImageData<unsigned short, 4>::create(5, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x)
            for (int c = 0; c < 4; ++c) image->at(x, y, c) = (unsigned short)(x * 1000 + y * 10 + c);
    tiff.setUseZIP(true);
    const std::string path = folder.path() + "/whole.tif";
    tiff.save4us(path, image);
    TIFF* t = TIFFOpen(path.c_str(), "r");
    ASSERT_TRUE(t);
    uint16_t bits = 0, samples = 0, compression = 0;
    TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetField(t, TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetField(t, TIFFTAG_COMPRESSION, &compression);
    EXPECT_EQ(bits, 16);
    EXPECT_EQ(samples, 4);
    EXPECT_EQ(compression, COMPRESSION_ADOBE_DEFLATE);
    std::vector<unsigned short> row(20);
    for (uint32_t y = 0; y <= 3; ++y) ASSERT_EQ(TIFFReadScanline(t, row.data(), y, 0), 1);
    EXPECT_EQ(row[4 * 2 + 1], 2 * 1000 + 3 * 10 + 1);
    TIFFClose(t);

    // OpenEXR takes half and float only; the failure leaves nothing behind.
    ImageSaverOpenEXR exr;
    EXPECT_THROW(exr.save4us(folder.path() + "/x.exr", image), ImageSaverException);
    EXPECT_EQ(strayFiles(folder, "whole.tif"), 0);
}

// ---- saving images through the pipeline ----

struct Saved {
    SharedPtr<Image> image;
    GenVec<int, 2> offset;  // of the image within the test picture
};

Saved tiledImage(GenVec<int, 2> size, GenVec<int, 2> tile, const Recti& sub = Recti()) {
    auto source = TestSource::create(size, tile);
    SharedPtr<Image> image = Image::create(source);
    if (sub.width() > 0) return {image->getSubImage(sub), sub.mins};
    return {image, GenVec<int, 2>(0, 0)};
}

TEST(ImageSaver, JpegOfManyTilesAndOfASubImageStartingInsideATile) {
    TempFolder folder;
    for (const Saved& saved : {tiledImage({300, 200}, {64, 64}),
                               tiledImage({300, 200}, {64, 64}, Recti(37, 21, 200, 150)),
                               tiledImage({300, 200}, {64, 64}, Recti(70, 5, 40, 30))}) {
        ImageSaverJPEG jpeg;
        jpeg.setCompression(95);
        ImageSaver saver(saved.image, &jpeg);
        const std::string path = folder.path() + "/out.jpg";
        saver.save(FastString<char>(path), imaging::PfRGB8);
        EXPECT_EQ(saver.status(), ImageSaver::SaveFinished);
        EXPECT_TRUE(saver.finished());
        EXPECT_EQ(saver.rowsWritten(), unsigned(saved.image->height()));
        ImagePtr decoded;
        loadImage(FastString<char>(path), {0, 0}, ImageQualityBest, &decoded, nullptr);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->width(), saved.image->width());
        EXPECT_EQ(decoded->height(), saved.image->height());
        EXPECT_LE(largestDifference(*decoded, saved.offset), 24) << "JPEG at quality 95";
        EXPECT_EQ(strayFiles(folder, "out.jpg"), 0);
    }
}

TEST(ImageSaver, TiffRoundTripsIn8And16BitsAndFloatWithProfileAndMetadata) {
    TempFolder folder;
    const Saved saved = tiledImage({150, 90}, {64, 32}, Recti(10, 3, 130, 80));
    auto metadata = std::make_shared<Metadata>();
    metadata->setRaw(Metadata::String("tiff:Make"), Metadata::String("Qor Test Camera"));
    metadata->setRaw(Metadata::String("dc:title"), Metadata::String("harbour"));
    struct Case {
        RawPixelFormat format;
        int bits;
        double tolerance;  // in units of the file's samples, against the 8-bit source value
    };
    for (const Case& k : {Case{imaging::PfRGB8, 8, 0}, Case{imaging::PfRGBA16, 16, 0},
                          Case{imaging::PfRGB32F, 32, 1e-6}}) {
        ImageSaverTIFF tiff;
        tiff.setUseLZW(true);
        tiff.setICCProfile(imaging::ColorProfile::adobeRGB());
        tiff.setMetadata(metadata);
        ImageSaver saver(saved.image, &tiff);
        const std::string path = folder.path() + "/out.tif";
        saver.save(FastString<char>(path), k.format);
        ASSERT_EQ(saver.status(), ImageSaver::SaveFinished);

        TIFF* t = TIFFOpen(path.c_str(), "r");
        ASSERT_TRUE(t);
        uint32_t width = 0, height = 0, iccSize = 0;
        uint16_t bits = 0, samples = 0, compression = 0;
        void* icc = nullptr;
        TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
        TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
        TIFFGetField(t, TIFFTAG_BITSPERSAMPLE, &bits);
        TIFFGetField(t, TIFFTAG_SAMPLESPERPIXEL, &samples);
        TIFFGetField(t, TIFFTAG_COMPRESSION, &compression);
        EXPECT_EQ(width, 130u);
        EXPECT_EQ(height, 80u);
        EXPECT_EQ(bits, k.bits);
        EXPECT_EQ(samples, imaging::getChannelCount(k.format));
        EXPECT_EQ(compression, COMPRESSION_LZW);
        ASSERT_TRUE(TIFFGetField(t, TIFFTAG_ICCPROFILE, &iccSize, &icc));
        auto profile = imaging::ColorProfile::fromMemory(icc, iccSize);
        EXPECT_TRUE(*profile == *imaging::ColorProfile::adobeRGB());
        std::vector<unsigned char> row(TIFFScanlineSize(t));
        double worst = 0;
        for (uint32_t y = 0; y < height; ++y) {
            ASSERT_EQ(TIFFReadScanline(t, row.data(), y, 0), 1);
            for (uint32_t x = 0; x < width; ++x)
                for (int c = 0; c < 3; ++c) {
                    const size_t i = size_t(x) * samples + c;
                    const double expected = pixel(int(x) + 10, int(y) + 3, c) / 255.0;
                    double got = 0;
                    if (bits == 8) got = row[i] / 255.0;
                    if (bits == 16) got = reinterpret_cast<const uint16_t*>(row.data())[i] / 65535.0;
                    if (bits == 32) got = reinterpret_cast<const float*>(row.data())[i];
                    worst = std::max(worst, std::abs(got - expected));
                }
        }
        EXPECT_LE(worst, k.tolerance + 1e-9) << k.bits << " bits";
        TIFFClose(t);

        SharedPtr<Metadata> back = readMetadata(FastString<char>(path));
        ASSERT_TRUE(back);
        auto make = back->rawMap().find(Metadata::String("tiff:Make"));
        ASSERT_NE(make, back->rawMap().end());
        EXPECT_EQ(make->second.view(), "Qor Test Camera");
    }
}

TEST(ImageSaver, JpegKeepsExifAndProfileAndExrKeepsHalfPixels) {
    TempFolder folder;
    const Saved saved = tiledImage({96, 64}, {64, 64});
    auto metadata = std::make_shared<Metadata>();
    metadata->setRaw(Metadata::String("tiff:Model"), Metadata::String("Q-1"));
    metadata->setRaw(Metadata::String("exif:DateTimeOriginal"),
                     Metadata::String("2024:05:06 07:08:09"));
    {
        ImageSaverJPEG jpeg;
        jpeg.setICCProfile(imaging::ColorProfile::sRGB());
        jpeg.setMetadata(metadata);
        ImageSaver saver(saved.image, &jpeg);
        const std::string path = folder.path() + "/meta.jpg";
        saver.save(FastString<char>(path), imaging::PfRGBA8);
        SharedPtr<Metadata> back = readMetadata(FastString<char>(path));
        ASSERT_TRUE(back);
        EXPECT_EQ(back->rawMap().at(Metadata::String("tiff:Model")).view(), "Q-1");
        EXPECT_EQ(back->rawMap().at(Metadata::String("exif:DateTimeOriginal")).view(),
                  "2024:05:06 07:08:09");
        const testing::Bytes bytes = testing::readFile(path);
        const std::string text(bytes.begin(), bytes.end());
        EXPECT_NE(text.find("ICC_PROFILE"), std::string::npos);
    }
    {
        ImageSaverOpenEXR exr;
        ImageSaver saver(saved.image, &exr);
        const std::string path = folder.path() + "/out.exr";
        saver.save(FastString<char>(path), imaging::PfRGBA16F);
        Imf::InputFile file(path.c_str());
        const Imath::Box2i window = file.header().dataWindow();
        ASSERT_EQ(window.max.x + 1, 96);
        ASSERT_EQ(window.max.y + 1, 64);
        EXPECT_EQ(file.header().channels().findChannel("A")->type, Imf::HALF);
        std::vector<half> r(96 * 64), a(96 * 64);
        Imf::FrameBuffer frame;
        frame.insert("R", Imf::Slice(Imf::HALF, reinterpret_cast<char*>(r.data()), sizeof(half),
                                     sizeof(half) * 96));
        frame.insert("A", Imf::Slice(Imf::HALF, reinterpret_cast<char*>(a.data()), sizeof(half),
                                     sizeof(half) * 96));
        file.setFrameBuffer(frame);
        file.readPixels(0, 63);
        double worst = 0;
        for (int y = 0; y < 64; ++y)
            for (int x = 0; x < 96; ++x) {
                worst = std::max(worst, std::abs(float(r[y * 96 + x]) - pixel(x, y, 0) / 255.0));
                worst = std::max(worst, std::abs(float(a[y * 96 + x]) - pixel(x, y, 3) / 255.0));
            }
        EXPECT_LE(worst, 1.0 / 1024) << "half keeps 8-bit values to 11 bits";
    }
}

// ---- failures and threads ----

TEST(ImageSaver, TileErrorReachesTheCallerAndLeavesNoFile) {
    TempFolder folder;
    auto source = TestSource::create({128, 128}, {32, 32});
    source->failRow = 2;
    ImageSaverJPEG jpeg;
    ImageSaver saver(Image::create(source), &jpeg);
    const std::string path = folder.path() + "/broken.jpg";
    try {
        saver.save(FastString<char>(path), imaging::PfRGB8);
        ADD_FAILURE() << "no exception";
    } catch (const imaging::ImagingException& e) {
        EXPECT_EQ(e.type(), imaging::ImagingException::TypeIO);
        EXPECT_NE(std::string(e.what()).find("tile row broken"), std::string::npos);
    }
    EXPECT_EQ(saver.status(), ImageSaver::SaveFailed);
    EXPECT_EQ(strayFiles(folder), 0);

    ImageSaver none(Image::create(source), nullptr);
    LogCapture log;
    EXPECT_THROW(none.save(FastString<char>(path), imaging::PfRGB8), ImageSaverException);
    EXPECT_EQ(none.status(), ImageSaver::SaveFailed);
    EXPECT_EQ(log.assertions("ImageSaver needs update of your code, please look at ImageSaver.cpp/.h"),
              1u);
    EXPECT_EQ(log.assertions("saver"), 1u);
}

// Files of this process may grow to `bytes` while it lives: a write past that fails with EFBIG,
// as a write to a full disk fails with ENOSPC (SIGXFSZ, which would end the process, is ignored
// meanwhile).
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &_saved);
        _handler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = _saved;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &_saved);
        std::signal(SIGXFSZ, _handler);
    }

private:
    rlimit _saved{};
    void (*_handler)(int) = nullptr;
};

// A disk that fills up during the module's run: the save fails with the module's exception and a
// log line, and neither the file nor its temporary is left behind, in each format.
TEST(ImageSaver, AFullDiskFailsTheSaveAndLeavesNoFile) {
    TempFolder folder;
    auto source = TestSource::create({300, 200}, {64, 64});
    ImageSaverJPEG jpeg;
    jpeg.setCompression(100);
    ImageSaverTIFF tiff;  // uncompressed: 180 KB of samples
    ImageSaverOpenEXR exr;
    const struct {
        IImageSaver* module;
        const char* name;
        RawPixelFormat format;
    } cases[] = {{&jpeg, "full.jpg", imaging::PfRGB8},
                 {&tiff, "full.tif", imaging::PfRGB8},
                 {&exr, "full.exr", imaging::PfRGBA16F}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder.path() + "/" + c.name;
        ImageSaver saver(Image::create(source), c.module);
        LogCapture log;
        bool threw = false;
        {
            FileSizeLimit limit(4096);
            try {
                saver.save(FastString<char>(path), c.format);
            } catch (const std::exception&) {
                threw = true;
            }
        }
        EXPECT_TRUE(threw);
        EXPECT_EQ(saver.status(), ImageSaver::SaveFailed);
        EXPECT_EQ(log.count("Failed to write image (url = " + path + ")"), 1u);
        EXPECT_FALSE(exists(path));
        EXPECT_EQ(strayFiles(folder), 0);
    }
}

TEST(ImageSaverThreads, CancelAndASecondSaveDuringARun) {
    TempFolder folder;
    auto source = TestSource::create({256, 256}, {64, 64});
    source->hold = true;  // tile rows below the first wait for release()
    ImageSaverTIFF tiff;
    ImageSaver saver(Image::create(source), &tiff);
    const std::string path = folder.path() + "/cancelled.tif";
    auto running = std::async(std::launch::async, [&] {
        saver.save(FastString<char>(path), imaging::PfRGB8);
    });
    ASSERT_TRUE(source->waitHeld());
    EXPECT_EQ(saver.status(), ImageSaver::Running);
    EXPECT_FALSE(saver.finished());
    {
        LogCapture log;
        try {
            saver.save(FastString<char>(folder.path() + "/second.tif"), imaging::PfRGB8);
            ADD_FAILURE() << "a second save ran";
        } catch (const ImageSaverException& e) {
            EXPECT_STREQ(e.what(), "ImageSaver::save() asynchronous call!");
        }
        EXPECT_EQ(log.assertions("_saveState != Running"), 1u);
        EXPECT_TRUE(log.contains("Looks like ImageSaver is used multiple times!"));
    }
    EXPECT_EQ(saver.status(), ImageSaver::Running) << "the first save goes on";
    saver.cancel();
    source->release();
    EXPECT_NO_THROW(running.get());
    EXPECT_EQ(saver.status(), ImageSaver::SaveCancelled);
    EXPECT_LT(saver.rowsWritten(), 256u);
    EXPECT_EQ(strayFiles(folder), 0) << "neither the cancelled file nor a partial one";

    // The saver can be used again after it has ended.
    source->hold = false;
    saver.save(FastString<char>(path), imaging::PfRGB8);
    EXPECT_EQ(saver.status(), ImageSaver::SaveFinished);
    EXPECT_TRUE(exists(path));
}

}  // namespace
}  // namespace qor::imageio
