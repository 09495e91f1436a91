// File sources at their creation and when their file can no longer be locked: the sizes they
// take, and the lines they log.

#include <gtest/gtest.h>

#include <string>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "base/resource/ResourceManager.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageIOImageSource.h"
#include "imaging/ImagingException.h"

namespace qor::imageio {
namespace {

using testing::gradientImage;
using testing::TempFolder;
using String = FastString<char>;
using Vec2i = math::GenVec<int, 2>;

std::string makeTiff(const TempFolder& folder, const char* name, int width, int height) {
    const std::string path = folder.path() + "/" + name;
    ImageSaverTIFF tiff;
    tiff.save4ub(String(path), gradientImage(width, height));
    return path;
}

TEST(ImageIOImageSource, ShortCreateOfAnUnreadableFileReadsItOnce) {
    TempFolder folder;
    const std::string path = folder.write("garbage.jpg", testing::Bytes(300, 0x5a));
    LogCapture capture;
    EXPECT_FALSE(ImageIOImageSource::create(String(path), imaging::PfRGBA8, nullptr, true));
    EXPECT_EQ(capture.count("unknown uncaught exception"), 1u);
    EXPECT_EQ(capture.assertions("false"), 1u);
    EXPECT_EQ(capture.assertions("param.size != Vec2i(0,0)"), 1u);
}

TEST(ResourceImageIOImageSource, GivenSizesAreClampedAndFailWithoutATrueSize) {
    TempFolder folder;
    ResourceManager manager;
    const ResourceID picture =
        manager.add(manager.nameFromLocalPath(makeTiff(folder, "a.tif", 120, 60)));
    const ResourceID garbage = manager.add(
        manager.nameFromLocalPath(folder.write("garbage.tif", testing::Bytes(300, 0x5a))));
    ImageIOImageSourceBase::ConstructionParam param;

    struct Case {
        ResourceID id;
        Vec2i wanted;
        Vec2i expected;  // (0, 0): creation fails
    };
    const Case cases[] = {
        {picture, {0, 0}, {120, 60}},     // the true size
        {picture, {60, 1000}, {60, 30}},  // proportions kept inside the clamped box
        {picture, {64, 0}, {0, 0}},       // a zero side clamps to nothing
        {picture, {-5, 30}, {0, 0}},      // so does a negative one
        {garbage, {50, 50}, {0, 0}},      // no true size: nothing to clamp to
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.wanted.x) + "x" + std::to_string(c.wanted.y));
        param.size = c.wanted;
        LogCapture capture;
        auto source = ResourceImageIOImageSource::create(&manager, c.id, param);
        if (c.expected == Vec2i(0, 0)) {
            EXPECT_FALSE(source);
            EXPECT_EQ(capture.assertions("param.size != Vec2i(0,0)"), 1u);
        } else {
            ASSERT_TRUE(source);
            EXPECT_EQ(source->size(), c.expected);
            EXPECT_EQ(capture.assertions(), 0u);
        }
    }
}

TEST(ResourceImageIOImageSource, AFailedLockNamesTheLastPathInItsLine) {
    TempFolder folder;
    const std::string path = makeTiff(folder, "a.tif", 64, 64);
    for (bool regionRead : {false, true}) {
        ResourceManager manager;
        const ResourceID id = manager.add(manager.nameFromLocalPath(path));
        ImageIOImageSourceBase::ConstructionParam param;
        param.regionRead = regionRead;
        auto source = ResourceImageIOImageSource::create(&manager, id, param);
        ASSERT_TRUE(source);
        ASSERT_TRUE(manager.remove(id));  // the file stays; the resource is gone

        LogCapture capture;
        EXPECT_THROW(source->getTile(0, 0, false, nullptr, {}), imaging::ImagingException);
        const char* line = regionRead ? "ImageIOImageSource: failed to read image data for '"
                                      : "ImageIOImageSource: failed to read file '";
        EXPECT_EQ(capture.count(std::string(line) + path + "'"), 1u) << "regionRead " << regionRead;
        EXPECT_EQ(capture.assertions("false"), 1u);
    }
}

}  // namespace
}  // namespace qor::imageio
