// A writer killed at random moments, many times: each run of the writer sets every field of every
// item to one generation and lets the cache flush, generation after generation; the test kills it
// with SIGKILL and opens the cache again. Every record must be there whole, all of its fields from
// one generation.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <thread>

#include "CacheTestSupport.h"
#include "base/Log.h"
#include "imagecache/metadata/MetadataCacheRDB.h"

namespace qor::imagecache {
namespace {

using namespace testing;
using S = FastString<char>;

constexpr int kItems = 1200;  // three flush batches a generation

// Every field of the record but RecordConsistent, by value type; `g` and `i` recoverable from each.
template <class Fn>
void forEachRecordField(Fn&& fn) {
    for (int number = 0; number < imageio::MetadataFieldEnd; ++number) {
        const auto field = static_cast<MetadataField>(number);
        if (MetadataCacheRDB::isRecordField(field)) fn(field);
    }
}

void setGeneration(MetadataCacheRDB& cache, ResourceID id, int g, int i) {
    forEachRecordField([&](MetadataField field) {
        switch (imageio::fieldDataType(field)) {
            case imageio::MdtInt:
                return cache.set(id, field, g);
            case imageio::MdtVec2i:
                return cache.set(id, field, Vec2i(g, i));
            case imageio::MdtDouble:
                return cache.set(id, field, g + 0.25);
            case imageio::MdtVec3d:
                return cache.set(id, field, Vec3d(g, i, 0.5));
            case imageio::MdtTime:
                return cache.set(id, field, Timestamp::fromMicroseconds(int64_t(g) * 1000000 + i));
            default: {
                uint8_t bytes[16] = {};
                std::memcpy(bytes, &g, 4);
                std::memcpy(bytes + 4, &i, 4);
                return cache.set(id, field, Digest::fromBytes(bytes));
            }
        }
    });
}

// The generation of each field of the item, or -1 for an absent or malformed value.
std::vector<int> generations(MetadataCacheRDB& cache, ResourceID id, int i) {
    std::vector<int> out;
    forEachRecordField([&](MetadataField field) {
        int g = -1;
        switch (imageio::fieldDataType(field)) {
            case imageio::MdtInt:
                cache.get(id, field, g);
                break;
            case imageio::MdtVec2i: {
                Vec2i v;
                if (cache.get(id, field, v) && v.y == i) g = v.x;
                break;
            }
            case imageio::MdtDouble: {
                double v;
                if (cache.get(id, field, v)) g = int(v - 0.25);
                break;
            }
            case imageio::MdtVec3d: {
                Vec3d v;
                if (cache.get(id, field, v) && v.y == i) g = int(v.x);
                break;
            }
            case imageio::MdtTime: {
                Timestamp v;
                if (cache.get(id, field, v) && v.microseconds() % 1000000 == i)
                    g = int(v.microseconds() / 1000000);
                break;
            }
            default: {
                Digest v;
                int item = -1;
                if (cache.get(id, field, v)) {
                    std::memcpy(&item, v.data() + 4, 4);
                    if (item == i) std::memcpy(&g, v.data(), 4);
                }
                break;
            }
        }
        out.push_back(g);
    });
    return out;
}

std::string itemName(int i) { return "/qor-crash-test/item" + std::to_string(i) + ".jpg"; }

// Sets the values of a generation on a scratch item that is never written, and copies them to
// each item in one step, so that a flush, which may come at any moment, finds each item with the
// values of one generation.
[[noreturn]] void runWriter(const std::string& dir, int firstGeneration) {
    ResourceManager manager;
    MemoryCache next(&manager);
    MetadataCacheRDB cache(&next, S(dir), nullptr, 0);
    std::vector<ResourceID> ids;
    for (int i = 0; i < kItems; ++i)
        ids.push_back(
            manager.add(manager.nameFromLocalPath(itemName(i)), ResourceManager::AddOrFind));
    const ResourceID scratch = manager.add(manager.nameFromLocalPath("/qor-crash-test/scratch"));
    cache.setPersitentItemCallback([scratch](ResourceID id) { return id != scratch; });
    for (int g = firstGeneration;; ++g) {
        for (int i = 0; i < kItems; ++i) {
            setGeneration(cache, scratch, g, i);
            cache.copyImage(scratch, ids[size_t(i)]);
        }
        cache.waitForFlush();
    }
}

TEST(MetadataCacheRDBCrash, EveryRecordIsWholeAfterTheWriterIsKilledAtRandomMoments) {
    TempFolder folder;
    const std::string dir = folder.path() + "/cache";
    std::mt19937 random(20261124);
    std::uniform_int_distribution<int> delayMs(5, 250);
    int mixed = 0;  // runs that ended between two batches of one generation
    int lastSeen = 0;
    for (int run = 0; run < 25; ++run) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) runWriter(dir, (run + 1) * 100000);
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs(random)));
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself in run " << run;

        ResourceManager manager;
        MemoryCache next(&manager);
        LogCapture capture;
        MetadataCacheRDB cache(&next, S(dir), nullptr, 0);
        EXPECT_EQ(capture.count("gets recreated"), 0u) << "run " << run;
        std::map<int, int> records;  // generation -> records
        for (int i = 0; i < kItems; ++i) {
            const ResourceID id = manager.findLocalPath(itemName(i));
            if (!id.isValid()) continue;  // not written yet
            EXPECT_TRUE(cache.isCached(id)) << "item " << i << " run " << run;
            const std::vector<int> g = generations(cache, id, i);
            for (int value : g)
                ASSERT_EQ(value, g[0]) << "item " << i << " holds two generations in run " << run;
            ++records[g[0]];
        }
        EXPECT_EQ(next.loads, 0);
        if (records.size() > 1) ++mixed;
        if (!records.empty()) lastSeen = records.rbegin()->first;
        EXPECT_EQ(capture.assertions(), 0u);
    }
    std::printf(
        "[          ] %d of 25 runs were killed between the batches of a flush; "
        "last generation %d\n",
        mixed, lastSeen);
    EXPECT_GT(lastSeen, 0);
}

}  // namespace
}  // namespace qor::imagecache
