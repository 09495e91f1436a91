// How a save ends when the request loses tiles or the format has no row loop: what the caller
// sees (exception or none, state, log lines, assertions) and that the saver stays usable.

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "CodecTestSupport.h"
#include "base/Log.h"
#include "imageio/IImageSaver.h"
#include "imageio/ImageSaver.h"
#include "imaging/Image.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"

namespace qor::imageio {
namespace {

using imaging::Image;
using imaging::ImageSource;
using imaging::ImageTile;
using math::GenVec;
using testing::TempFolder;

// A grey RGBA8 picture whose jobs never deliver the tile at `lost` (when set): the request ends
// successfully without it, as a source with a faulty job graph would end it.
class LosingSource : public ImageSource {
public:
    static SharedPtr<LosingSource> create(GenVec<int, 2> size, GenVec<int, 2> tile) {
        auto* s = new LosingSource(size, tile);
        return std::static_pointer_cast<LosingSource>(s->setupSelfRef());
    }
    imaging::TileLayout tileLayout() const override { return _layout; }

    GenVec<int, 2> lost{-1, -1};
    std::atomic<int> computed{0};

    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override {
        if (GenVec<int, 2>(int(x), int(y)) == lost) return {};
        return ImageSource::computeJobsUnlocked(x, y, jobs, merger);
    }

protected:
    LosingSource(GenVec<int, 2> size, GenVec<int, 2> tile)
        : ImageSource(size, imaging::PfRGBA8), _layout(size, tile, GenVec<int, 2>(0, 0), size) {}
    bool defaultCachingState() const override { return false; }

    SharedPtr<const ImageTile> computeTileData(unsigned int x, unsigned int y) override {
        ++computed;
        const math::Recti r = _layout.getTileRect(int(x), int(y));
        SharedPtr<ImageTile> tile = ImageTile::create(r.size(), imaging::PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < r.height(); ++j)
            for (int i = 0; i < r.width(); ++i)
                for (int c = 0; c < 4; ++c) data->at(i, j, c) = 128;
        return tile;
    }

private:
    const imaging::TileLayout _layout;
};

bool folderIsEmpty(const TempFolder& folder) { return std::filesystem::is_empty(folder.path()); }

TEST(ImageSaver, TilesLostAtTheEndOfTheRequestFailTheSaveWithTheirMessage) {
    TempFolder folder;
    auto source = LosingSource::create({96, 96}, {32, 32});
    source->lost = GenVec<int, 2>(1, 1);
    ImageSaverJPEG jpeg;
    ImageSaver saver(Image::create(source), &jpeg);
    LogCapture log;
    try {
        saver.save(FastString<char>(folder.path() + "/lost.jpg"), imaging::PfRGB8);
        ADD_FAILURE() << "no exception";
    } catch (const ImageSaverException& e) {
        EXPECT_STREQ(e.what(), "terminating tile callback without having computed all tiles");
    }
    EXPECT_EQ(saver.status(), ImageSaver::SaveFailed);
    EXPECT_TRUE(saver.finished());
    EXPECT_TRUE(
        log.contains("image size is (96,96) pixels. in tiles (3,3). tile size is (32,32)."));
    EXPECT_TRUE(log.contains("row 1 has 1 unfinished tiles."));
    EXPECT_TRUE(log.contains("row 2 has 0 unfinished tiles."));
    // The saver's own assertion, and none from the pipeline: the callback threw nothing.
    EXPECT_EQ(log.assertions("!(*it)"), 1u);
    EXPECT_EQ(log.assertions(), 1u);
    EXPECT_TRUE(folderIsEmpty(folder));
}

TEST(ImageSaver, FormatWithoutRowLoopIsAssertedAndEndsFailedWithoutException) {
    TempFolder folder;
    auto source = LosingSource::create({64, 48}, {32, 32});
    ImageSaverTIFF tiff;
    ImageSaver saver(Image::create(source), &tiff);
    const std::string path = folder.path() + "/grey.tif";
    {
        LogCapture log;
        EXPECT_NO_THROW(saver.save(FastString<char>(path), imaging::PfLum8));
        EXPECT_EQ(log.assertions("false"), 1u);
        EXPECT_EQ(log.assertions(), 1u);
        EXPECT_EQ(log.count("Finished saving full image. status = 0"), 1u);
    }
    EXPECT_EQ(saver.status(), ImageSaver::SaveFailed);
    EXPECT_TRUE(saver.finished());
    EXPECT_EQ(source->computed.load(), 0) << "no tile is computed for nothing";
    EXPECT_TRUE(folderIsEmpty(folder));

    // Nothing of that save is left running: the saver works again.
    saver.save(FastString<char>(path), imaging::PfRGB8);
    EXPECT_EQ(saver.status(), ImageSaver::SaveFinished);
    EXPECT_EQ(source->computed.load(), 4);
}

}  // namespace
}  // namespace qor::imageio
