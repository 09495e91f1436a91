// Many threads asking the memory link at once. Run under ThreadSanitizer (the suite's name ends
// in Threads).

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "ThumbnailTestSupport.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"

namespace qor::imagecache {
namespace {

using testing::FakeLink;
using testing::redOf;

TEST(ImageCacheRAMThreads, ManyThreadsAskingForTheSameItemDecodeItOnce) {
    ResourceManager manager;
    FakeLink next(&manager);
    next.delay = std::chrono::milliseconds(50);
    ImageCacheRAM ram(&next, 1 << 20);
    constexpr int kThreads = 8;
    std::vector<imageio::ConstImagePtr> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] { seen[t] = ram.get(manager.makeID(4), 32).image; });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(next.gets, 1);
    for (const imageio::ConstImagePtr& image : seen) EXPECT_EQ(image, seen[0]);

    // A placeholder reaches every waiter and is asked for again afterwards.
    next.setBroken(manager.makeID(5), true);
    threads.clear();
    std::atomic<int> placeholders{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] { placeholders += ram.get(manager.makeID(5), 32).placeholder; });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(placeholders, kThreads);
    EXPECT_EQ(next.getsOf(manager.makeID(5)), 1);
    EXPECT_FALSE(ram.contains(manager.makeID(5), 32));
}

// Readers over more items than the budget holds while another thread changes items: the budget
// holds throughout and, once the changes stop, every item shows its last version.
TEST(ImageCacheRAMThreads, ReadersAndChangesKeepTheBudgetAndEndCurrent) {
    ResourceManager manager;
    FakeLink next(&manager);
    constexpr int kItems = 40;
    constexpr uint64_t kCost = 8 * 32;  // 8 x 8 RGBA, rows of 32 bytes
    ImageCacheRAM ram(&next, 10 * kCost);
    std::atomic<bool> stop{false};
    std::atomic<bool> overBudget{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&, t] {
            std::mt19937 rng(t);
            while (!stop) {
                ResourceID id = manager.makeID(int(rng() % kItems));
                EXPECT_NE(ram.get(id, 8).image, nullptr);
                if (ram.byteSize() > ram.byteLimit()) overBudget = true;
            }
        });
    }
    std::mt19937 rng(99);
    for (int round = 0; round < 3000; ++round) {
        ResourceID id = manager.makeID(int(rng() % kItems));
        next.setVersion(id, 2 + round % 200);
        ram.itemChanged(id);
    }
    stop = true;
    for (std::thread& t : readers) t.join();
    EXPECT_FALSE(overBudget);
    for (int i = 0; i < kItems; ++i) {
        ResourceID id = manager.makeID(i);
        Thumbnail direct = next.get(id, 8);
        EXPECT_EQ(redOf(ram.get(id, 8).image), redOf(direct.image)) << i;
    }
}

}  // namespace
}  // namespace qor::imagecache
