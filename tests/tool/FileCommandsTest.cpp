// qor info, thumb and checksum, run as the program itself on files made here: every format is
// reached by its content under any name, info reads no pixels unless asked to verify them, and a
// file that is no picture gives one clear line.

#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "FormatSamples.h"
#include "QorRun.h"
#include "imageio/MetadataReader.h"

// x265, behind libheif's HEVC encoder, keeps a few blocks of global state for the life of the
// process; they are not this library's leaks.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }

namespace qor::imageio {
namespace {

using namespace testing;
using Json = nlohmann::json;

constexpr int W = 60, H = 40;
const std::string NoExtension;

TEST(QorInfo, ReachesEveryFormatByItsContentUnderAnyName) {
    TempFolder folder;
    const auto samples = formatSamples(folder, W, H, "noname", &NoExtension);
    ASSERT_GE(samples.size(), 7u);
    std::vector<std::string> args = {"info", "--json"};
    for (const FormatSample& sample : samples) args.push_back(sample.path);
    const QorRun run = runQor(folder, args);
    EXPECT_EQ(run.status, 0);
    for (const std::string& line : run.errLines) ADD_FAILURE() << line;
    const Json items = Json::parse(run.out);
    ASSERT_EQ(items.size(), samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE(samples[i].path);
        const Json& item = items[i];
        ASSERT_FALSE(item.contains("error")) << item["error"];
        EXPECT_EQ(item.value("format", ""), samples[i].format);
        EXPECT_EQ(item["type"], "unknown");  // the item type goes by the extension
        EXPECT_EQ(item["fields"]["Imagesize"], Json::array({W, H}));
        EXPECT_EQ(item["checksum"].get<std::string>().size(), 32u);
    }
}

TEST(QorInfo, ReadsNoPixelsUnlessAskedToVerifyThem) {
    TempFolder folder;
    const Bytes jpeg = makeJpeg(320, 240);
    const std::string cut = folder.write(
        "cut.jpg", Bytes(jpeg.begin(), jpeg.begin() + ptrdiff_t(jpeg.size() * 6 / 10)));
    const std::string whole = folder.write("whole.jpg", jpeg);

    // The header and metadata are whole: without decoding, nothing is amiss.
    const QorRun quick = runQor(folder, {"info", "--json", cut, whole});
    EXPECT_EQ(quick.status, 0);
    EXPECT_TRUE(quick.errLines.empty());
    EXPECT_EQ(Json::parse(quick.out)[0]["fields"]["Imagesize"], Json::array({320, 240}));

    const QorRun verified = runQor(folder, {"info", "--verify", cut, whole});
    EXPECT_EQ(verified.status, 1);
    ASSERT_EQ(verified.errLines.size(), 1u);
    EXPECT_EQ(verified.errLines[0].rfind("qor: info: '" + cut + "': ", 0), 0u)
        << verified.errLines[0];
    EXPECT_NE(verified.out.find(whole), std::string::npos);
    EXPECT_EQ(verified.out.find(cut), std::string::npos);
}

TEST(QorThumb, ReachesEveryFormatByItsContentUnderAnyName) {
    TempFolder folder;
    for (const FormatSample& sample : formatSamples(folder, W, H, "noname", &NoExtension)) {
        SCOPED_TRACE(sample.path);
        const std::string out = folder.path() + "/thumb.bmp";
        const QorRun run = runQor(folder, {"thumb", sample.path, "--size", "30x30", "-o", out});
        ASSERT_EQ(run.status, 0) << (run.errLines.empty() ? "" : run.errLines.front());
        ImagePtr thumb;
        loadImage(FastString<char>(out), Vec2i(0, 0), ImageQualityBest, &thumb, nullptr);
        ASSERT_TRUE(thumb);
        ASSERT_EQ(Vec2i(thumb->width(), thumb->height()), Vec2i(30, 20));
        // Halved by area: the ramps keep their ends within a step of 17 and the coding error.
        const Pixel first = pixelAt(*thumb, 0, 0), last = pixelAt(*thumb, 29, 19);
        EXPECT_LE(first[0], 17 + sample.tolerance);
        EXPECT_GE(last[0], 238 - sample.tolerance);
        EXPECT_GE(last[1], 238 - sample.tolerance);
        EXPECT_NEAR(first[2], 96, 4 + sample.tolerance);
    }
}

TEST(QorThumb, ExifThumbnailServesOnlyWhenItFillsTheBox) {
    TempFolder folder;
    // A grey picture whose EXIF thumbnail is red, so that the result tells which was taken.
    const Bytes grey = encodeJpeg(400, 300, 3, JCS_RGB, 90, [](int, unsigned char* row) {
        std::fill(row, row + 400 * 3, 128);
    });
    const Bytes red = encodeJpeg(80, 60, 3, JCS_RGB, 90, [](int, unsigned char* row) {
        for (int x = 0; x < 80; ++x) row[x * 3] = 255, row[x * 3 + 1] = 0, row[x * 3 + 2] = 0;
    });
    const std::string path = folder.write(
        "camera", withMetadata(grey, [&red](Exiv2::Image& image) {
            Exiv2::ExifThumb(image.exifData()).setJpegThumbnail(red.data(), red.size());
        }));
    for (const auto& [box, thumbnailTaken] : {std::pair{"64x64", true}, {"200x200", false}}) {
        SCOPED_TRACE(box);
        const std::string out = folder.path() + "/thumb.jpg";
        const QorRun run = runQor(folder, {"thumb", path, "--size", box, "-o", out});
        ASSERT_EQ(run.status, 0);
        ImagePtr thumb;
        loadImage(FastString<char>(out), Vec2i(0, 0), ImageQualityBest, &thumb, nullptr);
        ASSERT_TRUE(thumb);
        EXPECT_EQ(thumb->width(), thumbnailTaken ? 64 : 200);
        EXPECT_NEAR(pixelAt(*thumb, 10, 10)[0], thumbnailTaken ? 255 : 128, 12);
    }
}

TEST(QorFileCommands, BytesThatAreNoPictureGiveOneClearLineAndTheRestGoesOn) {
    TempFolder folder;
    Bytes noise(3000);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 7919 % 251);
    const std::string junk = folder.write("junk.jpg", noise);
    const std::string good = folder.write("good", makeJpeg(32, 16));
    const std::string clear = "no decoder recognises its content";

    const QorRun info = runQor(folder, {"info", junk, good});
    EXPECT_EQ(info.status, 1);
    ASSERT_EQ(info.errLines.size(), 1u);
    EXPECT_EQ(info.errLines[0], "qor: info: '" + junk + "': " + clear);
    EXPECT_NE(info.out.find("format    jpeg"), std::string::npos);

    const QorRun thumb = runQor(folder, {"thumb", junk, "-o", folder.path() + "/t.jpg"});
    EXPECT_EQ(thumb.status, 1);
    ASSERT_EQ(thumb.errLines.size(), 1u);
    // The thumbnail maker's own reason.
    EXPECT_EQ(thumb.errLines[0],
              "qor: thumb: '" + junk + "': not a picture or video that can be read");

    // The checksum asks the content only when the name does not tell.
    const QorRun checksum = runQor(folder, {"checksum", good, folder.write("noise", noise)});
    EXPECT_EQ(checksum.status, 1);
    EXPECT_NE(checksum.out.find(imageChecksum(FastString<char>(good)).toHex()), std::string::npos);
    ASSERT_EQ(checksum.errLines.size(), 1u);
    EXPECT_NE(checksum.errLines[0].find("not an image or video file"), std::string::npos);
}

}  // namespace
}  // namespace qor::imageio
