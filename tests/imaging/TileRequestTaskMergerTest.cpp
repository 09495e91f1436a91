#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "PipelineTestSources.h"
#include "base/Log.h"
#include "base/thread/DFSOrderScoreFunction.h"
#include "imaging/Image.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/TileRequestTaskMerger.h"
#include "imaging/TileScoreFunctions.h"

namespace qor::imaging {
namespace {

using namespace pipelinetest;
using thread::DependentJob;
using JobPtr = SharedPtr<DependentJob>;
using TileIndex = ImageSource::TileIndex;
using Handle = TileRequestTaskMerger::Handle;

SharedPtr<thread::JobScoreFunction> dfsOrder() {
    return std::make_shared<thread::DFSOrderScoreFunction>();
}

// A 4 by 4 tile gradient whose tile (3, 3) can hold the source's request queue: a request for it
// stays in its computation until release() is called, so requests made meanwhile stay pending.
class MergerTest : public ::testing::Test {
protected:
    void SetUp() override {
        source = GradientSource::create({128, 128}, {32, 32});
        source->onCompute = [this](unsigned int x, unsigned int y) {
            if (x == 3 && y == 3) {
                _busyEntered.open();
                _busyRelease.wait();
            } else if (hold) {
                hold(x, y);
            }
        };
    }
    void TearDown() override {
        _busyRelease.open();
        if (_busyHandle) waitFinished(_busyHandle);
    }

    // Makes the source busy with a started request; true once its job runs.
    bool occupy() {
        _busyHandle = source->requestTiles({{3, 3}}, dfsOrder(), _busyRecorder.callback(), true, {});
        return _busyEntered.wait();
    }
    void release() { _busyRelease.open(); }

    SharedPtr<RequestHandle> request(const ImageSource::TileSet& tiles, Recorder& recorder,
                                     const SharedPtr<thread::JobScoreFunction>& score = dfsOrder()) {
        return source->requestTiles(tiles, score, recorder.callback(), true, {});
    }

    static bool waitFinished(const SharedPtr<RequestHandle>& handle) {
        const auto deadline = Clock::now() + kPatience;
        while (!(handle->finished() && !handle->source())) {
            if (Clock::now() > deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // Every tile of `recorder` is the gradient at its place.
    void expectCorrectTiles(Recorder& recorder) {
        for (const ComputedTileInfo& r : recorder.tiles()) {
            EXPECT_EQ(r.status, ComputedTileInfo::Success);
            EXPECT_EQ(r.source, source);
            ASSERT_TRUE(r.tile);
            EXPECT_EQ(gradientMismatches(*r.tile, source->getTileRect(r.pos.x, r.pos.y)), 0);
        }
    }

    SharedPtr<GradientSource> source;
    Function2<void, unsigned int, unsigned int> hold;  // for tiles other than (3, 3)
    Recorder _busyRecorder;

private:
    Gate _busyEntered, _busyRelease;
    SharedPtr<RequestHandle> _busyHandle;
};

const ImageSource::TileSet kSquare = {{0, 0}, {1, 0}, {0, 1}, {1, 1}};

std::map<TileIndex, int> eachOnce(const ImageSource::TileSet& tiles) {
    std::map<TileIndex, int> out;
    for (const TileIndex& t : tiles) out[t] = 1;
    return out;
}

void expectEnd(Recorder& recorder, ComputedTileInfo::Status status) {
    std::vector<ComputedTileInfo> ends = recorder.ends();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].status, status);
    EXPECT_EQ(recorder.afterEnd(), 0);
}

// ---- merging ----

TEST_F(MergerTest, IdenticalPendingRequestsShareOneTask) {
    CacheGuard cache;
    source->enableCaching(false);  // a second task would compute every tile again
    std::atomic<int> graphs{0};
    ScopedConnection counter = ImageSource::Debug_OnStartProcessingSource().connect(
        [&](const SharedPtr<ImageSource>& s, const ImageSource::JobSet&) { graphs += s == source; });
    ASSERT_TRUE(occupy());

    Recorder first, second;
    std::mutex progressMutex;  // tiles finish on several workers
    std::vector<double> progress;
    SharedPtr<RequestHandle> h1 = request(kSquare, first);
    SharedPtr<RequestHandle> h2 = source->requestTiles(
        kSquare, std::make_shared<LineOrderScoreFunction>(), second.callback(), true,
        [&](double p) {
            std::lock_guard<std::mutex> lock(progressMutex);
            progress.push_back(p);
        });
    EXPECT_NE(h1, h2);
    auto handle2 = dynamic_ptr_cast<Handle>(h2);
    ASSERT_TRUE(handle2);
    EXPECT_TRUE(handle2->isSameRequest(source, kSquare, 0));
    EXPECT_FALSE(handle2->isSameRequest(source, {{0, 0}}, 0));
    EXPECT_FALSE(h1->finished());
    EXPECT_EQ(h1->source(), source);

    release();
    ASSERT_TRUE(first.waitEnded());
    ASSERT_TRUE(second.waitEnded());
    for (Recorder* r : {&first, &second}) {
        EXPECT_EQ(r->tileCounts(), eachOnce(kSquare));
        expectEnd(*r, ComputedTileInfo::Success);
        expectCorrectTiles(*r);
    }
    for (const TileIndex& t : kSquare) EXPECT_EQ(source->computedCount(t.x, t.y), 1);
    EXPECT_EQ(graphs.load(), 2) << "the busy request and the merged one";
    std::lock_guard<std::mutex> lock(progressMutex);
    ASSERT_EQ(progress.size(), kSquare.size());
    for (double p : progress) EXPECT_TRUE(p > 0.0 && p <= 1.0) << p;
    EXPECT_TRUE(waitFinished(h1));
    EXPECT_TRUE(h2->finished());
}

TEST_F(MergerTest, SameRequestAfterTheFirstStartedRunsAgainFromTheCache) {
    CacheGuard cache;
    Gate entered, go;
    hold = [&](unsigned int, unsigned int) {
        entered.open();
        go.wait();
    };
    Recorder first, second;
    request(kSquare, first);
    ASSERT_TRUE(entered.wait()) << "the first request has started";
    std::atomic<int> graphs{0};
    ScopedConnection counter = ImageSource::Debug_OnStartProcessingSource().connect(
        [&](const SharedPtr<ImageSource>& s, const ImageSource::JobSet&) { graphs += s == source; });
    request(kSquare, second);
    go.open();
    ASSERT_TRUE(first.waitEnded());
    ASSERT_TRUE(second.waitEnded());
    EXPECT_EQ(second.tileCounts(), eachOnce(kSquare));
    expectEnd(second, ComputedTileInfo::Success);
    for (const TileIndex& t : kSquare) EXPECT_EQ(source->computedCount(t.x, t.y), 1);
    EXPECT_EQ(graphs.load(), 0) << "the second task builds no job: every tile is cached";
    std::map<TileIndex, SharedPtr<const ImageTile>> firstTiles;
    for (const ComputedTileInfo& r : first.tiles()) firstTiles[r.pos] = r.tile;
    for (const ComputedTileInfo& r : second.tiles()) EXPECT_EQ(r.tile, firstTiles[r.pos]);
}

// Answers the tiles of column 0 from memory while the graph is built: a getter with no job.
class MemoryColumnSource : public GradientSource {
public:
    static SharedPtr<MemoryColumnSource> create() {
        auto* source = new MemoryColumnSource();
        return std::static_pointer_cast<MemoryColumnSource>(source->setupSelfRef());
    }
    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override {
        if (x != 0) return GradientSource::computeJobsUnlocked(x, y, jobs, merger);
        SharedPtr<const ImageTile> tile = computeTileData(x, y);
        return [tile] { return tile; };
    }

protected:
    MemoryColumnSource() : GradientSource({128, 128}, {32, 32}, true) {}
};

TEST(TileRequestTaskMerger, TilesAnsweredWithoutAJobAreDeliveredOnceWithTheOthers) {
    CacheGuard cache;
    SharedPtr<MemoryColumnSource> source = MemoryColumnSource::create();
    Recorder recorder;
    source->requestTiles(kSquare, dfsOrder(), recorder.callback(), true, {});
    ASSERT_TRUE(recorder.waitEnded());
    EXPECT_EQ(recorder.tileCounts(), eachOnce(kSquare));
    expectEnd(recorder, ComputedTileInfo::Success);
    for (const ComputedTileInfo& r : recorder.tiles()) {
        ASSERT_TRUE(r.tile);
        EXPECT_EQ(gradientMismatches(*r.tile, source->getTileRect(r.pos.x, r.pos.y)), 0);
    }
}

// Loses its last column after the request's cache look-up and before its job graph is built, as a
// source does when it changes its layout on a switch between processor and graphics card. Its
// column 0 is answered from memory, with no job.
class ShrinkingSource : public MemoryColumnSource {
public:
    static SharedPtr<ShrinkingSource> create() {
        auto* source = new ShrinkingSource();
        return std::static_pointer_cast<ShrinkingSource>(source->setupSelfRef());
    }
    TileLayout tileLayout() const override {
        const GenVec<int, 2> size(_shrunk ? 96 : 128, 128);
        return TileLayout(size, GenVec<int, 2>(32, 32), GenVec<int, 2>(0, 0), size);
    }
    using MemoryColumnSource::getTiles;
    // The request's look-up of its cached tiles is the last moment with the full layout.
    void getTiles(TileArray& out, const TileSet& tiles, bool cachedOnly, VersionArray* versions,
                  const OnRequest& onRequest) override {
        MemoryColumnSource::getTiles(out, tiles, cachedOnly, versions, onRequest);
        if (cachedOnly) _shrunk = true;
    }

private:
    std::atomic<bool> _shrunk{false};
};

TEST(TileRequestTaskMerger, AnIndexDroppedWhileBuildingKeepsTheOtherTilesInPlace) {
    CacheGuard cache;
    SharedPtr<ShrinkingSource> source = ShrinkingSource::create();
    LogCapture log;
    ImageSource::TileSet wanted = {{0, 0}, {1, 0}, {3, 0}};
    ImageSource::TileArray tiles = source->getTiles(wanted, false, nullptr, {});
    EXPECT_EQ(log.assertions("false"), 1u);
    EXPECT_TRUE(log.contains("Ignoring out of bounds tile (3,0) (most likely due to GPU/CPU "
                             "switching)"));
    ASSERT_GE(tiles.columns(), 2);
    ASSERT_TRUE(tiles(0, 0)) << "the tile answered from memory arrives at its own place";
    ASSERT_TRUE(tiles(1, 0));
    EXPECT_EQ(gradientMismatches(*tiles(0, 0), Recti(0, 0, 32, 32)), 0);
    EXPECT_EQ(gradientMismatches(*tiles(1, 0), Recti(32, 0, 32, 32)), 0);
}

TEST_F(MergerTest, TilesFromTheCacheReachTheProgressCallbackToo) {
    CacheGuard cache;
    Recorder warm;
    request(kSquare, warm);
    ASSERT_TRUE(warm.waitEnded());
    Recorder again;
    std::mutex mutex;
    std::vector<double> progress;
    source->requestTiles(kSquare, dfsOrder(), again.callback(), true, [&](double p) {
        std::lock_guard<std::mutex> lock(mutex);
        progress.push_back(p);
    });
    ASSERT_TRUE(again.waitEnded());
    EXPECT_EQ(again.tileCounts(), eachOnce(kSquare));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(progress, (std::vector<double>{0.25, 0.5, 0.75, 1.0}));
}

// ---- cancelling ----

TEST_F(MergerTest, CancellingOneOfTwoMergedHandlesLeavesTheOther) {
    ASSERT_TRUE(occupy());
    Recorder first, second;
    SharedPtr<RequestHandle> h1 = request(kSquare, first);
    SharedPtr<RequestHandle> h2 = request(kSquare, second);
    h1->cancel();
    // A second cancel of the same handle found it gone from its task: "Apparently there is a
    // race concerning the handles in a Task!".
    h1->cancel();
    EXPECT_TRUE(h1->cancelled());
    EXPECT_FALSE(h2->cancelled());
    std::vector<ComputedTileInfo> records = first.records();
    ASSERT_EQ(records.size(), 1u) << "the cancelled record comes at once";
    EXPECT_EQ(records[0].type, ComputedTileInfo::RequestEnded);
    EXPECT_EQ(records[0].status, ComputedTileInfo::Cancelled);
    EXPECT_EQ(records[0].pos, TileIndex(-1, -1));
    EXPECT_EQ(records[0].source, source);

    release();
    ASSERT_TRUE(second.waitEnded());
    EXPECT_EQ(second.tileCounts(), eachOnce(kSquare));
    expectEnd(second, ComputedTileInfo::Success);
    expectCorrectTiles(second);
    EXPECT_TRUE(waitFinished(h2));
    EXPECT_EQ(first.records().size(), 1u) << "nothing after the cancellation";
}

TEST_F(MergerTest, RequestAfterACancelledPendingOneIsServed) {
    ASSERT_TRUE(occupy());
    Recorder gone, fresh;
    request(kSquare, gone)->cancel();
    SharedPtr<RequestHandle> h = request(kSquare, fresh);
    release();
    ASSERT_TRUE(fresh.waitEnded()) << "the request joined a task that nobody wanted any more";
    EXPECT_EQ(fresh.tileCounts(), eachOnce(kSquare));
    expectEnd(fresh, ComputedTileInfo::Success);
    expectEnd(gone, ComputedTileInfo::Cancelled);
    EXPECT_TRUE(gone.tiles().empty());
}

TEST_F(MergerTest, CancelInsideATileCallbackIsDeferredToTheEndOfThatDelivery) {
    // Tile (0, 0) is computed at once; the other three wait until the cancellation is over.
    Gate later;
    hold = [&](unsigned int x, unsigned int y) {
        if (x != 0 || y != 0) later.wait();
    };
    std::mutex handleMutex;
    SharedPtr<RequestHandle> h1;
    Recorder first, second;
    std::atomic<bool> endedInsideCallback{false}, cancelled{false};
    std::atomic<int> callsAfterCancel{0};
    auto callback = [&](const ComputedTileInfo& cti) {
        first.record(cti);
        if (cancelled) {
            ++callsAfterCancel;
            return;
        }
        if (cti.type != ComputedTileInfo::TileReady) return;
        SharedPtr<RequestHandle> self;
        {
            std::lock_guard<std::mutex> lock(handleMutex);
            self = h1;
        }
        cancelled = true;
        self->cancel();
        endedInsideCallback = !first.ends().empty();
    };
    ASSERT_TRUE(occupy());
    // The nearest tile to the centre runs first.
    auto centred = std::make_shared<DFSCenteredScoreFunction>(Vec2i(16, 16));
    {
        std::lock_guard<std::mutex> lock(handleMutex);
        h1 = source->requestTiles(kSquare, centred, callback, true, {});
    }
    SharedPtr<RequestHandle> h2 = request(kSquare, second);
    release();
    ASSERT_TRUE(first.waitEnded());
    later.open();
    ASSERT_TRUE(second.waitEnded());

    EXPECT_FALSE(endedInsideCallback) << "the cancellation waits until the callback returned";
    std::vector<ComputedTileInfo> records = first.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].pos, TileIndex(0, 0));
    EXPECT_EQ(records[1].type, ComputedTileInfo::RequestEnded);
    EXPECT_EQ(records[1].status, ComputedTileInfo::Cancelled);
    EXPECT_EQ(callsAfterCancel.load(), 1) << "only the cancelled record follows";
    EXPECT_EQ(second.tileCounts(), eachOnce(kSquare));
    expectEnd(second, ComputedTileInfo::Success);
}

TEST_F(MergerTest, TerminateAllTasksCancelsStartedAndPendingRequests) {
    ASSERT_TRUE(occupy());
    Recorder pending;
    request(kSquare, pending);
    source->terminateAllTasks();
    expectEnd(_busyRecorder, ComputedTileInfo::Cancelled);
    expectEnd(pending, ComputedTileInfo::Cancelled);
    release();
    // A new request afterwards is a new task and is served.
    Recorder after;
    request(kSquare, after);
    ASSERT_TRUE(after.waitEnded());
    expectEnd(after, ComputedTileInfo::Success);
    EXPECT_EQ(after.tileCounts(), eachOnce(kSquare));
    EXPECT_TRUE(_busyRecorder.tiles().empty()) << "no delivery after termination";
    EXPECT_TRUE(pending.tiles().empty());
}

// ---- outdated requests and failing callbacks ----

TEST_F(MergerTest, OutdatedRequestEndsWithOneRecordAndNoTile) {
    ASSERT_TRUE(occupy());
    Recorder outdated;
    request(kSquare, outdated);
    // The synchronous road, from another thread, with the same outcome: no tile, no exception.
    Gate requested;
    ImageSource::TileArray syncTiles;
    bool threw = true;
    std::thread caller([&] {
        try {
            syncTiles = source->getTiles({{2, 2}}, false, nullptr,
                                         [&](const SharedPtr<RequestHandle>&) { requested.open(); });
            threw = false;
        } catch (...) {
        }
    });
    ASSERT_TRUE(requested.wait());
    source->incrementVersion();
    release();
    ASSERT_TRUE(outdated.waitEnded());
    caller.join();

    std::vector<ComputedTileInfo> records = outdated.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, ComputedTileInfo::RequestEnded);
    EXPECT_EQ(records[0].status, ComputedTileInfo::Outdated);
    EXPECT_EQ(records[0].pos, TileIndex(-1, -1));
    EXPECT_EQ(records[0].source, source);
    EXPECT_FALSE(threw);
    EXPECT_FALSE(syncTiles(2, 2));
    EXPECT_EQ(source->computedCount(2, 2), 0);
}

TEST_F(MergerTest, ThrowingTileCallbackDoesNotStopDeliveryToOthers) {
    ASSERT_TRUE(occupy());
    std::atomic<int> thrownCalls{0};
    Recorder good;
    SharedPtr<RequestHandle> throwing = source->requestTiles(
        kSquare, dfsOrder(),
        [&](const ComputedTileInfo&) {
            ++thrownCalls;
            throw std::runtime_error("callback failure");
        },
        true, {});
    request(kSquare, good);
    LogCapture log;
    release();
    ASSERT_TRUE(good.waitEnded());
    ASSERT_TRUE(waitFinished(throwing));
    EXPECT_EQ(good.tileCounts(), eachOnce(kSquare));
    expectEnd(good, ComputedTileInfo::Success);
    EXPECT_EQ(thrownCalls.load(), 5) << "four tiles and the end record";
    EXPECT_EQ(log.count("tile callback threw an exception: callback failure"), 5u);
}

// ---- score functions ----

// The score each job got (lower runs first).
std::map<DependentJob*, int> scoresOf(const thread::JobScoreFunction& score,
                                      const std::set<JobPtr>& jobs) {
    thread::JobScoreFunction::ScoredJobs scored;
    score.scoreJobs(jobs, scored);
    std::map<DependentJob*, int> out;
    while (!scored.empty()) {
        out[scored.top().second.get()] = scored.top().first;
        scored.pop();
    }
    return out;
}

SharedPtr<TileNotifyJob> notifyAt(const SharedPtr<ImageSource>& source, TileIndex pos) {
    auto job = std::make_shared<TileNotifyJob>();
    job->targetImage = source;
    job->pos = pos;
    return job;
}

TEST(DFSCenteredScoreFunction, RootsByDistanceFromTheCentreDependenciesFirst) {
    // 100 pixel tiles: tile (i, j) has its centre at (50 + 100 i, 50 + 100 j).
    auto source = GradientSource::create({400, 400}, {100, 100});
    auto nearest = notifyAt(source, {0, 0});  // offset (0, 0)
    auto diagonal = notifyAt(source, {1, 1});  // offset (100, 100): distance 20000
    auto straight = notifyAt(source, {2, 0});  // offset (200, 0): distance 40000
    auto other = std::make_shared<TileComputationJob>();  // counts as (0, 0): offset (-50, -50)
    auto input = std::make_shared<TileComputationJob>();
    diagonal->addDependency(input);

    DFSCenteredScoreFunction centred(Vec2i(50, 50));
    std::map<DependentJob*, int> s = scoresOf(centred, {straight, diagonal, other, nearest});
    ASSERT_EQ(s.size(), 5u);
    EXPECT_LT(s[nearest.get()], s[other.get()]);
    EXPECT_LT(s[other.get()], s[input.get()]);
    EXPECT_LT(s[input.get()], s[diagonal.get()]) << "a root's dependencies come right before it";
    EXPECT_LT(s[diagonal.get()], s[straight.get()]);

    // Jobs that are no longer pending are not scored.
    auto done = std::make_shared<TerminatorJob>();
    thread::DependentJobExecutor executor;
    executor.process(nullptr, {done}, {});
    EXPECT_EQ(scoresOf(centred, {done, nearest}).count(done.get()), 0u);
}

TEST(LineOrderScoreFunction, RowsTopFirstAndOtherJobsLast) {
    auto source = GradientSource::create({400, 400}, {100, 100});
    auto row2 = notifyAt(source, {0, 2});
    auto row0 = notifyAt(source, {3, 0});
    auto row1 = notifyAt(source, {1, 1});
    auto other = std::make_shared<TileComputationJob>();
    LineOrderScoreFunction lines;
    std::map<DependentJob*, int> s = scoresOf(lines, {row2, other, row1, row0});
    EXPECT_LT(s[row0.get()], s[row1.get()]);
    EXPECT_LT(s[row1.get()], s[row2.get()]);
    EXPECT_LT(s[row2.get()], s[other.get()]);
}

TEST(GeneralCenteredDFSScoreFunction, ScoresThePathToTheTargetSourceThenTargetsByDistance) {
    auto below = GradientSource::create({400, 400}, {100, 100});
    auto above = GradientSource::create({400, 400}, {100, 100});
    // A tile of `above` built from three tiles of `below`, each with its computation.
    auto top = notifyAt(above, {0, 0});
    auto assembly = std::make_shared<TileAssemblyJob>();
    top->addDependency(assembly);
    auto farTarget = notifyAt(below, {3, 0});
    auto midTarget = notifyAt(below, {1, 1});
    auto nearTarget = notifyAt(below, {0, 0});
    std::map<DependentJob*, JobPtr> computations;
    for (const SharedPtr<TileNotifyJob>& target : {farTarget, midTarget, nearTarget}) {
        auto comp = std::make_shared<TileComputationJob>();
        target->addDependency(comp);
        computations[target.get()] = comp;
        assembly->addDependency(target);
    }

    GeneralCenteredDFSScoreFunction general(below, Vec2i(50, 50));
    std::map<DependentJob*, int> s = scoresOf(general, {top});
    ASSERT_EQ(s.size(), 8u);
    // The way down comes first, from the top.
    EXPECT_EQ(s[top.get()], 1);
    EXPECT_EQ(s[assembly.get()], 2);
    // Then each target after its own computation, nearest the centre first.
    auto comp = [&](const SharedPtr<TileNotifyJob>& t) { return s[computations[t.get()].get()]; };
    EXPECT_LT(comp(nearTarget), s[nearTarget.get()]);
    EXPECT_LT(s[nearTarget.get()], comp(midTarget));
    EXPECT_LT(comp(midTarget), s[midTarget.get()]);
    EXPECT_LT(s[midTarget.get()], comp(farTarget));
    EXPECT_LT(comp(farTarget), s[farTarget.get()]);

    // A target given as a root is ordered the same way.
    std::map<DependentJob*, int> roots = scoresOf(general, {farTarget, nearTarget});
    EXPECT_LT(roots[nearTarget.get()], roots[farTarget.get()]);
}

// ---- many callers ----

// Several threads ask one source for overlapping tiles, synchronously and asynchronously, cancel
// some of their requests (also from inside callbacks), change the version and the caching, and
// terminate everything now and then; every tile that arrives is checked pixel by pixel, and every
// asynchronous request ends exactly once.
TEST(TileRequestTaskMergerThreads, OverlappingRequestsWithCancelsAndVersionChanges) {
    CacheGuard cache;
    auto source = GradientSource::create({128, 128}, {16, 16});
    const TileLayout layout = source->tileLayout();
    auto image = Image::create(source);
    constexpr int kThreads = 6;
    constexpr int kSteps = 40;

    struct Async {
        SharedPtr<Recorder> recorder;
        SharedPtr<RequestHandle> handle;
        ImageSource::TileSet tiles;
        std::shared_ptr<void> handleBox;  // keeps the handle for a cancel from the callback
    };
    std::mutex asyncMutex;
    std::vector<Async> asyncs;
    std::atomic<int> badPixels{0}, tilesSeen{0}, syncCalls{0};

    auto checkTile = [&](const SharedPtr<const ImageTile>& tile, TileIndex pos) {
        if (!tile) return;
        ++tilesSeen;
        badPixels += gradientMismatches(*tile, layout.getTileRect(pos.x, pos.y));
    };

    auto worker = [&](unsigned seed) {
        std::mt19937 rng(seed);
        auto pick = [&](int n) { return int(rng() % unsigned(n)); };
        for (int step = 0; step < kSteps; ++step) {
            // Often one of four blocks, so that identical requests meet and merge; otherwise a
            // few neighbouring tiles, so that requests overlap.
            ImageSource::TileSet tiles;
            if (pick(2) == 0) {
                const TileIndex at(2 * pick(2), 2 * pick(2));
                for (const TileIndex& t : kSquare) tiles.insert(at + t);
            } else {
                const TileIndex at(pick(6), pick(6));
                for (int k = 1 + pick(4); k > 0; --k) tiles.insert(at + TileIndex(pick(3), pick(3)));
            }
            const int what = pick(20);
            if (what < 7) {
                ++syncCalls;
                const bool cancel = pick(4) == 0;
                ImageSource::TileArray out = source->getTiles(
                    tiles, false, nullptr, [cancel](const SharedPtr<RequestHandle>& h) {
                        if (cancel) h->cancel();
                    });
                for (const TileIndex& t : tiles) checkTile(out(t.x, t.y), t);
            } else if (what < 9) {
                ImageSource::VersionArray versions;
                ImageSource::TileArray out = source->getTiles(tiles, true, &versions, {});
                for (const TileIndex& t : tiles) checkTile(out(t.x, t.y), t);
            } else if (what < 15) {
                auto recorder = std::make_shared<Recorder>();
                auto handleBox = std::make_shared<std::pair<std::mutex, SharedPtr<RequestHandle>>>();
                const bool cancelInside = pick(3) == 0;
                std::lock_guard<std::mutex> boxLock(handleBox->first);
                SharedPtr<RequestHandle> handle = source->requestTiles(
                    tiles, std::make_shared<DFSCenteredScoreFunction>(Vec2i(64, 64)),
                    // The box holds the handle, which holds this callback: only a weak link back.
                    [recorder, box = std::weak_ptr(handleBox), cancelInside](
                        const ComputedTileInfo& cti) {
                        recorder->record(cti);
                        auto handleBox = box.lock();
                        if (handleBox && cancelInside && cti.type == ComputedTileInfo::TileReady) {
                            std::lock_guard<std::mutex> lock(handleBox->first);
                            if (handleBox->second) handleBox->second->cancel();
                        }
                    },
                    true, {});
                handleBox->second = handle;
                if (pick(4) == 0) handle->cancel();
                std::lock_guard<std::mutex> lock(asyncMutex);
                asyncs.push_back({recorder, handle, tiles, handleBox});
            } else if (what < 17) {
                const Recti rect(pick(160) - 16, pick(160) - 16, 1 + pick(40), 1 + pick(40));
                SharedPtr<const ImageTile> tile = image->getRectAsTile(rect, true);
                if (tile) {
                    ++tilesSeen;
                    badPixels += gradientMismatches(*tile, [&](int x, int y) {
                        auto m = [](int v, int n) {
                            return v < 0 ? -1 - v : (v >= n ? 2 * n - 1 - v : v);
                        };
                        return TileIndex(m(rect.xmin() + x, 128), m(rect.ymin() + y, 128));
                    });
                }
            } else if (what < 19) {
                source->incrementVersion();
            } else if (pick(3) == 0) {
                source->terminateAllTasks();
            } else {
                source->enableCaching(pick(2) == 0);
            }
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(worker, 1234u + unsigned(i));
    for (std::thread& t : threads) t.join();

    std::lock_guard<std::mutex> lock(asyncMutex);
    int ended = 0;
    for (Async& a : asyncs) {
        ASSERT_TRUE(a.recorder->waitEnded());
        ++ended;
        std::vector<ComputedTileInfo> ends = a.recorder->ends();
        EXPECT_EQ(ends.size(), 1u);
        EXPECT_EQ(a.recorder->afterEnd(), 0);
        for (const auto& [pos, count] : a.recorder->tileCounts()) {
            EXPECT_EQ(count, 1) << "tile delivered twice to one handle";
            EXPECT_TRUE(a.tiles.count(pos)) << "a tile not asked for";
        }
        for (const ComputedTileInfo& r : a.recorder->tiles()) checkTile(r.tile, r.pos);
        if (ends.size() == 1 && ends[0].status == ComputedTileInfo::Success) {
            EXPECT_EQ(a.recorder->tiles().size(), a.tiles.size());
        }
    }
    EXPECT_EQ(badPixels.load(), 0);
    EXPECT_GT(tilesSeen.load(), 0);
    EXPECT_GT(syncCalls.load(), 0);
    EXPECT_EQ(ended, int(asyncs.size()));
}

}  // namespace
}  // namespace qor::imaging
