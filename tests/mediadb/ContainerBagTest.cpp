// ContainerBag: families (an original with its edited versions) kept together in the tree, their
// dissolution when members go, and the container property of the images.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "BagTestSupport.h"
#include "base/Log.h"
#include "mediadb/bags/EventBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;
using testing::savedTree;

class ContainerBagTest : public ::testing::Test {
protected:
    void SetUp() override {
        event = f.createBag("event", "Trip");
        for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "d.jpg", "e.jpg"})
            ids.push_back(f.addPicture(event, name));
    }

    ResourceID id(char name) { return ids[name - 'a']; }
    std::string leafOf(ResourceID image) {
        return filesystem::getStem(f.lib().getImageResourceName(image).localPath());
    }
    // The families in root order: "a" for a single image, "b/d" for original b edited d, with
    // "+e" for every further member.
    std::vector<std::string> families() {
        std::vector<ContainerBag::FamilyInfo> infos;
        f.bag<ContainerBag>(event)->getFamilies(infos);
        std::vector<std::string> out;
        for (const auto& info : infos) {
            std::string text = leafOf(info.original);
            if (info.edited.isValid()) text += "/" + leafOf(info.edited);
            for (ResourceID member : info.members)
                if (!(member == info.original) && !(member == info.edited))
                    text += "+" + leafOf(member);
            out.push_back(text);
        }
        return out;
    }
    void edit(char original, char edited) {
        f.modify<ContainerBag>(event,
                               [&](ContainerBag& b) { b.setEditedItem(id(original), id(edited)); });
    }

    BagLibrary f;
    ResourceID event;
    std::vector<ResourceID> ids;
};

TEST_F(ContainerBagTest, FamilyStandsWhereItsOriginalStood) {
    edit('b', 'd');
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "b/d", "c", "e"}));
    auto bag = f.bag<ContainerBag>(event);
    EXPECT_TRUE(bag->isOriginalItem(id('b')));
    EXPECT_TRUE(bag->isEditedItem(id('d')));
    EXPECT_EQ(bag->getOriginalItem(id('d')), id('b'));
    EXPECT_EQ(bag->getEditedItem(id('b')), id('d'));
    // Outside a family an image is its own original and has no edited version.
    EXPECT_EQ(bag->getOriginalItem(id('a')), id('a'));
    EXPECT_FALSE(bag->getEditedItem(id('a')).isValid());
    EXPECT_EQ(savedTree(f.savedBagFile(event)),
              (std::vector<std::string>{
                  "item a.jpg",
                  "group family(item b.jpg tag:family=original, item d.jpg tag:family=edited)",
                  "item c.jpg", "item e.jpg"}));
}

TEST_F(ContainerBagTest, RemovingTheOriginalOfATwoImageFamilyLeavesThePlainEditedImage) {
    edit('b', 'd');
    f.modify<ContainerBag>(event, [&](ContainerBag& b) { b.removeImage(id('b')); });
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "d", "c", "e"}));
    EXPECT_FALSE(f.bag<ContainerBag>(event)->isEditedItem(id('d')));
    EXPECT_EQ(savedTree(f.savedBagFile(event)),
              (std::vector<std::string>{"item a.jpg", "item d.jpg", "item c.jpg", "item e.jpg"}));
}

TEST_F(ContainerBagTest, RemovingTheEditedImageDissolvesTheFamilyToo) {
    edit('b', 'd');
    f.modify<ContainerBag>(event, [&](ContainerBag& b) { b.removeImage(id('d')); });
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "b", "c", "e"}));
    EXPECT_EQ(savedTree(f.savedBagFile(event))[1], "item b.jpg");
}

TEST_F(ContainerBagTest, RemovingTheOriginalOfALargerFamilyPromotesTheFirstRemainingMember) {
    edit('b', 'd');
    f.modify<ContainerBag>(event, [&](ContainerBag& b) { b.addItemToFamily(id('b'), id('a')); });
    EXPECT_EQ(families(), (std::vector<std::string>{"b/d+a", "c", "e"}));
    f.modify<ContainerBag>(event, [&](ContainerBag& b) { b.removeImage(id('b')); });
    EXPECT_EQ(families(), (std::vector<std::string>{"d+a", "c", "e"}));
    EXPECT_TRUE(f.bag<ContainerBag>(event)->isOriginalItem(id('d')));
}

TEST_F(ContainerBagTest, AnEditedVersionMovesBetweenFamiliesAndReplacesThePreviousOne) {
    edit('a', 'c');
    edit('b', 'c');  // c leaves a's family, which dissolves
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "b/c", "d", "e"}));
    edit('b', 'e');  // e is the edited version now; c stays a plain member
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "b/e+c", "d"}));
}

TEST_F(ContainerBagTest, FamiliesAndTagsSurviveARestart) {
    edit('b', 'd');
    f.modify<ContainerBag>(event, [&](ContainerBag& b) { b.addItemToFamily(id('b'), id('e')); });
    f.reopen();
    event = f.lib().bags("event").front();
    ids.clear();
    for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "d.jpg", "e.jpg"})
        ids.push_back(f.imageId(event, name));
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "b/d+e", "c"}));
    EXPECT_EQ(f.lib().containerId(id('e')), event);
}

TEST_F(ContainerBagTest, FamiliesThatAFileGotWrongAreRepairedOnLoad) {
    edit('b', 'd');
    const std::string file = f.savedBagFile(event);
    f.lib().shutdown();
    // In the file: the family loses its original's tag, c moves into a family of its own at the
    // end, and an empty family follows.
    XmlDocumentRapid doc;
    ASSERT_TRUE(doc.load(file));
    NodeIterator root = doc.root().child("group");
    std::string cName;
    for (NodeIterator node : root.children()) {
        if (node.name() == "group")
            for (NodeIterator item : node.children())
                if (item.attribute("tag:family") == "original") item.removeAttribute("tag:family");
        if (filesystem::leaf(node.attribute("name")) == "c.jpg") {
            cName = node.attribute("name");
            root.removeChild(node);
            break;
        }
    }
    ASSERT_FALSE(cName.empty());
    root.appendChild("group")
        .appendAttribute("type", "family")
        .appendChild("item")
        .appendAttribute("name", cName);
    root.appendChild("group").appendAttribute("type", "family");
    ASSERT_TRUE(doc.save(file));

    LogCapture log;
    f.reopen();
    event = f.lib().bags("event").front();
    ids.clear();
    for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "d.jpg", "e.jpg"})
        ids.push_back(f.imageId(event, name));
    EXPECT_EQ(families(), (std::vector<std::string>{"a", "b/d", "e", "c"}));
    EXPECT_EQ(log.count("repaired a family"), 3u);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST_F(ContainerBagTest, ImagesKnowTheirContainerUntilTheyLeaveIt) {
    EXPECT_EQ(f.lib().containerId(id('a')), event);
    EXPECT_EQ(f.lib().imageContainerProperty(id('a')), event);
    f.modify<ContainerBag>(event, [&](ContainerBag& b) { b.removeImage(id('a')); });
    EXPECT_FALSE(f.lib().containerId(id('a')).isValid());
    EXPECT_FALSE(f.lib().imageContainerProperty(id('a')).isValid());

    // An image of one container cannot enter another.
    ResourceID other = f.createBag("event", "Other");
    LogCapture log;
    f.modify<ContainerBag>(other, [&](ContainerBag& b) { b.insertImage(id('b')); });
    EXPECT_EQ(log.assertions("!contId.valid() || contId == this->id()"), 1u);
}

}  // namespace
}  // namespace qor::mediadb
