// The preloader on a pool of one worker. Run under ThreadSanitizer (the suite's name ends in
// Threads).

#include <gtest/gtest.h>

#include <future>
#include <vector>

#include "ThumbnailTestSupport.h"
#include "base/thread/ThreadPool.h"
#include "imagecache/thumbnails/ImageCachePreload.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"

namespace qor::imagecache {
namespace {

using testing::FakeLink;
using Item = ImageCachePreload::Item;

// The first item made blocks its worker until `release` is set, so the rest stay queued.
struct PreloadFixture {
    ResourceManager manager;
    FakeLink next{&manager};
    ImageCacheRAM ram{&next, 1 << 20};
    std::mutex mutex;
    std::vector<int> order;  // guarded by mutex: items in the order they were made
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::promise<void> started;

    // From now on the first item made blocks.
    void arm() {
        next.onGet = [this](ResourceID id, int) {
            std::lock_guard<std::mutex> lock(mutex);
            order.push_back(id.id());
            if (order.size() == 1) {
                started.set_value();
                released.wait();
            }
        };
    }
    std::vector<Item> items(std::initializer_list<int> ids) {
        std::vector<Item> out;
        for (int id : ids) out.push_back(Item{manager.makeID(id), 16});
        return out;
    }
    std::vector<int> made() {
        std::lock_guard<std::mutex> lock(mutex);
        return order;
    }
};

TEST(ImageCachePreloadThreads, ANewListCancelsWhatItDroppedAndFollowsItsOrder) {
    PreloadFixture f;
    thread::ThreadPool pool(1, "preload-test");
    ImageCachePreload preload(&f.ram, &pool);
    f.ram.get(f.manager.makeID(9), 16);  // held already
    f.arm();

    preload.setList(f.items({1, 2, 3, 4}));
    f.started.get_future().wait();  // 1 is being made, 2 to 4 are queued
    preload.setList(f.items({9, 4, 5, 1}));
    f.release.set_value();
    preload.wait();

    // 1 went on, 2 and 3 were cancelled, 4 and 5 followed in the order of the new list; 9 was
    // held and not asked for.
    EXPECT_EQ(f.made(), (std::vector<int>{1, 4, 5}));
    ImageCachePreload::Progress p = preload.progress();
    EXPECT_EQ(p.total, 4u);
    EXPECT_EQ(p.done, 4u);
    EXPECT_EQ(p.cancelled, 2u);
    for (int id : {1, 4, 5, 9}) EXPECT_TRUE(f.ram.contains(f.manager.makeID(id), 16)) << id;
}

TEST(ImageCachePreloadThreads, DestroyingWaitsForTheRunningItemAndDropsTheQueued) {
    PreloadFixture f;
    thread::ThreadPool pool(1, "preload-test");
    std::atomic<int> callbacks{0};
    {
        f.arm();
        ImageCachePreload preload(&f.ram, &pool);
        preload.setProgressCallback([&](ImageCachePreload::Progress) { ++callbacks; });
        preload.setList(f.items({1, 2, 3}));
        f.started.get_future().wait();
        std::thread releaser([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            f.release.set_value();
        });
        preload.cancel();  // returns only once item 1 is made
        EXPECT_TRUE(f.ram.contains(f.manager.makeID(1), 16));
        releaser.join();
        EXPECT_EQ(preload.progress().cancelled, 2u);
    }
    pool.waitIdle();
    EXPECT_EQ(f.made(), std::vector<int>{1});
    EXPECT_EQ(callbacks, 1);
}

}  // namespace
}  // namespace qor::imagecache
