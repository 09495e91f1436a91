#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "imaging/ImageTile.h"
#include "imaging/ImageSource.h"
#include "imaging/TileCache.h"

namespace {

using qor::LogCapture;
using qor::SharedPtr;
using qor::WeakSharedPtr;
using qor::imaging::ImageSource;
using qor::imaging::ImageTile;
using qor::imaging::RawPixelFormat;
using qor::imaging::Recti;
using qor::imaging::Vec2i;
using Cache = qor::imaging::TileCache;

constexpr RawPixelFormat kRGBA8 = qor::imaging::PfRGBA8;

// Sources that serve as keys only: the cache never asks them for tiles.
class KeySource : public qor::imaging::ImageSource {
public:
    KeySource() : ImageSource(Vec2i(1, 1), qor::imaging::PfRGBA8) {}
    qor::imaging::TileLayout tileLayout() const override {
        return qor::imaging::TileLayout(Vec2i(1, 1), Vec2i(1, 1), Vec2i(0, 0), Vec2i(1, 1));
    }
};

struct FakeSources {
    KeySource sources[4];
    const ImageSource* operator[](int i) const { return &sources[i]; }
};

// A tile without pixels: the cache costs tiles by their nominal size, not what they hold.
SharedPtr<const ImageTile> makeTile(int width, int height, RawPixelFormat format = kRGBA8) {
    return Cache::allocTile(Vec2i(width, height), format);
}

// 16 by 16 in 8-bit RGBA: 1024 bytes.
constexpr unsigned long long kSmallCost = 1024;
SharedPtr<const ImageTile> smallTile() { return makeTile(16, 16); }

Recti tileRect(int i) { return Recti(16 * i, 0, 16, 16); }

Cache::Statistics stats() {
    Cache::Statistics s;
    Cache::getStatistics(s);
    return s;
}

// The cache is a process singleton: every test starts with it empty, enabled and at the default
// limit, and leaves it empty with the limit and flag it found.
class TileCache : public ::testing::Test {
protected:
    void SetUp() override {
        _found = stats();
        Cache::clearCache();
        Cache::enable();
        Cache::setMemoryLimit(Cache::DefaultMemoryLimit);
        _start = stats();
    }
    void TearDown() override {
        Cache::clearCache();
        Cache::setMemoryLimit(_found.limit);
        if (_found.enabled)
            Cache::enable();
        else
            Cache::disable();
    }

    Cache::Statistics _found;
    Cache::Statistics _start;
    FakeSources _src;
};

// Stands in for the last owner of a tile whose release takes other locks (as a tile's storages
// do): when the cache lets go of the tile, it asks the cache for its statistics from another
// thread and records whether that got through, that is, whether the cache's mutex was free.
class ReleaseProbe {
public:
    ReleaseProbe() : _state(std::make_shared<State>()) {}

    SharedPtr<const ImageTile> makeTile() {
        auto owner = std::make_shared<Owner>(_state, Cache::allocTile(Vec2i(16, 16), kRGBA8));
        return SharedPtr<const ImageTile>(owner, owner->tile.get());
    }
    bool released() const { return _state->released; }
    bool cacheAnsweredDuringRelease() const { return _state->answered; }

private:
    struct State {
        ~State() {
            if (checker.joinable()) checker.join();
        }
        void onRelease() {
            released = true;
            checker = std::thread([this] {
                Cache::Statistics s;
                Cache::getStatistics(s);
                done.store(true);
            });
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (!done.load() && std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            answered = done.load();
        }
        std::thread checker;
        std::atomic<bool> done{false};
        bool released = false;
        bool answered = false;
    };
    struct Owner {
        Owner(SharedPtr<State> s, SharedPtr<ImageTile> t)
            : state(std::move(s)), tile(std::move(t)) {}
        ~Owner() { state->onRelease(); }
        SharedPtr<State> state;
        SharedPtr<ImageTile> tile;
    };
    SharedPtr<State> _state;
};

TEST_F(TileCache, ServesByExactVersionOrAnyVersionWithTheStoredOne) {
    auto tile = smallTile();
    const Recti rect(0, 0, 16, 16);
    Cache::cacheLifeTile(tile, _src[0], rect, 3);

    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, 3u), tile);
    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, 4u), nullptr);
    unsigned int version = 0;
    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, &version), tile);
    EXPECT_EQ(version, 3u);
    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, static_cast<unsigned int*>(nullptr)), tile);

    // Keys differ by source and by every corner of the rectangle.
    version = 77;
    EXPECT_EQ(Cache::getLifeTile(_src[1], rect, &version), nullptr);
    EXPECT_EQ(version, 77u) << "a miss leaves the version alone";
    EXPECT_EQ(Cache::getLifeTile(_src[0], Recti(0, 0, 16, 8), 3u), nullptr);
    EXPECT_EQ(Cache::getLifeTile(_src[0], Recti(0, 0, 8, 16), 3u), nullptr);
    EXPECT_EQ(Cache::getLifeTile(_src[0], Recti(1, 0, 16, 16), 3u), nullptr);
    EXPECT_EQ(Cache::getLifeTile(_src[0], Recti(0, 1, 16, 15), 3u), nullptr);

    Cache::Statistics s = stats();
    EXPECT_EQ(s.entries, 1u);
    EXPECT_EQ(s.bytes, kSmallCost);
    EXPECT_EQ(s.hits - _start.hits, 3u);
    EXPECT_EQ(s.misses - _start.misses, 6u);
    EXPECT_EQ(s.versionMisses - _start.versionMisses, 1u);
    EXPECT_EQ(s.insertions - _start.insertions, 1u);
    EXPECT_FALSE(Cache::freeStorageGen("RawImageStorage"));
}

TEST_F(TileCache, ClearLifeTilesRemovesOnlyThatSource) {
    const Recti rects[] = {Recti(-16, -16, 16, 16), Recti(0, 0, 16, 16), Recti(0, 16, 16, 16),
                           Recti(16, 0, 8, 16)};
    for (int s = 0; s < 3; ++s)
        for (const Recti& r : rects) Cache::cacheLifeTile(smallTile(), _src[s], r, 1);
    ASSERT_EQ(stats().entries, 12u);

    Cache::clearLifeTiles(_src[1]);
    Cache::clearLifeTiles(_src[3]);  // has nothing
    for (const Recti& r : rects) {
        EXPECT_NE(Cache::getLifeTile(_src[0], r, 1u), nullptr) << r;
        EXPECT_EQ(Cache::getLifeTile(_src[1], r, 1u), nullptr) << r;
        EXPECT_NE(Cache::getLifeTile(_src[2], r, 1u), nullptr) << r;
    }
    Cache::Statistics s = stats();
    EXPECT_EQ(s.entries, 8u);
    EXPECT_EQ(s.bytes, 8 * kSmallCost);

    Cache::clearCache();
    s = stats();
    EXPECT_EQ(s.entries, 0u);
    EXPECT_EQ(s.bytes, 0u);
    EXPECT_TRUE(s.enabled);
    EXPECT_EQ(s.limit, Cache::DefaultMemoryLimit);
}

TEST_F(TileCache, EvictsLeastRecentlyUsedByNominalCost) {
    LogCapture log;
    Cache::setMemoryLimit(4 * kSmallCost);
    const ImageSource* src = _src[0];
    for (int i = 0; i < 4; ++i) Cache::cacheLifeTile(smallTile(), src, tileRect(i), 1);
    EXPECT_EQ(stats().bytes, 4 * kSmallCost) << "exactly at the limit is within it";
    EXPECT_EQ(stats().evictions, _start.evictions);

    // Order of use, most recent first: 3 2 1 0.
    Cache::cacheLifeTile(smallTile(), src, tileRect(4), 1);  // evicts 0 -> 4 3 2 1
    Cache::touchLifeTile(src, tileRect(1));                  // 1 4 3 2
    Cache::cacheLifeTile(smallTile(), src, tileRect(5), 1);  // evicts 2 -> 5 1 4 3
    Cache::getLifeTile(src, tileRect(3), 1u);                // a hit is a use: 3 5 1 4
    Cache::getLifeTile(src, tileRect(4), 2u);  // a stale entry is not promoted by a version miss
    Cache::cacheLifeTile(smallTile(), src, tileRect(6), 1);  // evicts 4 -> 6 3 5 1

    unsigned int* anyVersion = nullptr;
    for (int i : {0, 2, 4})
        EXPECT_EQ(Cache::getLifeTile(src, tileRect(i), anyVersion), nullptr) << i;
    // Looking up in the order least to most recent keeps that order: 1 5 3 6 -> 6 3 5 1.
    for (int i : {1, 5, 3, 6})
        EXPECT_NE(Cache::getLifeTile(src, tileRect(i), anyVersion), nullptr) << i;

    // A tile of twice the cost pushes out the two least recently used: 1 and 5 -> big 6 3.
    const Recti bigRect(0, 16, 32, 16);
    Cache::cacheLifeTile(makeTile(32, 16), src, bigRect, 1);
    EXPECT_EQ(Cache::getLifeTile(src, tileRect(1), anyVersion), nullptr);
    EXPECT_EQ(Cache::getLifeTile(src, tileRect(5), anyVersion), nullptr);
    EXPECT_NE(Cache::getLifeTile(src, tileRect(3), anyVersion), nullptr);  // 3 big 6

    // The cost depends on the format too: 16 by 16 half-float RGBA costs 2048, which pushes out
    // 6 and the big tile.
    Cache::cacheLifeTile(makeTile(16, 16, qor::imaging::PfRGBA16F), _src[1], tileRect(0), 1);
    EXPECT_EQ(Cache::getLifeTile(src, tileRect(6), anyVersion), nullptr);
    EXPECT_EQ(Cache::getLifeTile(src, bigRect, anyVersion), nullptr);
    EXPECT_NE(Cache::getLifeTile(src, tileRect(3), anyVersion), nullptr);
    EXPECT_NE(Cache::getLifeTile(_src[1], tileRect(0), anyVersion), nullptr);

    Cache::Statistics s = stats();
    EXPECT_EQ(s.evictions - _start.evictions, 7u);
    EXPECT_EQ(s.insertions - _start.insertions, 9u);
    EXPECT_EQ(s.entries, 2u);
    EXPECT_EQ(s.bytes, 3 * kSmallCost);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST_F(TileCache, LimitChecksLogAndStoreAllTheSame) {
    const ImageSource* src = _src[0];
    unsigned int* anyVersion = nullptr;
    for (int i = 0; i < 3; ++i) Cache::cacheLifeTile(smallTile(), src, tileRect(i), 1);

    // A lower limit takes effect at the next insertion only.
    Cache::setMemoryLimit(2 * kSmallCost);
    EXPECT_EQ(stats().entries, 3u);
    EXPECT_EQ(stats().limit, 2 * kSmallCost);
    {
        LogCapture log;
        Cache::cacheLifeTile(makeTile(8, 8), src, tileRect(3), 1);
        EXPECT_EQ(log.assertions(), 0u);
        EXPECT_EQ(stats().entries, 2u) << "evicted down to what fits beside the new tile";
        EXPECT_EQ(stats().bytes, kSmallCost + 256);
        EXPECT_NE(Cache::getLifeTile(src, tileRect(2), anyVersion), nullptr);
    }
    {
        // A cost equal to the limit is not below it: everything else goes, the tile stays.
        Cache::setMemoryLimit(kSmallCost);
        LogCapture log;
        auto big = smallTile();
        Cache::cacheLifeTile(big, src, tileRect(4), 1);
        EXPECT_EQ(log.assertions("costs < _maxCosts"), 1u);
        EXPECT_EQ(Cache::getLifeTile(src, tileRect(4), 1u), big);
        EXPECT_EQ(stats().entries, 1u);

        // The next insertion makes room again.
        Cache::cacheLifeTile(makeTile(8, 8), src, tileRect(5), 1);
        EXPECT_EQ(Cache::getLifeTile(src, tileRect(4), anyVersion), nullptr);
        EXPECT_EQ(stats().bytes, 256u);
    }
    {
        Cache::setMemoryLimit(Cache::DefaultMemoryLimit);
        LogCapture log;
        Cache::cacheLifeTile(makeTile(4096, 4095), src, Recti(0, 0, 4096, 4095), 1);
        EXPECT_EQ(log.assertions(), 0u);
        Cache::cacheLifeTile(makeTile(4096, 4096), src, Recti(0, 0, 4096, 4096), 1);
        EXPECT_EQ(log.assertions("t.memoryConsumption < 64*1024*1024"), 1u);
        EXPECT_NE(Cache::getLifeTile(src, Recti(0, 0, 4096, 4096), 1u), nullptr);
    }
}

TEST_F(TileCache, NewerVersionReplacesAndSameVersionIsReportedButReplaced) {
    const Recti rect = tileRect(0);
    auto v1 = smallTile();
    auto v2 = makeTile(8, 8);
    auto v2again = makeTile(16, 8);
    LogCapture log;
    Cache::cacheLifeTile(v1, _src[0], rect, 1);
    Cache::cacheLifeTile(v2, _src[0], rect, 2);
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, 1u), nullptr);
    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, 2u), v2);
    EXPECT_EQ(stats().bytes, 256u) << "the replaced entry's cost is taken off";

    Cache::cacheLifeTile(v2again, _src[0], rect, 2);
    EXPECT_EQ(log.assertions("t.version != version"), 1u);
    EXPECT_EQ(Cache::getLifeTile(_src[0], rect, 2u), v2again);

    Cache::Statistics s = stats();
    EXPECT_EQ(s.entries, 1u);
    EXPECT_EQ(s.bytes, 512u);
    EXPECT_EQ(s.replacements - _start.replacements, 2u);
    EXPECT_EQ(s.evictions - _start.evictions, 0u);
    EXPECT_EQ(v1.use_count(), 1) << "the replaced tile is not held any more";
}

TEST_F(TileCache, DisabledCacheDropsWritesAndStillServes) {
    auto kept = smallTile();
    Cache::cacheLifeTile(kept, _src[0], tileRect(0), 1);
    Cache::disable();
    EXPECT_FALSE(stats().enabled);
    Cache::cacheLifeTile(smallTile(), _src[0], tileRect(1), 1);
    Cache::cacheLifeTile(smallTile(), _src[0], tileRect(0), 2);
    EXPECT_EQ(Cache::getLifeTile(_src[0], tileRect(0), 1u), kept);
    EXPECT_EQ(Cache::getLifeTile(_src[0], tileRect(1), 1u), nullptr);
    Cache::Statistics s = stats();
    EXPECT_EQ(s.entries, 1u);
    EXPECT_EQ(s.dropped - _start.dropped, 2u);
    EXPECT_EQ(s.insertions - _start.insertions, 1u);

    Cache::enable();
    Cache::cacheLifeTile(smallTile(), _src[0], tileRect(1), 1);
    EXPECT_NE(Cache::getLifeTile(_src[0], tileRect(1), 1u), nullptr);
}

TEST_F(TileCache, TileThatLeavesIsFreedOnceNoOneElseHoldsIt) {
    Cache::setMemoryLimit(2 * kSmallCost);
    auto held = smallTile();
    WeakSharedPtr<const ImageTile> heldWeak = held;
    WeakSharedPtr<const ImageTile> dropped;
    {
        auto t = smallTile();
        dropped = t;
        Cache::cacheLifeTile(t, _src[0], tileRect(1), 1);
    }
    Cache::cacheLifeTile(held, _src[0], tileRect(0), 1);
    EXPECT_FALSE(dropped.expired()) << "the cache keeps its tile alive";

    Cache::cacheLifeTile(smallTile(), _src[1], tileRect(0), 1);
    Cache::cacheLifeTile(smallTile(), _src[1], tileRect(1), 1);
    EXPECT_TRUE(dropped.expired());
    EXPECT_FALSE(heldWeak.expired()) << "a tile still held elsewhere lives on after eviction";
    EXPECT_EQ(held.use_count(), 1);
    held.reset();
    EXPECT_TRUE(heldWeak.expired());
}

TEST_F(TileCache, ReleasesTilesOutsideItsLock) {
    Cache::setMemoryLimit(2 * kSmallCost);
    ReleaseProbe evicted, replaced, clearedBySource, clearedAll;

    Cache::cacheLifeTile(evicted.makeTile(), _src[0], tileRect(0), 1);
    Cache::cacheLifeTile(smallTile(), _src[0], tileRect(1), 1);
    Cache::cacheLifeTile(smallTile(), _src[0], tileRect(2), 1);
    EXPECT_TRUE(evicted.released());
    EXPECT_TRUE(evicted.cacheAnsweredDuringRelease());

    Cache::cacheLifeTile(replaced.makeTile(), _src[1], tileRect(0), 1);
    Cache::cacheLifeTile(smallTile(), _src[1], tileRect(0), 2);
    EXPECT_TRUE(replaced.released());
    EXPECT_TRUE(replaced.cacheAnsweredDuringRelease());

    Cache::cacheLifeTile(clearedBySource.makeTile(), _src[2], tileRect(0), 1);
    Cache::clearLifeTiles(_src[2]);
    EXPECT_TRUE(clearedBySource.released());
    EXPECT_TRUE(clearedBySource.cacheAnsweredDuringRelease());

    Cache::cacheLifeTile(clearedAll.makeTile(), _src[2], tileRect(0), 1);
    Cache::clearCache();
    EXPECT_TRUE(clearedAll.released());
    EXPECT_TRUE(clearedAll.cacheAnsweredDuringRelease());
}

class TileCacheThreads : public TileCache {};

// Workers insert, look up, touch and clear over shared and private sources. Tiles differ in shape
// but not in cost, and each is stored under a rectangle of its own shape, so a lookup that returns
// a tile of another shape has mixed up entries; the total must stay within the limit and agree
// with the number of entries.
TEST_F(TileCacheThreads, ConcurrentUseKeepsEntriesAndTotalsConsistent) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 1500;
    constexpr int kRects = 24;
    const Vec2i shapes[] = {Vec2i(16, 16), Vec2i(8, 32),  Vec2i(32, 8),  Vec2i(4, 64), Vec2i(64, 4),
                            Vec2i(2, 128), Vec2i(128, 2), Vec2i(1, 256), Vec2i(256, 1)};
    auto rectOf = [&](int i) { return Recti(Vec2i(i, 0), Vec2i(i, 0) + shapes[i % 9]); };
    Cache::setMemoryLimit(32 * kSmallCost);
    FakeSources shared;
    std::atomic<int> wrongTiles{0};
    std::atomic<int> badTotals{0};
    LogCapture log;

    std::vector<std::thread> workers;
    for (int w = 0; w < kThreads; ++w) {
        workers.emplace_back([&, w] {
            const ImageSource* mine = _src[w];
            for (int round = 0; round < kRounds; ++round) {
                const ImageSource* src = (round % 3 == 0) ? shared[0] : mine;
                const Recti rect = rectOf((round * 7 + w * 5) % kRects);
                const auto version = static_cast<unsigned int>(round * kThreads + w);
                unsigned int found = 0;
                SharedPtr<const ImageTile> got = Cache::getLifeTile(src, rect, &found);
                if (got && got->size() != rect.size()) ++wrongTiles;
                if (!got || round % 4 == 0)
                    Cache::cacheLifeTile(Cache::allocTile(rect.size(), kRGBA8), src, rect, version);
                got = Cache::getLifeTile(src, rect, version);
                if (got && got->size() != rect.size()) ++wrongTiles;
                Cache::touchLifeTile(src, rectOf(round % kRects));
                if (round % 97 == 0) Cache::clearLifeTiles(mine);
                if (round % 50 == 0) {
                    Cache::Statistics s;
                    Cache::getStatistics(s);
                    if (s.bytes > s.limit || s.bytes != s.entries * kSmallCost) ++badTotals;
                }
                if (w == 0 && round % 500 == 499) Cache::clearCache();
            }
        });
    }
    for (auto& t : workers) t.join();

    EXPECT_EQ(wrongTiles.load(), 0);
    EXPECT_EQ(badTotals.load(), 0);
    EXPECT_EQ(log.assertions(), 0u);
    Cache::Statistics s = stats();
    EXPECT_LE(s.bytes, s.limit);
    EXPECT_EQ(s.bytes, s.entries * kSmallCost);
    EXPECT_GT(s.hits - _start.hits, 0u);
    EXPECT_GT(s.evictions - _start.evictions, 0u);
}

}  // namespace
