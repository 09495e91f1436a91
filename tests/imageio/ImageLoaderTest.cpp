#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include "CodecTestSupport.h"
#include "FormatSamples.h"
#include "TestRaw.h"
#include "base/Log.h"
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
using testing::Pixel;
using testing::TempFolder;
using testing::crop;
using testing::gradientImage;
using testing::makeWebp;
using testing::maxDifference;
using testing::withMetadata;
using testing::writeDng;
using String = FastString<char>;

SharedPtr<Metadata> cameraMetadata(const char* orientation = nullptr) {
    auto metadata = std::make_shared<Metadata>();
    metadata->setRaw(String("tiff:Make"), String("Qor Test Camera"));
    if (orientation) metadata->setRaw(String("tiff:Orientation"), String(orientation));
    return metadata;
}

std::string makeJpeg(const TempFolder& folder, const ImagePtr& image, const char* orientation) {
    const std::string path = folder.path() + "/picture.jpg";
    ImageSaverJPEG jpeg;
    jpeg.setCompression(95);
    jpeg.setICCProfile(ColorProfile::sRGB());
    jpeg.setMetadata(cameraMetadata(orientation));
    jpeg.save4ub(String(path), image);
    return path;
}

template <imaging::RawPixelFormat F>
void saveThrough(IImageSaver& saver, const std::string& path,
                 const SharedPtr<imaging::RawImageDataOf<F>>& image) {
    ExportData<F> rows{SharedPtr<const imaging::RawImageDataOf<F>>(image)};
    ASSERT_TRUE(saver.saveRows(String(path), F, rows));
}

const Recti Region(37, 21, 70, 45);  // x, y, width, height: crosses strip and tile borders

TEST(ImageLoader, RoundTripsRegionsWithSaversProfileAndMetadata) {
    TempFolder folder;
    const ImagePtr source = gradientImage(160, 100);
    const ImagePtr expected = crop(*source, Region);

    // TIFF in 8 and 16 bits and float, LZW and ZIP: the region is exact (the float samples are
    // v / 255 and come back rounded to the same byte).
    ImageSaverTIFF tiff;
    tiff.setUseLZW(true);
    tiff.setICCProfile(ColorProfile::adobeRGB());
    tiff.setMetadata(cameraMetadata());
    const std::string tif8 = folder.path() + "/a8.tif", tif16 = folder.path() + "/a16.tif",
                      tifF = folder.path() + "/af.tif";
    tiff.save4ub(String(tif8), source);
    tiff.setUseZIP(true);
    saveThrough<imaging::PfRGBA16>(tiff, tif16, detail::convertImage<unsigned short>(*source));
    saveThrough<imaging::PfRGBA32F>(tiff, tifF, detail::convertImage<float>(*source));
    // The predictor works on a copy of each row: the saved image is left as it was.
    EXPECT_EQ(maxDifference(*source, *gradientImage(160, 100)), 0);
    for (const std::string& path : {tif8, tif16, tifF}) {
        ImageLoader loader(String(path), false);
        EXPECT_EQ(loader.format(), ImageLoader::FormatTiff);
        EXPECT_EQ(loader.size(), (GenVec<int, 2>(160, 100)));
        EXPECT_EQ(maxDifference(*loader.getImage4ub(ImageLoader::ImageTypeFull, Region), *expected),
                  0)
            << path;
        const auto wide = loader.getImage4us(ImageLoader::ImageTypeFull, Region);
        EXPECT_EQ(wide->at(5, 7, 0), expected->at(5, 7, 0) * 257) << path;
        auto profile = loader.getColorProfile();
        ASSERT_TRUE(profile) << path;
        EXPECT_TRUE(*profile == *ColorProfile::adobeRGB());
        String make;
        EXPECT_TRUE(loader.getMetadata()->get(String("tiff:Make"), make));
        EXPECT_EQ(make.view(), "Qor Test Camera");
    }

    // JPEG at quality 95: within 8 of the source on the smooth ramps; sRGB profile from APP2.
    {
        const std::string path = makeJpeg(folder, source, nullptr);
        ImageLoader loader(String(path), false);
        EXPECT_EQ(loader.format(), ImageLoader::FormatJpeg);
        EXPECT_LE(maxDifference(*loader.getImage4ub(ImageLoader::ImageTypeFull, Region), *expected,
                                3),
                  8);
        ASSERT_TRUE(loader.getColorProfile());
        EXPECT_TRUE(*loader.getColorProfile() == *ColorProfile::sRGB());
    }

    // OpenEXR in float: exact to float precision, and no profile.
    {
        const std::string path = folder.path() + "/a.exr";
        ImageSaverOpenEXR exr;
        const auto floats = detail::convertImage<float>(*source);
        saveThrough<imaging::PfRGBA32F>(exr, path, floats);
        ImageLoader loader(String(path), false);
        const auto got = loader.getImage4f(ImageLoader::ImageTypeFull, Region);
        double worst = 0;
        for (int y = 0; y < Region.height(); ++y)
            for (int x = 0; x < Region.width() * 4; ++x)
                worst = std::max(worst, double(std::abs(got->row(y)[x] -
                                                        floats->row(y + Region.mins.y)[x + 4 * Region.mins.x])));
        EXPECT_LE(worst, 1e-7);
        EXPECT_FALSE(loader.getColorProfile());
    }

    // PNG: decoded down to the region's last line, region cut out, exact.
    {
        const std::string path = folder.path() + "/a.png";
        testing::PngRecipe recipe;
        recipe.width = 160;
        recipe.height = 100;
        recipe.colorType = PNG_COLOR_TYPE_RGBA;
        for (int y = 0; y < 100; ++y)
            recipe.rows.emplace_back(source->row(y), source->row(y) + 160 * 4);
        const testing::Bytes png = testing::makePng(recipe);
        std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(png.data()),
                                                    std::streamsize(png.size()));
        ImageLoader loader(String(path), false);
        EXPECT_EQ(maxDifference(*loader.getImage4ub(ImageLoader::ImageTypeFull, Region), *expected),
                  0);
    }
}

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

TEST(ImageIOImageSource, OrientationSixSwapsTheLayoutAndTurnsThePixels) {
    TempFolder folder;
    const ImagePtr stored = gradientImage(90, 40);
    const std::string path = makeJpeg(folder, stored, "6");
    ImageLoader asStored(String(path), true);
    EXPECT_EQ(asStored.size(), (GenVec<int, 2>(90, 40)));
    EXPECT_EQ(asStored.fileOrientation(), 6);
    for (bool regionRead : {true, false}) {
        auto source = ImageIOImageSource::create(String(path), imaging::PfRGBA8, nullptr, regionRead);
        ASSERT_TRUE(source);
        EXPECT_EQ(source->tileLayout().imageSize, (GenVec<int, 2>(40, 90)));
        auto tile = source->getTile(0, 0, false, nullptr, {});
        ASSERT_TRUE(tile);
        const auto data = tile->getDataRGBA8();
        // Upright (u, v) shows stored (v, H - 1 - u): the picture turned a quarter clockwise.
        const ImagePtr reference = asStored.getImage4ub(2, Recti());
        for (auto [u, v] : {std::pair{0, 0}, std::pair{39, 0}, std::pair{10, 60}})
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(data->at(u, v, c), reference->at(v, 39 - u, c)) << u << "," << v;
    }
}

// Formats the registry decodes: a WebP comes as stored, so its EXIF orientation is applied here;
// a camera raw file's decoder turns its pictures itself, so the loader must not turn them again.
TEST(ImageLoader, RegistryPicturesAreTurnedUprightOnce) {
    TempFolder folder;
    // Left half red, right half green, to be turned right: red on top when upright.
    const auto halves = [](int x, int) {
        return x < 20 ? Pixel{255, 0, 0, 255} : Pixel{0, 255, 0, 255};
    };
    const std::string webp = folder.write(
        "turned.webp", withMetadata(makeWebp(40, 20, true, halves), [](Exiv2::Image& image) {
            image.exifData()["Exif.Image.Orientation"] = uint16_t(6);
        }));
    const std::string dng = folder.path() + "/turned.dng";
    ASSERT_TRUE(writeDng(dng, 40, 20, 6, [&](int x, int y, unsigned char* rgb) {
        const Pixel p = halves(x, y);
        rgb[0] = uint8_t(p[0]), rgb[1] = uint8_t(p[1]), rgb[2] = uint8_t(p[2]);
    }));
    for (const std::string& path : {webp, dng}) {
        ImageLoader loader(String(path), false);
        const ImagePtr image = loader.getImage4ub(2, Recti());
        ASSERT_TRUE(image) << path;
        EXPECT_EQ(loader.size().x * 2, loader.size().y) << path << ": upright is tall";
        EXPECT_EQ(image->width() * 2, image->height()) << path;
        if (path == webp) {
            EXPECT_EQ(loader.orientation(), 6);
            EXPECT_GT(image->at(10, 5, 0), 200) << "red on top";
            EXPECT_GT(image->at(10, 35, 1), 200) << "green below";
        }
    }
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
        LogCapture log;  // the failed read asserts "false" on its way
        try {
            source->getTile(0, 0, false, nullptr, {});
            ADD_FAILURE() << "a tile of a vanished file";
        } catch (const imaging::ImagingException& e) {
            EXPECT_EQ(e.type(), imaging::ImagingException::TypeIO);
            EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
        }
        EXPECT_GE(log.assertions("false"), 1u);
        std::filesystem::rename(path + ".moved", path);
    }
    LogCapture log;
    EXPECT_FALSE(ImageIOImageSource::create(String(folder.path() + "/never.jpg"), imaging::PfRGBA8,
                                            nullptr, true));
    EXPECT_EQ(log.assertions("param.size != Vec2i(0,0)"), 1u);
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
