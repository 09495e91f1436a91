// A process that changes a library (new events and collections, copies of images, lists, settings,
// renames, and moves of images between events, new ones among them, a few of these between two
// saves) is killed (SIGKILL) at random moments; each time the library loads again with every bag
// and image of its last completed save, each picture of an event in one event only, and no bag
// broken. Bags are told apart by a setting "uid" that stays through renames.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "LibraryTestSupport.h"
#include "base/Log.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/StandardBagTypes.h"

namespace qor::mediadb::testing {
namespace {

// "type/name" -> image leaves, from a journal line "bag=type/name:a,b;type/name:...".
std::map<std::string, std::set<std::string>> parseState(const std::string& line) {
    std::map<std::string, std::set<std::string>> state;
    std::stringstream bags(line.substr(line.find('=') + 1));
    std::string entry;
    while (std::getline(bags, entry, ';')) {
        const size_t colon = entry.find(':');
        auto& leaves = state[entry.substr(0, colon)];
        std::stringstream images(entry.substr(colon + 1));
        std::string leaf;
        while (std::getline(images, leaf, ',')) leaves.insert(leaf);
    }
    return state;
}

// The last complete line of the journal; "" when there is none.
std::string lastLine(const std::string& journal) {
    std::string text = readFile(journal);
    if (text.empty()) return {};
    text.erase(text.find_last_of('\n') + 1);  // a line the kill cut short does not count
    if (text.empty()) return {};
    text.pop_back();
    return text.substr(text.find_last_of('\n') + 1);
}

TEST(LibraryCrash, KilledWhileSavingLosesNoSavedBagOrImage) {
    test::TempDir dir;
    ASSERT_TRUE(dir.ok());
    const std::string libraryPath = dir / "lib/";
    const std::string source = dir / "source.jpg";
    const std::string journal = dir / "journal";
    writeFile(source, std::string(3000, 'x'));
    std::mt19937 random(std::random_device{}());
    const auto started = std::chrono::steady_clock::now();
    int kills = 0;
    size_t lastBags = 0;

    for (int round = 0; round < 200; ++round) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t child =
            startChild({"crash", libraryPath, source, journal, std::to_string(ready[1])});
        ASSERT_GT(child, 0);
        ::close(ready[1]);
        char byte = 0;
        const bool started = ::read(ready[0], &byte, 1) == 1;
        ::close(ready[0]);
        if (started) std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
        ::kill(child, SIGKILL);
        ASSERT_EQ(waitChild(child), -1) << "the child ended by itself in round " << round;
        ASSERT_TRUE(started) << "the child did not start in round " << round;
        ++kills;

        const std::string line = lastLine(journal);
        auto expected = parseState(line);
        LogCapture log;
        ImageManager images;
        RecordingConnector connector;
        Library library(&images, &connector, libraryPath);
        registerStandardBagTypes(library);
        library.registerProperty(ResourceProperty(RptString), "title");
        library.registerProperty(ResourceProperty(RptString), "uid");
        library.load();
        std::map<std::string, std::set<std::string>> loaded;
        for (const ResourceID& id : library.bags()) {
            SharedPtr<const Bag> b = library.bag(id);
            ASSERT_TRUE(b);
            EXPECT_EQ(library.bagStateString(id), "Regular") << b->name() << " round " << round;
            // A bag created just before the kill may not have its uid written yet.
            std::string uid = library.getProperty(id, "uid")->stringValue();
            if (uid.empty()) uid = "new " + b->name();
            const std::string key = b->bagType() + "/" + uid;
            ASSERT_FALSE(loaded.count(key)) << "two bags " << key << " in round " << round;
            auto& leaves = loaded[key];
            for (const ResourceID& image : b->images()) {
                const std::string file = library.getImageResourceName(image).localPath();
                leaves.insert(filesystem::leaf(file));
                if (b->isFolder()) {
                    EXPECT_TRUE(filesystem::exists(file)) << file;
                }
            }
        }
        // An image of a folder bag must be in one folder bag, and in one only.
        std::map<std::string, int> inFolders;
        for (const auto& [bag, leaves] : loaded)
            if (bag.rfind(EventBag::bagTypeStatic(), 0) == 0)
                for (const std::string& leaf : leaves) ++inFolders[leaf];
        for (const auto& [leaf, count] : inFolders)
            EXPECT_EQ(count, 1) << "image " << leaf << " in " << count << " bags, round " << round;
        for (const auto& [bag, leaves] : expected) {
            ASSERT_TRUE(loaded.count(bag)) << "bag " << bag << " lost in round " << round;
            const bool folder = bag.rfind(EventBag::bagTypeStatic(), 0) == 0;
            for (const std::string& leaf : leaves)
                EXPECT_TRUE(folder ? inFolders.count(leaf) != 0 : loaded[bag].count(leaf) != 0)
                    << "image " << leaf << " of " << bag << " lost in round " << round;
        }
        EXPECT_EQ(log.assertions(), 0u) << "round " << round;
        lastBags = loaded.size();
        if (::testing::Test::HasFailure()) break;
    }
    EXPECT_GE(kills, 200);
    EXPECT_GT(lastBags, 4u);  // the children got far enough to build a library
    RecordProperty(
        "seconds",
        std::to_string(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count()));
}

}  // namespace
}  // namespace qor::mediadb::testing
