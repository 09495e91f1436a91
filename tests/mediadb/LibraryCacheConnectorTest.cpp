// LibraryCacheConnector over the real metadata cache chain (MetadataCacheRDB in front of
// FileMetadataCache) on JPEGs written by the test: ratings, capture times and checksums of library
// images, through copies and moves.

#include <gtest/gtest.h>

#include "CacheTestSupport.h"
#include "LibraryTestSupport.h"
#include "ThumbnailTestSupport.h"
#include "base/cache/DynamicHDCache.h"
#include "base/filesystem/Path.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imagecache/thumbnails/ImageCacheDHD.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/ImageCacheSource.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"
#include "imageio/ImageIO.h"
#include "mediadb/library/LibraryCacheConnector.h"

namespace qor::mediadb::testing {
namespace {

TEST(LibraryCacheConnector, RatingsTimesAndChecksumsOfLibraryImagesEndToEnd) {
    test::TempDir dir;
    ASSERT_TRUE(dir.ok());
    const std::string rated = dir / "in/rated.jpg";
    const std::string plain = dir / "in/plain.jpg";
    const imageio::testing::Bytes ratedBytes = imagecache::testing::cameraJpeg(2.8);
    const imageio::testing::Bytes plainBytes = imageio::testing::makeJpeg(32, 24);
    writeFile(rated, std::string(ratedBytes.begin(), ratedBytes.end()));
    writeFile(plain, std::string(plainBytes.begin(), plainBytes.end()));
    writeFile(dir / "in/not-a-picture.jpg", "text");
    // The first checksum initialises libcrypto, which keeps per-thread state on the thread that
    // does it; on a pool thread that state is never freed (LeakSanitizer reports it at exit), so
    // the test thread goes first.
    const Digest ratedChecksum = imageio::imageChecksum(FastString<char>(rated));

    ImageManager images;
    imagecache::FileMetadataCache files(&images);
    imagecache::MetadataCacheRDB cache(&files, dir / "cache", nullptr, 0);
    LibraryCacheConnector connector(&cache);
    Library library(&images, &connector, dir / "lib/");
    registerTestBags(library);
    library.load();

    ResourceID one = library.createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID two = library.createBag(TestFolderBag::bagTypeStatic(), "Two");
    ResourceID a = library.copyImage(rated, one, "", "", false);
    ResourceID b = library.copyImage(plain, one, "", "", false);
    ResourceID c = library.copyImage(dir / "in/not-a-picture.jpg", one, "", "", false);

    EXPECT_TRUE(connector.hasMetadata(a));
    EXPECT_EQ(connector.rating(a), 4);
    EXPECT_EQ(connector.rating(b), 0);
    EXPECT_EQ(connector.captureTime(a), time::Timestamp::fromFields(2019, 7, 14, 10, 20, 30));
    EXPECT_TRUE(connector.captureTime(b).isNull());
    EXPECT_EQ(connector.checksum(a), ratedChecksum);
    EXPECT_NE(connector.checksum(a), connector.checksum(b));
    EXPECT_EQ(connector.fileSize(a), ratedBytes.size());

    // The values follow the image when it moves to another bag.
    library.moveImages({a}, two);
    EXPECT_EQ(library.getImageResourceName(a).localPath(), dir / "lib/Two/rated.jpg");
    EXPECT_EQ(connector.rating(a), 4);
    EXPECT_EQ(connector.checksum(a), ratedChecksum);

    // A copy of a library image is the same picture.
    ResourceID copy = library.copyImage(a, one, "", "again.jpg", false);
    EXPECT_EQ(connector.rating(copy), 4);
    EXPECT_EQ(connector.checksum(copy), connector.checksum(a));

    // A file that is no picture: no rating, no capture time, but metadata of the file itself.
    EXPECT_EQ(connector.rating(c), 0);
    EXPECT_TRUE(connector.captureTime(c).isNull());
    connector.flush();
}

// The thumbnail chain (memory, disk, a decode counter, the files) behind the connector: moving an
// image, renaming its bag and copying it decode nothing again; a rewritten file that the metadata
// cache's check finds drops its thumbnails; an erased image leaves none on disk.
TEST(LibraryCacheConnector, ThumbnailsFollowTheLibrarysMovesCopiesAndChanges) {
    using imagecache::kGridThumbnailSide;
    test::TempDir dir;
    ASSERT_TRUE(dir.ok());
    const imageio::testing::Bytes bytes = imageio::testing::makeJpeg(300, 200);
    writeFile(dir / "in/a.jpg", std::string(bytes.begin(), bytes.end()));

    ImageManager images;
    imagecache::FileMetadataCache files(&images);
    imagecache::MetadataCacheRDB cache(&files, dir / "cache", nullptr, 0);
    DynamicHDCache store(dir / "thumbs", 16 << 20);
    imagecache::ImageCacheSource source(&images);
    imagecache::testing::CountingLink decodes(&source);
    imagecache::ImageCacheDHD disk(&decodes, &store);
    imagecache::ImageCacheRAM ram(&disk, 16 << 20);
    LibraryCacheConnector connector(&cache, &ram);
    Library library(&images, &connector, dir / "lib/");
    registerTestBags(library);
    library.load();

    ResourceID one = library.createBag(TestFolderBag::bagTypeStatic(), "One");
    ResourceID two = library.createBag(TestFolderBag::bagTypeStatic(), "Two");
    ResourceID a = library.copyImage(dir / "in/a.jpg", one, "", "", false);
    ASSERT_FALSE(ram.get(a, kGridThumbnailSide).placeholder);
    ram.clear();  // from here on only the disk link holds it

    library.moveImages({a}, two);
    EXPECT_TRUE(disk.contains(a, kGridThumbnailSide));
    ASSERT_TRUE(library.renameBag(two, "Deux"));
    ASSERT_TRUE(filesystem::exists(library.getImageResourceName(a).localPath()));
    EXPECT_TRUE(disk.contains(a, kGridThumbnailSide));
    ResourceID copy = library.copyImage(a, one, "", "again.jpg", false);
    EXPECT_FALSE(ram.get(a, kGridThumbnailSide).placeholder);
    EXPECT_FALSE(ram.get(copy, kGridThumbnailSide).placeholder);
    EXPECT_EQ(decodes.gets, 1);

    // Rewritten behind the library's back: the check notices the new time.
    const std::string path = library.getImageResourceName(a).localPath();
    const time::Timestamp before = filesystem::lastWriteTime(path);
    const imageio::testing::Bytes other = imageio::testing::makeJpeg(100, 100);
    writeFile(path, std::string(other.begin(), other.end()));
    filesystem::setLastWriteTime(
        path, time::Timestamp::fromMicroseconds(before.microseconds() + 5000000));
    cache.check(a);
    EXPECT_FALSE(ram.contains(a, kGridThumbnailSide));
    EXPECT_EQ(ram.get(a, kGridThumbnailSide).image->width(), 100);  // the new picture, not enlarged
    EXPECT_EQ(decodes.gets, 2);

    const uint64_t stored = store.count();
    library.eraseImages({copy});
    EXPECT_FALSE(ram.contains(copy, kGridThumbnailSide));
    EXPECT_EQ(store.count(), stored - 1);
    connector.flush();
}

}  // namespace
}  // namespace qor::mediadb::testing
