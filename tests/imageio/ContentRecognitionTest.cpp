// Files are known by their content, whatever their names: the decoder registry, ImageLoader and
// loadImage's registry road on every format under a wrong name or none, and the recognition of
// files on bytes that are no picture at all.

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>
#include <tuple>

#include "FormatSamples.h"
#include "base/Log.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/ImageLoader.h"
#include "imaging/ImagingException.h"

namespace qor::imageio {
namespace {

using namespace testing;
using S = FastString<char>;
using math::Recti;

constexpr int W = 48, H = 32;

struct Decoded {
    bool ok = false;
    ImagePtr image;
    SharedPtr<Metadata> metadata;
};

Decoded decode(const std::string& path, Vec2i size = Vec2i(0, 0),
               ImageQuality quality = ImageQualityBest, const Recti& roi = Recti()) {
    Decoded d;
    d.ok = decodeWithRegistry(S(path), size, quality, &d.image, &d.metadata, roi);
    return d;
}

Bytes prefix(const Bytes& bytes, size_t length) {
    return Bytes(bytes.begin(), bytes.begin() + ptrdiff_t(std::min(length, bytes.size())));
}

TEST(DecoderRegistry, EveryFormatIsKnownByItsContentUnderAWrongNameOrNone) {
    TempFolder folder;
    const ImagePtr picture = samplePicture(W, H);
    const Recti region(5, 7, 30, 20);
    std::string heifSkipped;
    for (const std::string extension : {"", ".jpg"}) {
        const auto samples = formatSamples(folder, W, H, "misnamed", &extension, &heifSkipped);
        ASSERT_GE(samples.size(), 7u);
        for (const FormatSample& sample : samples) {
            SCOPED_TRACE(sample.path);
            const Decoded whole = decode(sample.path);
            ASSERT_TRUE(whole.ok);
            EXPECT_LE(maxDifference(*whole.image, *picture, 3), sample.tolerance);
            EXPECT_EQ(whole.metadata->size(), Vec2i(W, H));
            const Decoded fitted = decode(sample.path, Vec2i(24, 24));
            ASSERT_TRUE(fitted.ok);
            EXPECT_EQ(Vec2i(fitted.image->width(), fitted.image->height()), Vec2i(24, 16));

            // The loader asks once and reads regions through the same road.
            const ImageLoader loader(S(sample.path), false);
            EXPECT_EQ(std::string(loader.decoder().name()), sample.format);
            EXPECT_EQ(loader.size(), Vec2i(W, H));
            const ImagePtr part = loader.getImage4ub(ImageLoader::ImageTypeFull, region);
            EXPECT_LE(maxDifference(*part, *crop(*picture, region), 3), sample.tolerance);

            // loadImage sends a name without an extension to the registry.
            if (extension.empty()) {
                ImagePtr loaded;
                SharedPtr<Metadata> metadata;
                loadImage(S(sample.path), Vec2i(0, 0), ImageQualityFast, &loaded, &metadata);
                ASSERT_TRUE(loaded);
                EXPECT_EQ(metadata->size(), Vec2i(W, H));
            }
        }
    }
    if (!heifSkipped.empty()) std::printf("HEIF left out: %s\n", heifSkipped.c_str());
}

// The loader's fallbacks decode the whole picture: through the decoder it chose, not through a
// road picked by the name again.
TEST(ImageLoader, InterlacedPngWithoutExtensionReadsThroughItsDecoder) {
    TempFolder folder;
    const ImagePtr picture = gradientImage(40, 24);
    const std::string path = folder.write("interlaced", pngOf(*picture, true, true));
    const ImageLoader loader(S(path), false);
    EXPECT_EQ(loader.format(), ImageLoader::FormatPng);
    const Recti region(3, 4, 20, 12);
    EXPECT_EQ(maxDifference(*loader.getImage4ub(ImageLoader::ImageTypeFull, region),
                            *crop(*picture, region)),
              0);
}

TEST(JpegDecoder, PreviewIsTheExifThumbnailWithItsOwnSizeAndAllTheMetadata) {
    auto [file, location] = jpegWithThumbnail(400, 300, 80, 60, "Qor");
    ASSERT_GT(location, 0);
    TempFolder folder;
    const std::string path = folder.write("camera", file);

    // Without the metadata asked for as well: the decoder reads it to find the thumbnail.
    ImagePtr image;
    ASSERT_TRUE(decodeWithRegistry(S(path), Vec2i(100, 100), ImageQualityThumbnail, &image, nullptr,
                                   Recti()));
    EXPECT_EQ(Vec2i(image->width(), image->height()), Vec2i(100, 75));
    const Decoded preview = decode(path, Vec2i(40, 40), ImageQualityThumbnail);
    ASSERT_TRUE(preview.ok);
    EXPECT_EQ(Vec2i(preview.image->width(), preview.image->height()), Vec2i(40, 30));
    EXPECT_EQ(preview.metadata->size(), Vec2i(80, 60));  // what was decoded
    S make;
    EXPECT_TRUE(preview.metadata->get(MetadataField::MakeString, make));
    EXPECT_EQ(make, "Qor");
    const Decoded picture = decode(path, Vec2i(40, 40), ImageQualityFast);
    EXPECT_EQ(picture.metadata->size(), Vec2i(400, 300));

    // A thumbnail that does not decode gives way to the picture.
    file[size_t(location) + 2] = 0xFF;
    file[size_t(location) + 3] = 0xD8;
    const std::string broken = folder.write("broken", file);
    LogCapture log;
    const Decoded fallback = decode(broken, Vec2i(40, 40), ImageQualityThumbnail);
    ASSERT_TRUE(fallback.ok);
    EXPECT_EQ(fallback.metadata->size(), Vec2i(400, 300));
    EXPECT_EQ(fallback.metadata->thumbLocation(), 0);
    EXPECT_TRUE(log.contains("loadJpeg: corrupted thumbnail in '" + broken + "'"));
}

// Recognition looks at up to 64 bytes of anything: short files, empty files, signatures with
// nothing behind them, noise. Nothing may read past what is there (AddressSanitizer) or throw
// other than the loader's own exception.
TEST(DecoderRegistry, RecognitionIsSafeOnAnyBytes) {
    TempFolder folder;
    std::mt19937 random(5);
    Bytes noise(4096);
    for (uint8_t& b : noise) b = uint8_t(random());
    const FastString<char> none;

    for (const FormatSample& sample : formatSamples(folder, 16, 16, "s")) {
        SCOPED_TRACE(sample.path);
        const Bytes bytes = readFile(sample.path);
        const ImageDecoder* full = findDecoder(bytes.data(), DecoderHeadLength, none);
        ASSERT_TRUE(full);
        EXPECT_EQ(std::string(full->name()), sample.format);
        // No signature is shorter than three bytes; heads cut shorter than the signature are not
        // taken for something else.
        for (size_t length = 0; length <= DecoderHeadLength; ++length) {
            const Bytes head = prefix(bytes, length);
            const ImageDecoder* found = findDecoder(head.data(), head.size(), none);
            if (length < 3) {
                EXPECT_FALSE(found) << length;
            }
            if (found) {
                EXPECT_EQ(found, full) << length;
            }
        }
        // Files cut anywhere in their first bytes, and the signature with noise behind it.
        Bytes signed_ = prefix(bytes, 16);
        signed_.insert(signed_.end(), noise.begin(), noise.end());
        std::vector<Bytes> damaged = {signed_};
        for (size_t length : {0, 1, 2, 3, 4, 8, 12, 17, 18, 30, 63, 64, 65, 200})
            damaged.push_back(prefix(bytes, length));
        for (const Bytes& content : damaged) {
            const std::string path = folder.write("cut", content);
            LogCapture log;
            decode(path, Vec2i(0, 0), ImageQualityBest);
            decode(path, Vec2i(5, 5), ImageQualityThumbnail);
            try {
                const ImageLoader loader(S(path), false);
                loader.getImage4ub(ImageLoader::ImageTypeDraft, Recti());
            } catch (const ImageLoaderException&) {
            }
        }
    }

    // Bytes no decoder knows: one warning, after the line that says why.
    const std::string unknown = folder.write("noise.jpeg2", noise);
    const std::string empty = folder.write("empty", Bytes());
    for (const std::string& path : {unknown, empty}) {
        LogCapture log;
        EXPECT_FALSE(decode(path).ok);
        size_t warnings = 0;
        for (const LogCapture::Entry& line : log.entries()) warnings += line.level >= LogWarning;
        EXPECT_EQ(warnings, 1u);
        EXPECT_TRUE(log.contains("Failed to load image using WIC: '" + path + "'"));
        EXPECT_TRUE(log.contains("No decoder recognises the content of '" + path + "'"));
        EXPECT_THROW(ImageLoader(S(path), false), ImageLoaderException);
    }
}

// An OpenEXR file that is a header of these attributes (name, type, value) and nothing else.
Bytes exrHeader(const std::vector<std::tuple<std::string, std::string, Bytes>>& attributes,
                const std::vector<int32_t>& sizes = {}) {
    Bytes out = {0x76, 0x2F, 0x31, 0x01, 2, 0, 0, 0};
    for (size_t i = 0; i < attributes.size(); ++i) {
        const auto& [name, type, value] = attributes[i];
        out.insert(out.end(), name.begin(), name.end() + 1);
        out.insert(out.end(), type.begin(), type.end() + 1);
        const int32_t size = i < sizes.size() && sizes[i] >= 0 ? sizes[i] : int32_t(value.size());
        for (int b = 0; b < 4; ++b) out.push_back(uint8_t(uint32_t(size) >> (8 * b)));
        out.insert(out.end(), value.begin(), value.end());
    }
    out.push_back(0);
    out.resize(out.size() + 256, 0);  // where the chunk table would be
    return out;
}

Bytes int32s(std::initializer_list<int32_t> values) {
    Bytes out;
    for (int32_t v : values)
        for (int b = 0; b < 4; ++b) out.push_back(uint8_t(uint32_t(v) >> (8 * b)));
    return out;
}

// OpenEXR allocates what a header declares before reading it, and reads a channel list by its
// entries rather than its declared length: a file of a few hundred bytes can make it allocate
// gigabytes. Such headers are refused, with the reason, before OpenEXR reads them.
TEST(ExrDecoder, HeadersThatClaimMoreThanTheFileHoldsAreRefusedBeforeOpenExrReadsThem) {
    TempFolder folder;
    Bytes channel = {'R', 0};
    const Bytes sampling = int32s({1, 0, 1, 1});  // half, linear 0, reserved, x and y sampling 1
    channel.insert(channel.end(), sampling.begin(), sampling.end());
    Bytes channels = channel;
    channels.push_back(0);
    const auto window = [](int32_t height) { return int32s({0, 0, 7, height - 1}); };
    const std::vector<std::tuple<std::string, std::string, Bytes>> plain = {
        {"channels", "chlist", channels},   {"compression", "compression", {0}},
        {"dataWindow", "box2i", window(8)}, {"displayWindow", "box2i", window(8)},
        {"lineOrder", "lineOrder", {0}},    {"pixelAspectRatio", "float", int32s({0x3F800000})}};
    auto twoWindows = plain;
    twoWindows.emplace_back("dataWindow", "box2i", window(100000000));

    const struct {
        Bytes file;
        std::string why;
    } cases[] = {
        {exrHeader(plain, {0x70000000}), "attribute 'channels' claims 1879048192 bytes"},
        // The declared length ends inside the entry: OpenEXR would read on into the next name.
        {exrHeader(plain, {10}), "attribute 'channels' of type 'chlist' is not 10 bytes long"},
        // OpenEXR takes the last of two data windows.
        {exrHeader(twoWindows), "a data window of 8 x 100000000 pixels"},
    };
    for (const auto& [file, why] : cases) {
        const std::string path = folder.write("claims", file);
        LogCapture log;
        EXPECT_FALSE(decode(path).ok);
        EXPECT_TRUE(log.contains(why)) << why;
        try {
            const ImageLoader loader(S(path), false);
            ADD_FAILURE() << "the loader took " << why;
        } catch (const ImageLoaderException& e) {
            EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
        }
    }
}

// Float samples that are not a number come out as 0 in 8 and 16 bits (their conversion was
// undefined behaviour).
TEST(ExrDecoder, NotANumberSamplesComeOutAsZero) {
    TempFolder folder;
    auto floats = imaging::GenImageData<float, 4>::create(4, 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x)
            for (int c = 0; c < 4; ++c) floats->at(x, y, c) = x == 1 ? NAN : 0.5f;
    const std::string path = folder.path() + "/nan.exr";
    ImageSaverOpenEXR exr;
    ExportData<imaging::PfRGBA32F> rows{
        SharedPtr<const imaging::RawImageDataOf<imaging::PfRGBA32F>>(floats)};
    ASSERT_TRUE(exr.saveRows(S(path), imaging::PfRGBA32F, rows));

    const Decoded d = decode(path);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(pixelAt(*d.image, 1, 1), (Pixel{0, 0, 0, 0}));
    EXPECT_EQ(pixelAt(*d.image, 2, 1), (Pixel{128, 128, 128, 128}));
    const auto wide = ImageLoader(S(path), false).getImage4us(ImageLoader::ImageTypeFull, Recti());
    EXPECT_EQ(wide->at(1, 0, 0), 0);
}

}  // namespace
}  // namespace qor::imageio
