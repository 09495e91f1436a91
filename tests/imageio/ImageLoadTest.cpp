#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "base/filesystem/FilesystemScopedLock.h"

namespace qor::imageio {
namespace {

using namespace testing;
using S = FastString<char>;
using Vec2i = math::GenVec<int, 2>;

TEST(ImageLoad, TiffIsNoDirectCodecFormatAndLeavesBothOutputsUntouched) {
    TempFolder folder;
    const std::string path = folder.write("picture.TiF", makeJpeg(8, 8));
    LogCapture log;
    ImagePtr image;
    SharedPtr<Metadata> existing = std::make_shared<Metadata>();
    SharedPtr<Metadata> metadata = existing;
    loadImage(S(path), Vec2i(0, 0), ImageQualityBest, &image, &metadata);
    EXPECT_FALSE(image);
    EXPECT_EQ(metadata, existing);
    EXPECT_TRUE(log.contains("Unknown file type: '" + path + "'"));
}

TEST(ImageLoad, ExtensionsChooseTheRoadCaseBlind) {
    TempFolder folder;
    const Bytes jpeg = makeJpeg(24, 16);
    for (const char* name : {"a.jpg", "b.JpG", "c.JPEG", "d.jpeg"}) {
        ImagePtr image;
        loadImage(S(folder.write(name, jpeg)), Vec2i(0, 0), ImageQualityFast, &image, nullptr);
        ASSERT_TRUE(image) << name;
        EXPECT_EQ(image->width(), 24) << name;
    }
    const Bytes png = pngOf(*gradientImage(10, 6), true);
    ImagePtr fromPng;
    loadImage(S(folder.write("e.PnG", png)), Vec2i(0, 0), ImageQualityFast, &fromPng, nullptr);
    ASSERT_TRUE(fromPng);
    EXPECT_EQ(Vec2i(fromPng->width(), fromPng->height()), Vec2i(10, 6));

    // A name that is neither JPEG nor PNG, or none, goes to the decoder registry, which goes by
    // the content: bytes that are no picture fail with the registry's line naming the file.
    for (const char* name : {"f.gif", "noextension", "dir.jpg/g"}) {
        if (std::string(name) == "dir.jpg/g")
            std::filesystem::create_directory(folder.path() + "/dir.jpg");
        const std::string path = folder.write(name, Bytes(64, 0x11));
        LogCapture log;
        ImagePtr image;
        loadImage(S(path), Vec2i(0, 0), ImageQualityFast, &image, nullptr);
        EXPECT_FALSE(image) << name;
        EXPECT_TRUE(log.contains("Failed to load image using WIC: '" + path + "'")) << name;
    }
}

TEST(ImageLoad, MissingJpegLogsAndEmptiesBothOutputs) {
    LogCapture log;
    ImagePtr image = solidImage(1, 1, 0, 0, 0);
    SharedPtr<Metadata> metadata = std::make_shared<Metadata>();
    // Wanted outputs that already hold something are not produced again, but a failure to open
    // the file empties them.
    loadImage(S("/nonexistent-folder/x.jpg"), Vec2i(0, 0), ImageQualityFast, &image, &metadata);
    EXPECT_FALSE(image);
    EXPECT_FALSE(metadata);
    EXPECT_TRUE(log.contains("ImageIO: When opening: /nonexistent-folder/x.jpg, Error: "));
}

TEST(ImageLoad, OutputsThatAreThereAreNotProducedAgain) {
    TempFolder folder;
    const std::string path = folder.write("a.jpg", makeJpeg(32, 32));
    ImagePtr existing = solidImage(2, 2, 9, 9, 9);
    ImagePtr image = existing;
    SharedPtr<Metadata> metadata;
    loadImage(S(path), Vec2i(0, 0), ImageQualityFast, &image, &metadata);
    EXPECT_EQ(image, existing);
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->size(), Vec2i(32, 32));

    // Metadata only: no image work at all.
    SharedPtr<Metadata> only;
    loadImageUnlocked(S(path), Vec2i(0, 0), ImageQualityFast, nullptr, &only);
    ASSERT_TRUE(only);
    EXPECT_EQ(only->size(), Vec2i(32, 32));
}

TEST(ImageLoad, JunkUnderAJpegNameFailsBothReadsWithTheirLines) {
    TempFolder folder;
    const std::string path = folder.write("junk.jpg", Bytes(300, 0x5A));
    LogCapture log;
    ImagePtr image;
    SharedPtr<Metadata> metadata;
    loadImage(S(path), Vec2i(0, 0), ImageQualityThumbnail, &image, &metadata);
    EXPECT_FALSE(image);
    EXPECT_FALSE(metadata);
    EXPECT_TRUE(log.contains("Failed to read jpeg exif from '" + path + "'"));
    EXPECT_TRUE(log.contains("decodeJpegCore: libjpeg failed with: "));
}

TEST(ImageLoad, PngHonoursRegionAndSizeLikeTheOtherRoads) {
    TempFolder folder;
    ImagePtr source = gradientImage(40, 20);
    const std::string path = folder.write("p.png", pngOf(*source, true));
    ImagePtr part;
    loadROI(S(path), &part, math::Recti(5, 3, 10, 4));
    ASSERT_TRUE(part);
    EXPECT_EQ(maxDifference(*crop(*source, {5, 3, 10, 4}), *part), 0);

    ImagePtr small;
    loadImage(S(path), Vec2i(10, 10), ImageQualityFast, &small, nullptr);
    ASSERT_TRUE(small);
    EXPECT_EQ(Vec2i(small->width(), small->height()), Vec2i(10, 5));
}

TEST(ImageLoadThreads, LoadImageWaitsForAWriterHoldingThePathLock) {
    TempFolder folder;
    const std::string path = folder.write("locked.jpg", makeJpeg(16, 16));
    FilesystemScopedLock writer(path, FilesystemScopedLock::Exclusive);
    std::atomic<bool> done{false};
    ImagePtr image;
    std::thread reader([&] {
        loadImage(S(path), Vec2i(0, 0), ImageQualityFast, &image, nullptr);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(done.load());
    writer.release();
    reader.join();
    EXPECT_TRUE(done.load());
    EXPECT_TRUE(image);

    // The unlocked form is for a caller that holds the lock itself.
    FilesystemScopedLock held(path, FilesystemScopedLock::Shared);
    ImagePtr again;
    std::thread unlocked(
        [&] { loadImageUnlocked(S(path), Vec2i(0, 0), ImageQualityFast, &again, nullptr); });
    unlocked.join();
    EXPECT_TRUE(again);
}

}  // namespace
}  // namespace qor::imageio
