#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include "CodecTestSupport.h"
#include "base/resource/ResourceManager.h"
#include "imageio/ExportData.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageIOImageSource.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/LoaderPixels.h"
#include "imaging/ImageTile.h"
#include "imaging/ImagingException.h"
#include "imaging/TileCache.h"

namespace qor::imageio {
namespace {

using imaging::ColorProfile;
using imaging::ImageTile;
using math::GenVec;
using math::Recti;
using testing::TempFolder;
using testing::crop;
using testing::gradientImage;
using testing::maxDifference;
using String = FastString<char>;

TEST(ImageLoader, RejectsRegionsOutsideUnreadableFilesAndUnknownTypes) {
    TempFolder folder;
    const std::string path = folder.path() + "/a.tif";
    ImageSaverTIFF tiff;
    tiff.save4ub(String(path), gradientImage(40, 30));
    ImageLoader loader(String(path), false);
    EXPECT_THROW(loader.getImage4ub(2, Recti(30, 20, 20, 20)), ImageLoaderException);
    EXPECT_THROW(loader.getImage4ub(7, Recti(0, 0, 4, 4)), ImageLoaderException);
    EXPECT_THROW(ImageLoader(String(folder.path() + "/none.jpg"), false), ImageLoaderException);
    // A TIFF cut short: its strips are gone.
    std::filesystem::resize_file(path, 300);
    EXPECT_THROW(ImageLoader(String(path), false).getImage4ub(2, Recti()), ImageLoaderException);
}

// Makes tiles of a region-reading source on several threads at once.
class ProbeSource : public ImageIOImageSource {
public:
    static SharedPtr<ProbeSource> create(const std::string& path, ConstructionParam param) {
        auto* s = new ProbeSource(String(path), param);
        return std::static_pointer_cast<ProbeSource>(s->setupSelfRef());
    }
    using ImageIOImageSource::computeTileData;

private:
    ProbeSource(const String& path, const ConstructionParam& param)
        : ImageIOImageSource(path, param) {}
};

TEST(ImageIOImageSourceThreads, TilesWantedAtOnceAreRegisteredOncePerRectangle) {
    TempFolder folder;
    const std::string path = folder.path() + "/a.tif";
    ImageSaverTIFF tiff;
    tiff.save4ub(String(path), gradientImage(128, 64));
    imaging::TileCache::enable();
    ImageIOImageSourceBase::ConstructionParam param;
    param.size = {128, 64};
    param.tileSize = {64, 64};
    param.regionRead = true;
    auto source = ProbeSource::create(path, param);
    imaging::TileCache::Statistics before, after;
    imaging::TileCache::getStatistics(before);
    std::vector<SharedPtr<const ImageTile>> got(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&, i] { got[i] = source->computeTileData(unsigned(i % 2), 0); });
    for (std::thread& t : threads) t.join();
    imaging::TileCache::getStatistics(after);
    EXPECT_EQ(after.insertions - before.insertions, 2u);
    std::set<const ImageTile*> distinct;
    for (const auto& tile : got) distinct.insert(tile.get());
    EXPECT_EQ(distinct.size(), 2u) << "every thread gets the one registered tile of its rectangle";
    imaging::TileCache::clearLifeTiles(source.get());
}

TEST(ImageIOImageSource, VanishedFileFailsTheTileNamingThePath) {
    TempFolder folder;
    const std::string path = folder.path() + "/gone.jpg";
    ImageSaverJPEG jpeg;
    jpeg.save4ub(String(path), gradientImage(64, 64));
    for (bool regionRead : {true, false}) {
        auto source = ImageIOImageSource::create(String(path), imaging::PfRGBA8, nullptr, regionRead);
        ASSERT_TRUE(source);
        std::filesystem::rename(path, path + ".moved");
        try {
            source->getTile(0, 0, false, nullptr, {});
            ADD_FAILURE() << "a tile of a vanished file";
        } catch (const imaging::ImagingException& e) {
            EXPECT_EQ(e.type(), imaging::ImagingException::TypeIO);
            EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
        }
        std::filesystem::rename(path + ".moved", path);
    }
    EXPECT_FALSE(ImageIOImageSource::create(String(folder.path() + "/never.jpg"), imaging::PfRGBA8,
                                            nullptr, true));
}

TEST(ResourceImageIOImageSource, FollowsARenameAndKeepsWithinTheFileSize) {
    TempFolder folder;
    const std::string path = folder.path() + "/a.tif";
    ImageSaverTIFF tiff;
    const ImagePtr picture = gradientImage(128, 64);
    tiff.save4ub(String(path), picture);
    ResourceManager manager;
    const ResourceID id = manager.add(manager.nameFromLocalPath(path));
    ImageIOImageSourceBase::ConstructionParam param;
    param.tileSize = {64, 64};
    param.regionRead = true;
    auto source = ResourceImageIOImageSource::create(&manager, id, param);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->size(), (GenVec<int, 2>(128, 64)));
    ASSERT_TRUE(source->getTile(0, 0, false, nullptr, {}));

    const std::string moved = folder.path() + "/b.tif";
    std::filesystem::rename(path, moved);
    ASSERT_TRUE(manager.rename(id, manager.nameFromLocalPath(moved)));
    auto tile = source->getTile(1, 0, false, nullptr, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(maxDifference(*tile->getDataRGBA8(), *crop(*picture, Recti(64, 0, 64, 64))), 0);

    // A larger size is clamped to the file and the proportions kept.
    param.size = {500, 32};
    auto small = ResourceImageIOImageSource::create(&manager, id, param);
    ASSERT_TRUE(small);
    EXPECT_EQ(small->size(), (GenVec<int, 2>(64, 32)));
    ASSERT_TRUE(small->getTile(0, 0, false, nullptr, {}));
}

}  // namespace
}  // namespace qor::imageio
