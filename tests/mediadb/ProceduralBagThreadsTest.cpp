// ProceduralBag on many threads: the lazy set of one snapshot computed once however many readers
// race for it, and holds taken and released on several threads while readers and updates run.
// Run under ThreadSanitizer (the tsan preset runs suites ending in "Threads").

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "BagTestSupport.h"
#include "mediadb/bags/EventBag.h"
#include "mediadb/bags/ProceduralBag.h"

namespace qor::mediadb {
namespace {

using testing::BagLibrary;
using testing::eventually;

// Every image of the library's events, computed slowly and counted.
class CountingBag : public ProceduralBag {
public:
    static std::atomic<int> computations;

    std::string bagType() const override { return "counting"; }
    bool isFolder() const override { return false; }
    Bag* mutableCopy() const override { return new CountingBag(*this); }
    bool dependsOnBag(ResourceID) const override { return true; }
    void computeItems(HashSet* items) const override {
        ++computations;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        for (ResourceID event : library()->bags("event"))
            for (ResourceID id : library()->bag(event)->images()) items->insert(id);
    }
};

std::atomic<int> CountingBag::computations{0};

class ProceduralBagThreads : public ::testing::Test {
protected:
    void SetUp() override {
        event = f.createBag("event", "Party");
        for (int i = 0; i < 20; ++i) f.addPicture(event, "p" + std::to_string(i) + ".jpg");
        counting = f.lib().createBag(new CountingBag(), "Counting");
        CountingBag::computations = 0;
    }

    BagLibrary f;
    ResourceID event, counting;
};

TEST_F(ProceduralBagThreads, RacingReadersComputeTheSetOnce) {
    SharedPtr<const Bag> snapshot = f.lib().bag(counting);
    constexpr int kReaders = 8;
    std::vector<const HashSet*> seen(kReaders);
    std::atomic<bool> go{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
        readers.emplace_back([&, i] {
            while (!go) std::this_thread::yield();
            const HashSet& images = snapshot->images();
            EXPECT_EQ(images.size(), 20u);
            seen[i] = &images;
        });
    go = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(CountingBag::computations, 1);
    for (const HashSet* s : seen) EXPECT_EQ(s, seen[0]);
}

TEST_F(ProceduralBagThreads, HoldsFromManyThreadsWhileReadersAndUpdatesRun) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 500; ++n) {
                ProceduralBag::hold(true);
                ProceduralBag::isHold();
                ProceduralBag::hold(false);
            }
        });
    threads.emplace_back([&] {
        while (!stop) {
            SharedPtr<const Bag> bag = f.lib().bag(counting);
            for (ResourceID id : bag->images()) EXPECT_TRUE(id.isValid());
        }
    });
    threads.emplace_back([&] {
        for (int n = 0; n < 20 && !stop; ++n) ProceduralBag::updateImages(&f.lib());
    });
    // Changes of the event schedule updates meanwhile.
    for (int i = 0; i < 5; ++i) f.addPicture(event, "late" + std::to_string(i) + ".jpg");
    for (size_t i = 0; i < 4; ++i) threads[i].join();
    stop = true;
    for (size_t i = 4; i < threads.size(); ++i) threads[i].join();

    EXPECT_FALSE(ProceduralBag::isHold());
    // The last release scheduled a full update: the bag ends with every picture.
    EXPECT_TRUE(eventually([&] { return f.lib().bag(counting)->images().size() == 25; }));
}

}  // namespace
}  // namespace qor::mediadb
