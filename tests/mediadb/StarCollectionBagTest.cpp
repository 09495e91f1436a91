// StarCollectionBag: the pictures of one star rating, with the ratings written into JPEGs made here
// and read through the real cache chain (MetadataCacheRDB in front of FileMetadataCache, behind
// LibraryCacheConnector).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BagTestSupport.h"
#include "TestJpeg.h"
#include "imagecache/metadata/FileMetadataCache.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/StarCollectionBag.h"
#include "mediadb/library/LibraryCacheConnector.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;

// A library whose connector reads the metadata cache chain over its ImageManager.
class StarCollectionTest : public ::testing::Test {
protected:
    struct Chain {
        explicit Chain(ImageManager& images, const std::string& folder)
            : files(&images), rdb(&files, FastString<char>(folder), nullptr, 0), connector(&rdb) {}
        imagecache::FileMetadataCache files;
        imagecache::MetadataCacheRDB rdb;
        LibraryCacheConnector connector;
    };

    static std::vector<uint8_t> ratedJpeg(int stars) {
        auto jpeg = imageio::testing::makeJpeg(16, 12);
        if (stars < 0) return jpeg;  // no rating at all
        return imageio::testing::withMetadata(jpeg, [&](Exiv2::Image& image) {
            image.xmpData()["Xmp.xmp.Rating"] = std::to_string(stars);
        });
    }

    test::TempDir cacheDir;
    BagLibrary f{[this](ImageManager& images) -> SharedPtr<ILibraryCacheConnector> {
        auto chain = std::make_shared<Chain>(images, cacheDir.path());
        return SharedPtr<ILibraryCacheConnector>(chain, &chain->connector);
    }};
};

TEST_F(StarCollectionTest, ShowsThePicturesOfItsRating) {
    ResourceID event = f.createBag("event", "Rated");
    ResourceID four = f.addPicture(event, "four.jpg", ratedJpeg(4));
    ResourceID alsoFour = f.addPicture(event, "sub/also-four.jpg", ratedJpeg(4));
    f.addPicture(event, "two.jpg", ratedJpeg(2));
    f.addPicture(event, "none.jpg", ratedJpeg(-1));
    ResourceID five = f.addPicture(event, "five.jpg", ratedJpeg(5));
    // A family shows its edited version only: a 4-star original edited into a 2-star picture
    // is not shown.
    ResourceID original = f.addPicture(event, "original.jpg", ratedJpeg(4));
    ResourceID edited = f.addPicture(event, "edited.jpg", ratedJpeg(2));
    f.modify<EventBag>(event, [&](EventBag& e) { e.setEditedItem(original, edited); });

    ResourceID stars = f.createBag("starcollection", "Four stars");
    f.modify<StarCollectionBag>(stars, [](StarCollectionBag& s) { s.setStarRaiting(4); });
    auto bag = f.bag<StarCollectionBag>(stars);
    EXPECT_EQ(bag->starRaiting(), 4);
    EXPECT_EQ(bag->images(), (HashSet{four, alsoFour}));

    f.modify<StarCollectionBag>(stars, [](StarCollectionBag& s) { s.setStarRaiting(5); });
    EXPECT_EQ(f.lib().bag(stars)->images(), (HashSet{five}));
}

}  // namespace
}  // namespace qor::mediadb
