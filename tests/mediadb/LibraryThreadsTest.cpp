// Library under several threads: renames and moves of the same bags and their images from two
// threads while saves run on a third. No deadlock, no bag or image lost, and the files agree.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <random>
#include <thread>

#include "LibraryTestSupport.h"
#include "base/Log.h"

namespace qor::mediadb::testing {
namespace {

using LibraryThreads = LibraryFixture;

TEST_F(LibraryThreads, RenamesAndMovesFromTwoThreadsWhileSavesRun) {
    std::vector<ResourceID> events;
    for (int i = 0; i < 4; ++i) {
        events.push_back(
            library->createBag(TestFolderBag::bagTypeStatic(), "E" + std::to_string(i)));
        for (int j = 0; j < 5; ++j)
            library->copyImage(sourceFile("p" + std::to_string(i) + std::to_string(j) + ".jpg"),
                               events.back(), j % 2 ? "sub" : "", "", false);
    }
    ResourceID list = library->createBag(TestListBag::bagTypeStatic(), "List");
    if (auto copy = library->modifyLockBag(list))
        for (const ResourceID& id : library->bag(events[0])->images()) copy->insertImage(id);
    const size_t imageCount = images->size();

    std::atomic<bool> stop{false};
    std::atomic<int> renames{0}, moves{0}, saves{0};
    auto renamer = [&](int who) {
        std::mt19937 random(who);
        for (int n = 0; !stop; ++n) {
            const ResourceID bag = events[random() % events.size()];
            library->renameBag(bag, "T" + std::to_string(who) + "_" + std::to_string(n));
            if (n % 5 == 0)
                library->renameBag(list, "List" + std::to_string(who) + "_" + std::to_string(n));
            ++renames;
        }
    };
    auto mover = [&] {
        std::mt19937 random(7);
        while (!stop) {
            const ResourceID from = events[random() % events.size()];
            const ResourceID to = events[random() % events.size()];
            if (from == to) continue;
            SharedPtr<const Bag> source = library->bag(from);
            std::vector<ResourceID> ids(source->images().begin(), source->images().end());
            if (ids.size() > 2) ids.resize(2);
            library->moveImages(ids, to);
            ++moves;
        }
    };
    auto saver = [&] {
        while (!stop) {
            for (const ResourceID& bag : events) library->addUnsaved(bag);
            library->save({}, true);
            ++saves;
        }
    };
    LogCapture log;  // renames that lose a race for a name log and go on
    auto all = std::async(std::launch::async, [&] {
        std::thread a(renamer, 1), b(renamer, 2), c(mover), d(saver);
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        stop = true;
        a.join();
        b.join();
        c.join();
        d.join();
    });
    ASSERT_EQ(all.wait_for(std::chrono::seconds(60)), std::future_status::ready)
        << "deadlock: renames " << renames << " moves " << moves << " saves " << saves;
    RecordProperty("renames", renames.load());
    RecordProperty("moves", moves.load());
    RecordProperty("saves", saves.load());
    EXPECT_GT(renames, 0);
    EXPECT_GT(moves, 0);
    EXPECT_GT(saves, 0);
    EXPECT_EQ(log.assertions(), 0u);

    // Every image still has a bag, a file and its place in the list.
    size_t inBags = 0;
    for (const ResourceID& bag : events) {
        SharedPtr<const Bag> b = library->bag(bag);
        ASSERT_TRUE(b);
        for (const ResourceID& id : b->images()) {
            EXPECT_EQ(library->containerId(id), bag);
            EXPECT_TRUE(filesystem::exists(library->getImageResourceName(id).localPath()));
        }
        inBags += b->images().size();
    }
    EXPECT_EQ(inBags, imageCount);
    EXPECT_EQ(library->bag(list)->images().size(), 5u);

    // And the files say the same.
    std::map<std::string, std::vector<std::string>> before;
    for (const ResourceID& bag : library->bags())
        before[library->bag(bag)->name()] = imageLeaves(bag);
    reopen();
    std::map<std::string, std::vector<std::string>> after;
    for (const ResourceID& bag : library->bags())
        after[library->bag(bag)->name()] = imageLeaves(bag);
    EXPECT_EQ(after, before);
}

// A synchronous save returns only when the bags are on disk, also those that a save running on
// another thread (the debounced one) took first.
TEST_F(LibraryThreads, SynchronousSaveWaitsForTheBagsAnEarlierSaveTook) {
    ResourceID event = library->createBag(TestFolderBag::bagTypeStatic(), "Trip");
    library->save({}, true);
    library->getProperty(event, "title")->setStringValue("new title");  // marks the bag unsaved

    std::atomic<bool> holding{false}, release{false};
    std::thread holder([&] {  // keeps the bag's files busy
        LibraryLockPtr lock = LibraryLock::acquire(path("Trip"));
        holding = true;
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    while (!holding) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::thread first([&] { library->save({}, true); });  // takes the bag, waits for its lock
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::atomic<bool> secondDone{false};
    std::thread second([&] {
        library->save({}, true);
        secondDone = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(secondDone) << "save returned before the bag was written";
    release = true;
    holder.join();
    first.join();
    second.join();
    EXPECT_NE(readFile(path("library.xml")).find("new title"), std::string::npos);
}

}  // namespace
}  // namespace qor::mediadb::testing
