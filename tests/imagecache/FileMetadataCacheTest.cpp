#include <gtest/gtest.h>

#include "CacheTestSupport.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceName.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/ItemState.h"
#include "imageio/ImageIO.h"
#include "imageio/ItemMetadata.h"

namespace qor::imagecache {
namespace {

using namespace testing;
using imageio::ItemMetadata;
using S = FastString<char>;

class FileMetadataCacheTest : public ::testing::Test {
protected:
    ResourceID add(const std::string& path) { return manager.add(manager.nameFromLocalPath(path)); }

    TempFolder folder;
    ResourceManager manager;
    FileMetadataCache cache{&manager};
};

TEST_F(FileMetadataCacheTest, AnyFieldOfAPictureComesFromItsFile) {
    const std::string path = folder.write("harbour.jpg", cameraJpeg(2.8, 6));
    const ItemMetadata item(&cache, add(path));
    EXPECT_DOUBLE_EQ(item.getDouble(F::FNumber), 2.8);
    EXPECT_EQ(item.getInt(F::ISOSensitivity), 200);
    EXPECT_EQ(item.getSize(), imageio::Vec2i(64, 48));
    EXPECT_EQ(item.getString(F::MakeString), S("Canon"));
    EXPECT_EQ(item.getCaptureTime(), Timestamp::fromMetaString("2019:07:14 10:20:30"));
    EXPECT_LT(item.getLocation().y, -33.0);
    // What the caches add beside the file's own metadata.
    EXPECT_EQ(item.getInt(F::Orientation), 6);
    EXPECT_EQ(item.getInt(F::Rating), 4);
    EXPECT_EQ(item.getDigest(F::MD5), imageio::imageChecksum(S(path)));
    EXPECT_EQ(item.getTime(F::FileLastWriteTime), filesystem::lastWriteTime(path));
    EXPECT_EQ(item.getItemType(), imageio::ItemTypeImage);
    EXPECT_EQ(item.getItemState(), ItemStateOk);
    EXPECT_FALSE(item.isCached());
}

TEST_F(FileMetadataCacheTest, ReadsAFileOnceUntilItIsRewritten) {
    const std::string path = folder.write("a.jpg", cameraJpeg(2.8));
    const ResourceID id = add(path);
    const SharedPtr<const Metadata> first = cache.loadMetadata(id);
    EXPECT_EQ(cache.loadMetadata(id), first);  // the kept item

    folder.write("a.jpg", cameraJpeg(5.6));
    filesystem::setLastWriteTime(path, filesystem::lastWriteTime(path).addSeconds(10));
    const SharedPtr<const Metadata> second = cache.loadMetadata(id);
    ASSERT_NE(second, first);
    double fnumber = 0;
    EXPECT_TRUE(second->get(F::FNumber, fnumber));
    EXPECT_DOUBLE_EQ(fnumber, 5.6);
}

TEST_F(FileMetadataCacheTest, PicturesTheMetadataReaderDoesNotKnowAreReadByTheirDecoder) {
    const imageio::ImagePtr image = imageio::Image4ub::create(40, 30);
    const std::string path = folder.path() + "/plain.bmp";
    ASSERT_TRUE(imageio::saveBmp(S(path), image));
    const ItemMetadata item(&cache, add(path));
    LogCapture capture;  // the metadata reader does not know BMP
    EXPECT_EQ(item.getItemState(), ItemStateOk);
    EXPECT_EQ(item.getSize(), imageio::Vec2i(40, 30));
    EXPECT_EQ(item.getInt(F::ItemType), int(imageio::ItemTypeImage));
}

TEST_F(FileMetadataCacheTest, FilesThatAreNoPicturesOrMissingAreToldApart) {
    const std::string text = folder.write("notes.jpg", Bytes{'h', 'e', 'l', 'l', 'o'});
    const ItemMetadata notes(&cache, add(text));
    {
        LogCapture capture;  // the reader says why it read nothing
        EXPECT_EQ(notes.getItemState(), ItemStateUnreadable);
    }
    EXPECT_FALSE(notes.getDigest(F::MD5).isNull());
    EXPECT_EQ(notes.getSize(), imageio::Vec2i());

    const ResourceID gone = add(folder.path() + "/gone.jpg");
    LogCapture capture;
    int state = -1;
    EXPECT_FALSE(cache.get(gone, F::ItemState, state));
    EXPECT_EQ(state, -1);
    EXPECT_EQ(capture.count("FileMetadataCache: cannot read item"), 1u);
    EXPECT_THROW(cache.loadMetadata(gone), RAFException);
    EXPECT_THROW(cache.loadMetadata(ResourceID(99, &manager)), ResourceDeletedException);
}

}  // namespace
}  // namespace qor::imagecache
