// Many threads reading, setting and checking items while the worker flushes. Run under
// ThreadSanitizer (the suite's name ends in Threads).

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "CacheTestSupport.h"
#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imageio/ItemMetadata.h"

namespace qor::imagecache {
namespace {

using namespace testing;
using imageio::ItemMetadata;
using S = FastString<char>;

TEST(MetadataCacheRDBThreads, ReadersSettersAndChecksWhileTheWorkerFlushes) {
    constexpr int kItems = 600;
    constexpr int kSetters = 2;
    constexpr int kOps = 4000;
    TempFolder folder;
    const std::string dir = folder.path() + "/cache";
    std::vector<std::string> paths;
    std::vector<int> finalRating(kItems, -1);
    {
        ResourceManager manager;
        MemoryCache next(&manager);
        std::vector<ResourceID> ids;
        for (int i = 0; i < kItems; ++i) {
            paths.push_back(folder.write("item" + std::to_string(i) + ".jpg", {1}));
            ids.push_back(manager.add(manager.nameFromLocalPath(paths.back())));
            SharedPtr<Metadata> values = itemValues(i);
            values->set(F::FileLastWriteTime, filesystem::lastWriteTime(paths.back()));
            next.put(ids.back(), values);
        }
        MetadataCacheRDB cache(&next, S(dir), nullptr, 0);
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        // Readers: every value read is the item's own, whoever loaded it.
        for (int r = 0; r < 3; ++r) {
            threads.emplace_back([&, r] {
                std::mt19937 random(r);
                for (int op = 0; op < kOps; ++op) {
                    const int i = int(random() % kItems);
                    const ItemMetadata item(&cache, ids[size_t(i)]);
                    if (item.getInt(F::ISOSensitivity) != 100 + i) ++wrong;
                    if (item.getSize() != Vec2i(100 + i, 50 + i)) ++wrong;
                    if (item.getString(F::MakeString) != S("Maker " + std::to_string(i))) ++wrong;
                    item.getInt(F::Rating);
                }
            });
        }
        // Setters, each on its own items, so the last value of each is known.
        for (int s = 0; s < kSetters; ++s) {
            threads.emplace_back([&, s] {
                std::mt19937 random(100 + s);
                for (int op = 0; op < kOps; ++op) {
                    const int i = int(random() % (kItems / kSetters)) * kSetters + s;
                    const int rating = op % 6;
                    cache.set(ids[size_t(i)], F::Rating, rating);
                    finalRating[size_t(i)] = rating;
                }
            });
        }
        // Checks and rechecks against the unchanged files.
        threads.emplace_back([&] {
            std::mt19937 random(7);
            for (int op = 0; op < kOps / 10; ++op) {
                cache.check(ids[random() % kItems]);
                if (op % 100 == 0) cache.startRecheck();
            }
        });
        for (std::thread& t : threads) t.join();
        EXPECT_EQ(wrong, 0);
    }  // shut down: the last values are written

    ResourceManager manager;
    MemoryCache next(&manager);
    MetadataCacheRDB cache(&next, S(dir), nullptr, 0);
    for (int i = 0; i < kItems; ++i) {
        const ResourceID id = manager.findLocalPath(paths[size_t(i)]);
        ASSERT_TRUE(id.isValid()) << i;
        const ItemMetadata item(&cache, id);
        EXPECT_EQ(item.getInt(F::ISOSensitivity), 100 + i);
        if (finalRating[size_t(i)] >= 0) {
            EXPECT_EQ(item.getInt(F::Rating), finalRating[size_t(i)]);
        }
    }
    EXPECT_EQ(next.loads, 0);
}

}  // namespace
}  // namespace qor::imagecache
