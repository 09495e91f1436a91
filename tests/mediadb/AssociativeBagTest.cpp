// AssociativeBag (through CollectionBag): the images' "Library::AssociativeBags" sets kept in step,
// and replace keeping the order.

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "BagTestSupport.h"
#include "base/Log.h"
#include "mediadb/bags/CollectionBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;
using testing::savedTree;

class AssociativeBagTest : public ::testing::Test {
protected:
    void SetUp() override {
        event = f.createBag("event", "Source");
        for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "x.jpg"})
            ids.push_back(f.addPicture(event, name));
        album = f.createBag("collection", "Best");
    }

    ResourceID id(char name) { return name == 'x' ? ids[3] : ids[name - 'a']; }

    BagLibrary f;
    ResourceID event, album;
    std::vector<ResourceID> ids;
};

TEST_F(AssociativeBagTest, ImagesKnowTheCollectionsThatHoldThem) {
    ResourceID second = f.createBag("collection", "Second");
    f.modify<CollectionBag>(album, [&](CollectionBag& c) { c.add({id('a'), id('b'), id('a')}); });
    f.modify<CollectionBag>(second, [&](CollectionBag& c) { c.add({id('a')}); });
    EXPECT_EQ(f.bag<CollectionBag>(album)->images().size(), 2u);
    EXPECT_EQ(f.lib().associativeBags(id('a')), (HashSet{album, second}));
    EXPECT_EQ(f.lib().associativeBags(id('b')), (HashSet{album}));
    // The image stays in its container; a collection does not claim it.
    EXPECT_EQ(f.lib().containerId(id('a')), event);

    f.modify<CollectionBag>(album, [&](CollectionBag& c) { c.remove({id('a')}); });
    EXPECT_EQ(f.lib().associativeBags(id('a')), (HashSet{second}));
    EXPECT_FALSE(f.bag<CollectionBag>(album)->containsImage(id('a')));
}

TEST_F(AssociativeBagTest, ReplaceKeepsThePlaceAndTheTags) {
    f.modify<CollectionBag>(album, [&](CollectionBag& c) { c.add({id('a'), id('b'), id('c')}); });
    f.modify<CollectionBag>(album, [&](CollectionBag& c) { c.replace(id('b'), id('x')); });
    auto bag = f.bag<CollectionBag>(album);
    EXPECT_TRUE(bag->containsImage(id('x')));
    EXPECT_FALSE(bag->containsImage(id('b')));
    EXPECT_TRUE(f.lib().associativeBags(id('b')).empty());
    EXPECT_EQ(f.lib().associativeBags(id('x')), (HashSet{album}));
    EXPECT_EQ(savedTree(f.savedBagFile(album)),
              (std::vector<std::string>{"item a.jpg", "item x.jpg", "item c.jpg"}));

    // And after a restart, read from the file.
    f.reopen();
    album = f.lib().bags("collection").front();
    ResourceID x = f.imageId(f.lib().bags("event").front(), "x.jpg");
    EXPECT_TRUE(f.bag<CollectionBag>(album)->containsImage(x));
    EXPECT_EQ(f.lib().associativeBags(x), (HashSet{album}));
}

TEST_F(AssociativeBagTest, ReplaceRefusesAMissingOldOrAPresentNewImage) {
    f.modify<CollectionBag>(album, [&](CollectionBag& c) { c.add({id('a'), id('b')}); });
    LogCapture log;
    f.modify<CollectionBag>(album, [&](CollectionBag& c) {
        c.replace(id('c'), id('x'));  // c is not in
        c.replace(id('a'), id('b'));  // b is in already
    });
    EXPECT_EQ(log.assertions(), 2u);
    EXPECT_EQ(savedTree(f.savedBagFile(album)),
              (std::vector<std::string>{"item a.jpg", "item b.jpg"}));
    EXPECT_EQ(f.lib().associativeBags(id('a')), (HashSet{album}));
    EXPECT_TRUE(f.lib().associativeBags(id('x')).empty());
}

}  // namespace
}  // namespace qor::mediadb
