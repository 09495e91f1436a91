// Procedural bags: the lazy set, hold, the debounced update after changes of event bags, and the
// smart collections (every picture once per family).

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "BagTestSupport.h"
#include "base/Log.h"
#include "mediadb/bags/AllImagesBag.h"
#include "mediadb/bags/EventBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;
using testing::eventually;

// Holds procedural bags for a scope (or until released).
class Hold {
public:
    Hold() { ProceduralBag::hold(true); }
    ~Hold() { release(); }
    void release() {
        if (_held) ProceduralBag::hold(false);
        _held = false;
    }

private:
    bool _held = true;
};

// Two events: Spring with a, b (edited c), d; Autumn with e, f (plain member g).
class SmartCollectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        spring = f.createBag("event", "Spring");
        autumn = f.createBag("event", "Autumn");
        for (const char* name : {"a.jpg", "b.jpg", "c.jpg", "d.jpg"})
            ids[name[0]] = f.addPicture(spring, name);
        for (const char* name : {"e.jpg", "f.jpg", "g.jpg"})
            ids[name[0]] = f.addPicture(autumn, name);
        f.modify<EventBag>(spring, [&](EventBag& e) { e.setEditedItem(ids['b'], ids['c']); });
        f.modify<EventBag>(autumn, [&](EventBag& e) { e.addItemToFamily(ids['f'], ids['g']); });
        all = f.createBag("allimages", "All pictures");
    }

    HashSet expected(const std::string& names) {
        HashSet set;
        for (char c : names) set.insert(ids[c]);
        return set;
    }
    const HashSet& allImages() { return (snapshot = f.lib().bag(all))->images(); }

    BagLibrary f;
    ResourceID spring, autumn, all;
    std::map<char, ResourceID> ids;
    SharedPtr<const Bag> snapshot;
};

TEST_F(SmartCollectionTest, AllImagesShowsOnePicturePerFamilyEditedBeforeOriginal) {
    EXPECT_EQ(allImages(), expected("acdef"));
    // From the computed set: the original with an edited version is not in.
    EXPECT_FALSE(snapshot->containsImage(ids['b']));
    EXPECT_FALSE(snapshot->containsImage(ids['g']));
    EXPECT_TRUE(snapshot->containsImage(ids['c']));
}

TEST_F(SmartCollectionTest, AChangedEventReachesTheCollectionAfterTheDebounce) {
    EXPECT_EQ(allImages().size(), 5u);
    ResourceID h = f.addPicture(autumn, "h.jpg");
    ids['h'] = h;
    EXPECT_TRUE(eventually([&] { return allImages().count(h) == 1; }));
    EXPECT_EQ(allImages(), expected("acdefh"));

    // A removed event takes its pictures along.
    f.lib().removeBag(spring);
    EXPECT_TRUE(eventually([&] { return allImages().size() == 3; }));
    EXPECT_EQ(allImages(), expected("efh"));
}

TEST_F(SmartCollectionTest, WhileHeldAFirstSetIsEmptyAndNothingIsRecomputed) {
    SharedPtr<const Bag> before = f.lib().bag(all);
    EXPECT_EQ(before->images().size(), 5u);
    Hold hold;
    EXPECT_TRUE(ProceduralBag::isHold());
    // A snapshot computed before the hold keeps its set.
    EXPECT_EQ(before->images().size(), 5u);
    // A new snapshot asked for the first time while held is empty.
    ResourceID second = f.createBag("allimages", "Second");
    EXPECT_TRUE(f.lib().bag(second)->images().empty());
    // A change while held is not picked up, however long it waits.
    ids['h'] = f.addPicture(spring, "h.jpg");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(f.lib().bag(second)->images().empty());
    EXPECT_EQ(f.lib().bag(all)->images().size(), 5u);

    hold.release();
    EXPECT_FALSE(ProceduralBag::isHold());
    EXPECT_TRUE(eventually([&] { return f.lib().bag(second)->images().size() == 6; }));
    EXPECT_TRUE(eventually([&] { return allImages().size() == 6; }));
    EXPECT_EQ(allImages(), expected("acdefh"));
}

TEST_F(SmartCollectionTest, HoldsNestAndAnUnmatchedReleaseAsserts) {
    {
        Hold outer;
        { Hold inner; }
        EXPECT_TRUE(ProceduralBag::isHold());
    }
    EXPECT_FALSE(ProceduralBag::isHold());
    LogCapture log;
    ProceduralBag::hold(false);
    EXPECT_EQ(log.assertions("s_holdCounter > 0"), 1u);
    EXPECT_FALSE(ProceduralBag::isHold());
}

}  // namespace
}  // namespace qor::mediadb
