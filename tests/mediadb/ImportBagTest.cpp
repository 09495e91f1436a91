// ImportBag: a transient view of a source folder whose pictures belong to it until they are
// imported, and clear() giving them all up.

#include <gtest/gtest.h>

#include <string>

#include "BagTestSupport.h"
#include "mediadb/bags/ImportBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;

TEST(ImportBagTest, ClearGivesUpEveryPictureAndTheBagIsNeverSaved) {
    test::TempDir card;
    for (const char* name : {"DCIM/1.jpg", "DCIM/2.jpg", "DCIM/sub/3.jpg"})
        testing::writeFile(card / name, "picture");
    BagLibrary f;
    ResourceID bag = f.lib().createBag("import", "Card", card.path());
    std::vector<ResourceID> ids;
    for (const char* name : {"DCIM/1.jpg", "DCIM/2.jpg", "DCIM/sub/3.jpg"})
        ids.push_back(f.lib().adoptImage(name, bag));
    f.modify<ImportBag>(bag, [&](ImportBag& b) { b.setEditedItem(ids[0], ids[1]); });
    for (ResourceID id : ids) EXPECT_EQ(f.lib().containerId(id), bag);

    f.modify<ImportBag>(bag, [](ImportBag& b) { b.clear(); });
    EXPECT_TRUE(f.lib().bag(bag)->images().empty());
    for (ResourceID id : ids) EXPECT_FALSE(f.lib().imageContainerProperty(id).isValid());

    f.reopen();
    EXPECT_TRUE(f.lib().bags("import").empty());
    EXPECT_FALSE(filesystem::exists(card / ".bag"));
}

}  // namespace
}  // namespace qor::mediadb
