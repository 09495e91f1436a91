#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "PipelineTestSources.h"
#include "base/Log.h"
#include "base/thread/JobDispatcher.h"
#include "imaging/Image.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/SimpleImageSource.h"

namespace qor::imaging {
namespace {

using namespace pipelinetest;
using TileIndex = ImageSource::TileIndex;

// The exact mirror of coordinate v into [0, n), one reflection either way.
int mirror(int v, int n) { return v < 0 ? -1 - v : (v >= n ? 2 * n - 1 - v : v); }

// Counts the job graphs that start, on any source.
class JobGraphCounter {
public:
    JobGraphCounter()
        : _connection(ImageSource::Debug_OnStartProcessingSource().connect(
              [this](const SharedPtr<ImageSource>&, const ImageSource::JobSet&) { ++_count; })) {}
    int count() const { return _count.load(); }

private:
    std::atomic<int> _count{0};
    ScopedConnection _connection;
};

// A source that reads `dependency`: it announces itself as its dependee and lists it as its
// dependency. It computes nothing.
class DependentSource : public ImageSource {
public:
    static SharedPtr<DependentSource> create(const SharedPtr<ImageSource>& dependency) {
        auto* source = new DependentSource(dependency);
        auto self = std::static_pointer_cast<DependentSource>(source->setupSelfRef());
        WeakSharedPtr<ImageSource> weak = self;
        source->_link = dependency->OnCollectDependees.connect([weak](SourceList& out) {
            if (SharedPtr<ImageSource> me = weak.lock()) out.push_back(me);
        });
        return self;
    }
    TileLayout tileLayout() const override { return _dependency->tileLayout(); }
    void insertDependencies(SourceList& out) const override { out.push_back(_dependency); }
    bool mutexFree() const QOR_NO_THREAD_SAFETY_ANALYSIS {
        if (!_mutex.tryLock()) return false;
        _mutex.unlock();
        return true;
    }

private:
    explicit DependentSource(const SharedPtr<ImageSource>& dependency)
        : ImageSource(dependency->size(), dependency->pixelFormat()), _dependency(dependency) {}

    SharedPtr<ImageSource> _dependency;
    ScopedConnection _link;
};

// ---- SimpleImageSource ----

TEST(SimpleImageSource, GivesItsTileItselfWithoutAJob) {
    CacheGuard cache;
    JobGraphCounter graphs;
    SharedPtr<ImageTile> tile = ImageTile::create({20, 10}, PfRGBA8);
    tile->getDataTargetRGBA8();
    auto source = SimpleImageSource::create(tile);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->size(), Vec2i(20, 10));
    EXPECT_EQ(source->pixelFormat(), PfRGBA8);

    ImageSource::VersionArray versions;
    ImageSource::TileArray tiles = source->getTiles({{0, 0}}, false, &versions, {});
    ASSERT_EQ(tiles.columns(), 1);
    EXPECT_EQ(tiles(0, 0), tile);
    EXPECT_EQ(versions(0, 0), 0u);
    // The whole image as one tile is the tile itself, not a copy.
    EXPECT_EQ(Image::create(SharedPtr<const ImageTile>(tile))->getAsTile(), tile);
    EXPECT_EQ(graphs.count(), 0);
}

TEST(SimpleImageSource, WrapsImageDataInATileOfItsFormat) {
    auto data = GenImageData<unsigned char, 4>::create(3, 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            for (int c = 0; c < 4; ++c) data->at(x, y, c) = gradientComponent(x, y, c);
    auto source = SimpleImageSource::create(data);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->pixelFormat(), PfRGBA8);
    SharedPtr<const ImageTile> tile = source->getTile(0, 0, false, nullptr, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(gradientMismatches(*tile, Recti(0, 0, 3, 2)), 0);

    auto lum = SimpleImageSource::createLum32F(GenImageData<float, 1>::create(4, 4));
    ASSERT_TRUE(lum);
    EXPECT_EQ(lum->pixelFormat(), PfLum32F);
    EXPECT_EQ(lum->tileLayout().tileCount, Vec2i(1, 1));
}

// ---- ImageSource: the synchronous road ----

TEST(ImageSource, GetTilesComputesEachTileOnceThenServesTheCache) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    ImageSource::VersionArray versions;
    ImageSource::TileArray tiles = source->getTiles({{0, 0}, {3, 1}}, false, &versions, {});
    ASSERT_EQ(tiles.columns(), 4);
    ASSERT_EQ(tiles.rows(), 2);
    ASSERT_TRUE(tiles(0, 0));
    ASSERT_TRUE(tiles(3, 1));
    EXPECT_FALSE(tiles(1, 0)) << "a tile not asked for stays empty";
    EXPECT_EQ(gradientMismatches(*tiles(3, 1), Recti(96, 32, 4, 28)), 0);
    EXPECT_EQ(gradientMismatches(*tiles(0, 0), Recti(0, 0, 32, 32)), 0);
    EXPECT_EQ(source->computedTotal(), 2);

    JobGraphCounter graphs;
    ImageSource::TileArray again = source->getTiles({{0, 0}, {3, 1}}, false, nullptr, {});
    EXPECT_EQ(again(0, 0), tiles(0, 0));
    EXPECT_EQ(again(3, 1), tiles(3, 1));
    EXPECT_EQ(source->computedTotal(), 2);
    EXPECT_EQ(graphs.count(), 0) << "cached tiles need no job";
}

TEST(ImageSource, GetTileOutsideTheLayoutIsNullAndStartsNothing) {
    CacheGuard cache;
    JobGraphCounter graphs;
    auto source = GradientSource::create({100, 60}, {32, 32});
    LogCapture log;
    EXPECT_FALSE(source->getTile(4, 0, false, nullptr, {}));
    EXPECT_FALSE(source->getTile(0, 2, false, nullptr, {}));
    EXPECT_FALSE(source->getTile(-1, 0, false, nullptr, {}));
    EXPECT_EQ(source->computedTotal(), 0);
    EXPECT_EQ(graphs.count(), 0);
    EXPECT_EQ(log.assertions(), 0u);
}

TEST(ImageSource, GetTilesLogsAnIndexOutOfBoundsAndGivesTheOthers) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    LogCapture log;
    ImageSource::TileArray tiles = source->getTiles({{1, 1}, {9, 2}}, false, nullptr, {});
    ASSERT_TRUE(tiles(1, 1));
    EXPECT_EQ(gradientMismatches(*tiles(1, 1), Recti(32, 32, 32, 28)), 0);
    bool found = false;
    for (const LogCapture::Entry& e : log.entries())
        if (e.text.find("Requested tile(9,2) out of bounds(4,2). Continuing (possibly CPU / GPU "
                        "switch performed?)") == 0) {
            found = true;
            EXPECT_EQ(e.level, LogWarning);
        }
    EXPECT_TRUE(found);
    EXPECT_EQ(source->computedTotal(), 1);
}

TEST(ImageSource, CachedOnlyNeverStartsARequestAndGivesOlderVersions) {
    CacheGuard cache;
    JobGraphCounter graphs;
    auto source = GradientSource::create({64, 64}, {32, 32});
    ImageSource::TileArray first = source->getTiles({{0, 0}}, false, nullptr, {});
    ASSERT_TRUE(first(0, 0));
    EXPECT_EQ(graphs.count(), 1);

    source->incrementVersion();
    EXPECT_EQ(source->version(), 1u);
    ImageSource::VersionArray versions;
    ImageSource::TileArray cached = source->getTiles({{0, 0}, {1, 1}}, true, &versions, {});
    EXPECT_EQ(cached(0, 0), first(0, 0)) << "the old tile is still in the cache";
    EXPECT_EQ(versions(0, 0), 0u);
    EXPECT_FALSE(cached(1, 1));
    unsigned int version = 99;
    EXPECT_EQ(source->getTile(0, 0, true, &version, {}), first(0, 0));
    EXPECT_EQ(version, 0u);
    EXPECT_EQ(graphs.count(), 1) << "cachedOnly never requests";
    EXPECT_EQ(source->computedTotal(), 1);

    // A plain request is not served the tile of the old version.
    SharedPtr<const ImageTile> fresh = source->getTile(0, 0, false, &version, {});
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh, first(0, 0));
    EXPECT_EQ(version, 1u);
    EXPECT_EQ(source->computedCount(0, 0), 2);
}

TEST(ImageSource, IncrementVersionReachesEveryDependeeOnceAndSignalsWithNoLockHeld) {
    auto base = GradientSource::create({64, 64}, {32, 32});
    auto middle = DependentSource::create(base);
    // `top` reads both: it is reached twice in the walk and must change once.
    auto top = DependentSource::create(middle);
    ScopedConnection extra = base->OnCollectDependees.connect(
        [&](ImageSource::SourceList& out) { out.push_back(top); });

    std::vector<const ImageSource*> signalled;
    bool allFree = true;
    auto watch = [&](const SharedPtr<ImageSource>& s) {
        return s->OnVersionChanged.connect([&, raw = s.get()] {
            signalled.push_back(raw);
            allFree = allFree && base->mutexFree() && middle->mutexFree() && top->mutexFree();
        });
    };
    ScopedConnection c1 = watch(base), c2 = watch(middle), c3 = watch(top);

    base->incrementVersion();
    EXPECT_EQ(base->version(), 1u);
    EXPECT_EQ(middle->version(), 1u);
    EXPECT_EQ(top->version(), 1u);
    ASSERT_EQ(signalled.size(), 3u);
    EXPECT_EQ(signalled[0], base.get()) << "the walk starts at the source itself";
    EXPECT_TRUE(allFree);

    middle->incrementVersion();
    EXPECT_EQ(base->version(), 1u) << "a dependency does not change";
    EXPECT_EQ(middle->version(), 2u);
    EXPECT_EQ(top->version(), 2u);
}

TEST(ImageSource, ExecuteFullLockedHoldsTheSourceAndItsDependencies) {
    auto base = GradientSource::create({64, 64}, {32, 32});
    auto top = DependentSource::create(base);
    bool baseFree = true, topFree = true;
    top->executeFullLocked([&] {
        std::thread([&] {
            baseFree = base->mutexFree();
            topFree = top->mutexFree();
        }).join();
    });
    EXPECT_FALSE(baseFree);
    EXPECT_FALSE(topFree);
    EXPECT_TRUE(base->mutexFree());
    EXPECT_TRUE(top->mutexFree());
}

// A node of a source graph with any number of dependencies, in the order given. It computes
// nothing.
class GraphSource : public ImageSource {
public:
    static SharedPtr<GraphSource> create(std::vector<SharedPtr<ImageSource>> deps = {}) {
        auto* source = new GraphSource(std::move(deps));
        return std::static_pointer_cast<GraphSource>(source->setupSelfRef());
    }
    TileLayout tileLayout() const override {
        return TileLayout(size(), GenVec<int, 2>(32, 32), GenVec<int, 2>(0, 0), size());
    }
    void insertDependencies(SourceList& out) const override {
        out.insert(out.end(), _deps.begin(), _deps.end());
    }

private:
    explicit GraphSource(std::vector<SharedPtr<ImageSource>> deps)
        : ImageSource({64, 64}, PfRGBA8), _deps(std::move(deps)) {}
    const std::vector<SharedPtr<ImageSource>> _deps;
};

// Runs executeFullLocked of each root on a thread of its own, many times. Locking in walk order
// (breadth by breadth from each root) deadlocked here: a source reached along two paths of
// different length, or two siblings listed in different orders by two roots, were taken in
// opposite orders by two walks.
void lockConcurrently(const std::vector<SharedPtr<GraphSource>>& roots) {
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (const SharedPtr<GraphSource>& root : roots)
        threads.emplace_back([root, &finished] {
            for (int i = 0; i < 3000; ++i) root->executeFullLocked([] {});
            ++finished;
        });
    const auto deadline = Clock::now() + kPatience;
    while (finished.load() < int(roots.size()) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (finished.load() < int(roots.size())) {
        // The threads wait on each other for ever and cannot be joined.
        std::fprintf(stderr, "executeFullLocked deadlocked\n");
        std::_Exit(1);
    }
    for (std::thread& t : threads) t.join();
}

TEST(ImageSourceThreads, FullLocksOfOverlappingGraphsNeverDeadlock) {
    // A diamond reached at two depths: top lists its leaf before the middle source that also
    // reads the leaf.
    auto leaf = GraphSource::create();
    auto middle = GraphSource::create({leaf});
    auto top = GraphSource::create({leaf, middle});
    lockConcurrently({top, middle});
    // Two roots that list the same two sources in opposite orders.
    auto a = GraphSource::create(), b = GraphSource::create();
    lockConcurrently({GraphSource::create({a, b}), GraphSource::create({b, a})});
}

TEST(ImageSource, EnableCachingFollowsDefaultCachingStateAndReachesDependencies) {
    CacheGuard cache;
    auto neverCaches = GradientSource::create({32, 32}, {32, 32}, false);
    neverCaches->enableCaching(true);
    EXPECT_FALSE(neverCaches->isCaching());
    ASSERT_TRUE(neverCaches->getTile(0, 0, false, nullptr, {}));
    EXPECT_FALSE(TileCache::getLifeTile(neverCaches.get(), Recti(0, 0, 32, 32), nullptr));

    auto base = GradientSource::create({64, 32}, {32, 32});
    auto top = DependentSource::create(base);
    EXPECT_TRUE(base->isCaching());
    top->enableCaching(false);
    EXPECT_FALSE(top->isCaching());
    EXPECT_FALSE(base->isCaching());
    ASSERT_TRUE(base->getTile(0, 0, false, nullptr, {}));
    EXPECT_FALSE(TileCache::getLifeTile(base.get(), Recti(0, 0, 32, 32), nullptr));
    EXPECT_EQ(base->computedTotal(), 1);
    ASSERT_TRUE(base->getTile(0, 0, false, nullptr, {}));
    EXPECT_EQ(base->computedTotal(), 2) << "without caching every request computes";

    top->enableCaching(true);
    EXPECT_TRUE(base->isCaching());
    ASSERT_TRUE(base->getTile(1, 0, false, nullptr, {}));
    EXPECT_TRUE(TileCache::getLifeTile(base.get(), Recti(32, 0, 32, 32), base->version()));
}

TEST(ImageSource, GPUTileSizeIsBoundByTheLargestTexture) {
    const Vec2i cpu = ImageSource::getCPUPreferredTileSize();
    const Vec2i gpu = ImageSource::getGPUPreferredTileSize();
    EXPECT_EQ(cpu, Vec2i(256, 256));
    EXPECT_EQ(gpu, Vec2i(1024, 1024));
    ImageSource::setGPUPreferredTileSize(Vec2i(300, 2048));
    EXPECT_EQ(ImageSource::getGPUPreferredTileSize(), Vec2i(300, 2048)) << "no renderer: no bound";
    ImageSource::setMaxTextureSizeQuery([] { return 512; });
    EXPECT_EQ(ImageSource::getGPUPreferredTileSize(), Vec2i(300, 512));
    ImageSource::setMaxTextureSizeQuery(Function0<int>());
    ImageSource::setGPUPreferredTileSize(gpu);
    EXPECT_EQ(ImageSource::getCPUPreferredTileSize(), cpu);
}

// ---- regions ----

TEST(ImageSource, CreateTileFromRegionOfOneTileIsThatTile) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    SharedPtr<const ImageTile> tile = source->getTile(1, 1, false, nullptr, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(source->createTileFromRegion(Recti(32, 32, 32, 28), false, {}), tile);
    // The same without the cache: the computed tile, not a copy of it.
    auto uncached = GradientSource::create({100, 60}, {32, 32});
    uncached->enableCaching(false);
    SharedPtr<const ImageTile> edge = uncached->createTileFromRegion(Recti(96, 0, 4, 32), false, {});
    ASSERT_TRUE(edge);
    EXPECT_EQ(edge->size(), Vec2i(4, 32));
    EXPECT_EQ(uncached->computedTotal(), 1);
}

TEST(ImageSource, CreateTileFromRegionAssemblesAcrossTiles) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    const Recti rect(20, 10, 70, 45);
    SharedPtr<const ImageTile> tile = source->createTileFromRegion(rect, false, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(gradientMismatches(*tile, rect), 0);
    EXPECT_EQ(source->computedTotal(), 6);
    // Cached under its rectangle: asked again, it is the same tile.
    EXPECT_EQ(source->createTileFromRegion(rect, false, {}), tile);
}

TEST(ImageSource, MirroredRegionBeyondTheEdges) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    // Ten pixels left of the image: the first ten columns, mirrored.
    const Recti left(-10, 5, 10, 20);
    SharedPtr<const ImageTile> tile = source->createTileFromRegion(left, true, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(gradientMismatches(*tile, [](int x, int y) { return Vec2i(9 - x, 5 + y); }),
              0);
    // Across the bottom-right corner: inside, beyond the right, below, and beyond both.
    const Recti corner(90, 50, 25, 20);
    tile = source->createTileFromRegion(corner, true, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(gradientMismatches(*tile,
                                 [&](int x, int y) {
                                     return Vec2i(mirror(corner.xmin() + x, 100),
                                                           mirror(corner.ymin() + y, 60));
                                 }),
              0);
    // Wholly beyond the top-left corner.
    const Recti outside(-40, -30, 35, 25);
    tile = source->createTileFromRegion(outside, true, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(gradientMismatches(*tile,
                                 [&](int x, int y) {
                                     return Vec2i(mirror(outside.xmin() + x, 100),
                                                           mirror(outside.ymin() + y, 60));
                                 }),
              0);
}

TEST(ImageSource, CancelledRegionIsNullAndLogged) {
    CacheGuard cache;
    auto source = GradientSource::create({64, 64}, {32, 32});
    Gate gate;
    source->onCompute = [&](unsigned int, unsigned int) { gate.wait(); };
    LogCapture log;
    SharedPtr<RequestHandle> handle;
    SharedPtr<const ImageTile> tile = source->createTileFromRegion(
        Recti(10, 10, 40, 40), false, [&](const SharedPtr<RequestHandle>& h) {
            handle = h;
            h->cancel();
        });
    gate.open();
    EXPECT_FALSE(tile);
    EXPECT_TRUE(log.contains("ImageSource::createTileFromRegion() was cancelled!, return NULL tile!"));
    ASSERT_TRUE(handle);
    EXPECT_TRUE(handle->cancelled());
    // The jobs that had started finish; the request then goes.
    const auto deadline = Clock::now() + kPatience;
    while (handle->source() && Clock::now() < deadline) std::this_thread::yield();
    EXPECT_FALSE(handle->source());
}

// ---- Image ----

TEST(Image, SubImageTilesAreTheSourceTilesUnderIt) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    auto whole = Image::create(source);
    EXPECT_EQ(whole->sourceStartTile(), TileIndex(0, 0));
    EXPECT_EQ(whole->tileColumns(), 4);
    EXPECT_TRUE(whole->isTiled());

    // From x = 40 to the right edge, y = 10 to 50: it starts inside source tile (1, 0).
    auto sub = whole->getSubImage(Recti(40, 10, 60, 40));
    EXPECT_EQ(sub->size(), Vec2i(60, 40));
    EXPECT_EQ(sub->sourceStartTile(), TileIndex(1, 0));
    EXPECT_EQ(sub->tileColumns(), 3);
    EXPECT_EQ(sub->tileRows(), 2);
    EXPECT_EQ(sub->getTileRect(0, 0), Recti(Vec2i(-8, -10), Vec2i(24, 22)));
    EXPECT_EQ(sub->getTileRect(1, 1), Recti(Vec2i(24, 22), Vec2i(56, 50)));
    // The last column is the source's last, 4 pixels wide.
    EXPECT_EQ(sub->getTileRect(2, 0), Recti(Vec2i(56, -10), Vec2i(60, 22)));

    ImageSource::VersionArray versions;
    ImageSource::TileArray tiles = sub->getTiles({{0, 0}, {2, 1}}, false, &versions, {});
    ASSERT_EQ(tiles.columns(), 3);
    ASSERT_EQ(tiles.rows(), 2);
    ASSERT_TRUE(tiles(0, 0));
    ASSERT_TRUE(tiles(2, 1));
    EXPECT_FALSE(tiles(1, 0));
    EXPECT_EQ(gradientMismatches(*tiles(0, 0), Recti(32, 0, 32, 32)), 0);
    EXPECT_EQ(gradientMismatches(*tiles(2, 1), Recti(96, 32, 4, 28)), 0);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            if (tiles(x, y)) {
                EXPECT_EQ(tiles(x, y)->size(), sub->getTileRect(x, y).size());
                EXPECT_EQ(versions(x, y), 0u);
            }
    EXPECT_EQ(sub->getTile(2, 1, false, nullptr, {}), tiles(2, 1));

    // Regions and sub-images of the sub-image are relative to it.
    SharedPtr<const ImageTile> region = sub->getRectAsTile(Recti(5, 5, 20, 30), false);
    ASSERT_TRUE(region);
    EXPECT_EQ(gradientMismatches(*region, Recti(45, 15, 20, 30)), 0);
    auto subsub = sub->getSubImage(Recti(30, 20, 30, 20));
    EXPECT_EQ(subsub->subrect(), Recti(70, 30, 30, 20));
    EXPECT_EQ(subsub->sourceStartTile(), TileIndex(2, 0));
    SharedPtr<const ImageTile> all = subsub->getAsTile();
    ASSERT_TRUE(all);
    EXPECT_EQ(gradientMismatches(*all, Recti(70, 30, 30, 20)), 0);
    auto tileImage = sub->getTileImage(0, 0);
    EXPECT_EQ(tileImage->subrect(), Recti(40, 10, 24, 22));
}

TEST(Image, SubImageOutsideItsParentIsLogged) {
    auto image = Image::create(GradientSource::create({100, 60}, {32, 32}));
    LogCapture log;
    image->getSubImage(Recti(50, 0, 60, 10));
    EXPECT_EQ(log.assertions("rect.xmax() <= _subrect.width()"), 1u);
    image->getSubImage(Recti(0, -1, 10, 10));
    EXPECT_EQ(log.assertions("rect.ymin() >= 0"), 1u);
    bool released = false;
    image->getSubImage(Recti(0, 0, 10, 10), [&] { released = true; });
    EXPECT_TRUE(released) << "the release function runs when the sub-image goes";
}

// ---- the GL thread ----

// A job that computes a gradient tile on the GL thread.
class GLTileJob : public ImageSourceJob {
public:
    GLTileJob() : ImageSourceJob("GLTile") {}
    int compare(const thread::DependentJob& other) const override {
        if (int c = compareBase(other)) return c;
        const TileIndex& o = static_cast<const GLTileJob&>(other).pos;
        return pos < o ? -1 : (o < pos ? 1 : 0);
    }
    thread::DependentJob* dup() const override { return new GLTileJob(*this); }
    thread::JobType precondition() override { return thread::JtGLThread; }
    void compute() override {
        ranOn = std::this_thread::get_id();
        result = make();
    }

    TileIndex pos;
    Function0<SharedPtr<const ImageTile>> make;
    SharedPtr<const ImageTile> result;
    std::thread::id ranOn;
};

// A gradient whose tiles are computed by GL jobs.
class GLGradientSource : public GradientSource {
public:
    static SharedPtr<GLGradientSource> create(GenVec<int, 2> size, GenVec<int, 2> tileSize) {
        auto* source = new GLGradientSource(size, tileSize);
        return std::static_pointer_cast<GLGradientSource>(source->setupSelfRef());
    }

    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override {
        static const FastString<char> name("GLGradientSource");
        const Recti rect = getTileRect(int(x), int(y));
        if (TileGetter cached = checkCachedTileUnlocked(jobs, merger, rect, name)) return cached;
        SharedPtr<TileNotifyJob> notify;
        TileGetter existing =
            createNotifyJobUnlocked(jobs, merger, &notify, TileIndex(int(x), int(y)), rect, name);
        if (!notify) return existing;
        auto job = std::make_shared<GLTileJob>();
        job->targetImage = selfRef();
        job->version = version();
        job->pos = TileIndex(int(x), int(y));
        job->make = [this, x, y] { return computeTileData(x, y); };
        auto merged = std::static_pointer_cast<GLTileJob>(merger.merge(job));
        {
            std::lock_guard<std::mutex> lock(jobsMutex);
            glJobs.push_back(merged);
        }
        return mergeWithNotifyJobUnlocked(jobs, merger, notify, merged,
                                          [merged] { return merged->result; });
    }

    std::mutex jobsMutex;
    std::vector<SharedPtr<GLTileJob>> glJobs;  // guarded by jobsMutex

private:
    GLGradientSource(GenVec<int, 2> size, GenVec<int, 2> tileSize)
        : GradientSource(size, tileSize, true) {}
};

TEST(ImageSource, GetTilesOnTheGLThreadRunsTheGLJobsItWaitsFor) {
    CacheGuard cache;
    auto source = GLGradientSource::create({64, 64}, {32, 32});
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    std::thread::id glId;
    ImageSource::TileArray tiles;
    std::atomic<bool> done{false};
    SharedPtr<RequestHandle> handle;
    std::mutex handleMutex;
    // The GL thread is process-wide and cannot be unset: a thread of this test takes the role,
    // and the test's main thread takes it back at the end, since it is the thread that would have
    // become the GL thread by calling processGLJobs first.
    std::thread gl([&] {
        dispatcher.setGLThread();
        glId = std::this_thread::get_id();
        tiles = source->getTiles(allTiles({2, 2}), false, nullptr,
                                 [&](const SharedPtr<RequestHandle>& h) {
                                     std::lock_guard<std::mutex> lock(handleMutex);
                                     handle = h;
                                 });
        done = true;
    });
    // A watchdog: if the GL jobs never run, the request is cancelled and the test fails.
    const auto deadline = Clock::now() + kPatience;
    while (!done && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!done) {
        std::lock_guard<std::mutex> lock(handleMutex);
        if (handle) handle->cancel();
    }
    gl.join();
    dispatcher.setGLThread();

    EXPECT_TRUE(done);
    std::vector<SharedPtr<GLTileJob>> jobs;
    {
        // The jobs hold the source: the list goes before the test ends.
        std::lock_guard<std::mutex> lock(source->jobsMutex);
        jobs.swap(source->glJobs);
    }
    ASSERT_EQ(jobs.size(), 4u);
    for (const SharedPtr<GLTileJob>& job : jobs) EXPECT_EQ(job->ranOn, glId);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 2; ++x) {
            ASSERT_TRUE(tiles(x, y));
            EXPECT_EQ(gradientMismatches(*tiles(x, y), Recti(32 * x, 32 * y, 32, 32)), 0);
        }
}

}  // namespace
}  // namespace qor::imaging
