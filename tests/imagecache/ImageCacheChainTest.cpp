// The disk and source links on real files: a DynamicHDCache in a temporary folder in front of
// makeThumbnail, with a counting link between them that tells how often a file was decoded.

#include <gtest/gtest.h>

#include <cstdlib>

#include "TestJpeg.h"
#include "ThumbnailTestSupport.h"
#include "base/Log.h"
#include "base/cache/DynamicHDCache.h"
#include "base/filesystem/Path.h"
#include "imagecache/thumbnails/ImageCacheDHD.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/ImageCacheSource.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"

namespace qor::imagecache {
namespace {

using imageio::testing::Bytes;
using imageio::testing::TempFolder;
using testing::CountingLink;

// A 320 x 240 JPEG of one colour.
Bytes solidJpeg(unsigned char r, unsigned char g, unsigned char b) {
    return imageio::testing::encodeJpeg(320, 240, 3, JCS_RGB, 90, [&](int, unsigned char* row) {
        for (int x = 0; x < 320; ++x) {
            row[x * 3] = r;
            row[x * 3 + 1] = g;
            row[x * 3 + 2] = b;
        }
    });
}

// The centre pixel's red, within JPEG's error of the colour written.
int centreRed(const Thumbnail& t) {
    const imageio::Image4ub& image = *t.image;
    return image.data()[(image.height() / 2) * image.stride() + (image.width() / 2) * 4];
}

struct ImageCacheChainTest : ::testing::Test {
    TempFolder files;
    TempFolder cacheFolder;
    ResourceManager manager;
    DynamicHDCache store{cacheFolder.path() + "/thumbs", 64 << 20};
    ImageCacheSource source{&manager};
    CountingLink decodes{&source};
    ImageCacheDHD disk{&decodes, &store};

    ResourceID add(const std::string& name, const Bytes& bytes) {
        return manager.add(manager.nameFromLocalPath(files.write(name, bytes)));
    }
};

TEST_F(ImageCacheChainTest, ARewrittenFileGetsANewThumbnailAndDropsTheOldEntry) {
    ResourceID id = add("a.jpg", solidJpeg(250, 0, 0));
    Thumbnail first = disk.get(id, kGridThumbnailSide);
    ASSERT_FALSE(first.placeholder);
    EXPECT_EQ(first.image->width(), kGridThumbnailSide);
    EXPECT_NEAR(centreRed(first), 250, 4);
    EXPECT_TRUE(disk.contains(id, kGridThumbnailSide));
    EXPECT_NEAR(centreRed(disk.get(id, kGridThumbnailSide)), 250, 4);
    EXPECT_EQ(decodes.gets, 1);

    // Rewritten in place, without any notice to the chain: the new time finds no entry.
    const std::string path = manager.localPath(id);
    time::Timestamp before = filesystem::lastWriteTime(path);
    files.write("a.jpg", solidJpeg(10, 200, 0));
    filesystem::setLastWriteTime(
        path, time::Timestamp::fromMicroseconds(before.microseconds() + 5000000));
    EXPECT_FALSE(disk.contains(id, kGridThumbnailSide));
    EXPECT_NEAR(centreRed(disk.get(id, kGridThumbnailSide)), 10, 4);
    EXPECT_EQ(decodes.gets, 2);
    EXPECT_EQ(store.count(), 1u);  // the old entry went with the new put
}

TEST_F(ImageCacheChainTest, AMovedImageKeepsItsThumbnailsAndAnErasedOneLosesThem) {
    ResourceID id = add("old.jpg", solidJpeg(200, 0, 0));
    ResourceID other = add("oldish.jpg", solidJpeg(0, 0, 200));  // shares the name's start
    disk.get(id, kGridThumbnailSide);
    disk.get(id, kScreenPreviewSide);
    disk.get(other, kGridThumbnailSide);
    ASSERT_EQ(decodes.gets, 3);

    const std::string oldPath = manager.localPath(id);
    const std::string newPath = files.path() + "/moved.jpg";
    filesystem::moveUrl(oldPath, newPath);
    ASSERT_TRUE(manager.rename(id, manager.nameFromLocalPath(newPath)));
    disk.itemMoved(id, oldPath);

    EXPECT_TRUE(disk.contains(id, kGridThumbnailSide));
    EXPECT_NEAR(centreRed(disk.get(id, kGridThumbnailSide)), 200, 4);
    EXPECT_NEAR(centreRed(disk.get(id, kScreenPreviewSide)), 200, 4);
    EXPECT_TRUE(disk.contains(other, kGridThumbnailSide));
    EXPECT_EQ(decodes.gets, 3);

    // A copy shares them; erasing the original leaves the copy's.
    ResourceID copy = add("copy.jpg", {});
    filesystem::copyUrl(newPath, manager.localPath(copy), true);
    disk.itemCopied(id, copy);
    EXPECT_TRUE(disk.contains(copy, kGridThumbnailSide));
    disk.itemRemoved(id, newPath);
    EXPECT_FALSE(disk.contains(id, kGridThumbnailSide));
    EXPECT_FALSE(disk.contains(id, kScreenPreviewSide));
    EXPECT_NEAR(centreRed(disk.get(copy, kGridThumbnailSide)), 200, 4);
    EXPECT_EQ(decodes.gets, 3);

    disk.itemChanged(other);
    EXPECT_FALSE(disk.contains(other, kGridThumbnailSide));
}

TEST_F(ImageCacheChainTest, ABrokenFileGivesAPlaceholderThatNoLinkKeeps) {
    ImageCacheRAM ram(&disk, 16 << 20);
    ResourceID id = add("broken.jpg", Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 16, 'J', 'F'});
    Thumbnail t;
    {
        LogCapture log;
        t = ram.get(id, kGridThumbnailSide);
        // makeThumbnail's line, and none of the links'.
        EXPECT_EQ(log.count("makeThumbnail: no thumbnail of"), 1u);
        for (const LogCapture::Entry& e : log.entries()) {
            EXPECT_EQ(e.file.find("imagecache/thumbnails/ImageCache"), std::string::npos) << e.text;
        }
    }
    EXPECT_TRUE(t.placeholder);
    ASSERT_NE(t.image, nullptr);
    EXPECT_EQ(t.image->data()[0], 128);
    EXPECT_EQ(store.count(), 0u);
    EXPECT_FALSE(ram.contains(id, kGridThumbnailSide));

    const std::string path = manager.localPath(id);
    time::Timestamp before = filesystem::lastWriteTime(path);
    files.write("broken.jpg", solidJpeg(0, 250, 0));
    filesystem::setLastWriteTime(
        path, time::Timestamp::fromMicroseconds(before.microseconds() + 5000000));
    Thumbnail fixed = ram.get(id, kGridThumbnailSide);
    EXPECT_FALSE(fixed.placeholder);
    EXPECT_EQ(fixed.image->width(), kGridThumbnailSide);
    EXPECT_EQ(decodes.gets, 2);

    // A file that is gone, and an id the manager does not know, give placeholders too.
    filesystem::removeFile(path);
    ram.itemChanged(id);
    EXPECT_TRUE(ram.get(id, kGridThumbnailSide).placeholder);
    EXPECT_TRUE(ram.get(manager.makeID(999), kGridThumbnailSide).placeholder);
}

TEST_F(ImageCacheChainTest, AStoredEntryThatDoesNotDecodeIsMadeAgain) {
    ResourceID id = add("a.jpg", solidJpeg(120, 0, 0));
    disk.get(id, kGridThumbnailSide);
    const std::string key =
        ImageCacheDHD::key(manager.persistentString(id), kGridThumbnailSide,
                           filesystem::lastWriteTime(manager.localPath(id)).microseconds());
    ASSERT_TRUE(store.contains(key));
    ASSERT_TRUE(store.put(key, "garbage", 7));
    LogCapture log;
    EXPECT_NEAR(centreRed(disk.get(id, kGridThumbnailSide)), 120, 4);
    EXPECT_EQ(decodes.gets, 2);
    std::string bytes;
    ASSERT_TRUE(store.get(key, bytes));
    EXPECT_NE(bytes, "garbage");
}

}  // namespace
}  // namespace qor::imagecache
