#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PipelineTestSources.h"
#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "base/thread/DependentJobMerger.h"
#include "imaging/Image.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/ScaledImageSource.h"
#include "imaging/TileScoreFunctions.h"

namespace qor::imaging {
namespace {

using namespace pipelinetest;
using thread::DependentJobMerger;

std::string pointerText(const void* p) {
    std::ostringstream out;
    out << p;
    return out.str();
}

// ---- failures ----

struct FailureCase {
    const char* name;
    Function0<void> raise;  // nothing: computeTileData returns null
    ImagingException::Type type;
    std::string message;
    const char* words;
};

class ImageSourceJobFailure : public ::testing::TestWithParam<int> {};

std::vector<FailureCase> failureCases() {
    return {
        {"ImagingException", [] { throw ImagingException(ImagingException::TypeGPU, "gpu lost"); },
         ImagingException::TypeGPU, "gpu lost", "GPU error"},
        {"bad_alloc", [] { throw std::bad_alloc(); }, ImagingException::TypeOutOfMemory,
         std::bad_alloc().what(), "Out of memory"},
        {"ImageLoaderException", [] { throw imageio::ImageLoaderException("cannot read"); },
         ImagingException::TypeIO, "cannot read", "IO"},
        {"RenderTargetException", [] { throw gpu::RenderTargetException("no target"); },
         ImagingException::TypeRendering, "no target", "Rendering error"},
        {"Exception", [] { throw Exception("plain failure"); }, ImagingException::TypeUnknown,
         "plain failure", "Unknown"},
        {"std_exception", [] { throw std::runtime_error("standard failure"); },
         ImagingException::TypeUnknown, "standard failure", "Unknown"},
        {"int", [] { throw 42; }, ImagingException::TypeUnknown,
         "exception handling on the elipsis ...", "Unknown"},
        {"null_result", Function0<void>(), ImagingException::TypeUnknown,
         "TileComputationJob::compute() invalid result tile!", "Unknown"},
    };
}

// Whatever a computation throws reaches the caller of getTiles as an ImagingException of the
// mapped type, is logged with the type's words, and is announced through OnException.
TEST_P(ImageSourceJobFailure, ReachesTheCallerAsItsImagingExceptionType) {
    const FailureCase c = failureCases()[size_t(GetParam())];
    CacheGuard cache;
    auto source = GradientSource::create({64, 32}, {32, 32});
    if (c.raise)
        source->onCompute = [raise = c.raise](unsigned int, unsigned int) { raise(); };
    else
        source->nullResult = true;

    std::mutex announcedMutex;
    std::vector<std::pair<ImagingException::Type, std::string>> announced;
    ScopedConnection connection = ImageSource::OnException().connect([&](const ImagingException& e) {
        std::lock_guard<std::mutex> lock(announcedMutex);
        announced.emplace_back(e.type(), e.what());
    });

    LogCapture log;
    bool thrown = false;
    SharedPtr<RequestHandle> handle;
    try {
        source->getTiles({{1, 0}}, false, nullptr,
                         [&](const SharedPtr<RequestHandle>& h) { handle = h; });
    } catch (const ImagingException& e) {
        thrown = true;
        EXPECT_EQ(e.type(), c.type) << c.name;
        EXPECT_EQ(std::string(e.what()), c.message) << c.name;
    }
    EXPECT_TRUE(thrown) << c.name;
    // The announcement follows the delivery of the end record: it is there once the request has
    // gone.
    ASSERT_TRUE(handle);
    const auto deadline = Clock::now() + kPatience;
    while (handle->source() && Clock::now() < deadline) std::this_thread::yield();
    EXPECT_TRUE(log.contains("ImageSourceJob::performComputation() exception occurred: type = '" +
                             std::string(c.words) + "' message = '" + c.message + "'."))
        << c.name;
    EXPECT_TRUE(log.contains("ImagingException caught: " + c.message)) << c.name;
    if (std::string(c.name) == "int") {
        EXPECT_EQ(log.assertions("false"), 1u);
    }
    {
        std::lock_guard<std::mutex> lock(announcedMutex);
        ASSERT_EQ(announced.size(), 1u) << c.name;
        EXPECT_EQ(announced[0].first, c.type);
        EXPECT_EQ(announced[0].second, c.message);
    }

    // The failure is not remembered: once the computation works, the tile comes.
    source->onCompute = nullptr;
    source->nullResult = false;
    SharedPtr<const ImageTile> tile = source->getTile(1, 0, false, nullptr, {});
    ASSERT_TRUE(tile);
    EXPECT_EQ(gradientMismatches(*tile, Recti(32, 0, 32, 32)), 0);
}

INSTANTIATE_TEST_SUITE_P(Throwers, ImageSourceJobFailure, ::testing::Range(0, 8),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(failureCases()[size_t(info.param)].name);
                         });

TEST(ImagingException, ClonesKeepTypeMessageAndFile) {
    ImagingException original(ImagingException::TypeIO, "unreadable", "imaging/Test.cpp");
    std::unique_ptr<Exception> copy = original.clone();
    try {
        copy->throwThis();
        FAIL() << "throwThis returned";
    } catch (const ImagingException& e) {
        EXPECT_EQ(e.type(), ImagingException::TypeIO);
        EXPECT_EQ(std::string(e.what()), "unreadable");
        EXPECT_EQ(e.file(), "imaging/Test.cpp");
    }
    EXPECT_STREQ(ImagingException::typeWords(ImagingException::TypeOutOfMemory), "Out of memory");
    EXPECT_STREQ(ImagingException::typeWords(ImagingException::Type(17)), "Unknown");
}

// ---- identities ----

SharedPtr<TileComputationJob> computationJob(const SharedPtr<ImageSource>& source,
                                             unsigned int version, GenVec<int, 2> pos) {
    auto job = std::make_shared<TileComputationJob>();
    job->targetImage = source;
    job->version = version;
    job->pos = pos;
    return job;
}

template <class J>
SharedPtr<J> notifyJob(const SharedPtr<ImageSource>& source, unsigned int version,
                       GenVec<int, 2> pos) {
    auto job = std::make_shared<J>();
    job->targetImage = source;
    job->version = version;
    job->pos = pos;
    return job;
}

// compare() is an order: antisymmetric, and 0 only with itself.
void expectDistinct(const thread::DependentJob& a, const thread::DependentJob& b) {
    const int ab = a.compare(b), ba = b.compare(a);
    EXPECT_NE(ab, 0);
    EXPECT_EQ(ab < 0, ba > 0);
}

TEST(ImageSourceJob, SameWorkMergesAndAnyDifferenceKeepsJobsApart) {
    auto source = GradientSource::create({64, 64}, {32, 32});
    auto other = GradientSource::create({64, 64}, {32, 32});
    auto a = computationJob(source, 1, {1, 0});
    DependentJobMerger merger;
    EXPECT_EQ(merger.merge(a), a);
    EXPECT_EQ(merger.merge(computationJob(source, 1, {1, 0})), a) << "same tile, same version";
    EXPECT_EQ(a->compare(*SharedPtr<thread::DependentJob>(a->dup())), 0);

    auto newer = computationJob(source, 2, {1, 0});
    EXPECT_EQ(merger.merge(newer), newer) << "versions differ: not merged";
    expectDistinct(*a, *newer);
    EXPECT_LT(a->compare(*newer), 0);
    expectDistinct(*a, *computationJob(source, 1, {0, 1}));
    expectDistinct(*a, *computationJob(other, 1, {1, 0}));

    // The class decides first: a notify and a cache job of the same tile are different work.
    auto notify = notifyJob<TileNotifyJob>(source, 1, {1, 0});
    auto cacheJob = notifyJob<TileCacheJob>(source, 1, {1, 0});
    expectDistinct(*notify, *cacheJob);
    expectDistinct(*notify, *a);
    EXPECT_EQ(notify->compare(*notifyJob<TileNotifyJob>(source, 1, {1, 0})), 0);
    EXPECT_EQ(cacheJob->compare(*notifyJob<TileCacheJob>(source, 1, {1, 0})), 0);
    expectDistinct(*cacheJob, *notifyJob<TileCacheJob>(source, 0, {1, 0}));

    auto assembly = [&](Recti rect, bool gpu) {
        auto job = std::make_shared<TileAssemblyJob>();
        job->targetImage = source;
        job->rect = rect;
        job->setDestIsGPU(gpu);
        return job;
    };
    EXPECT_EQ(assembly(Recti(0, 0, 10, 10), false)->compare(*assembly(Recti(0, 0, 10, 10), false)),
              0);
    expectDistinct(*assembly(Recti(0, 0, 10, 10), false), *assembly(Recti(0, 0, 10, 11), false));
    expectDistinct(*assembly(Recti(0, 0, 10, 10), false), *assembly(Recti(0, 0, 10, 10), true));
    EXPECT_LT(assembly(Recti(0, 0, 10, 10), false)->compare(*assembly(Recti(0, 0, 10, 10), true)), 0);

    auto transfer = [&](std::vector<GenVec<int, 2>> positions, bool gpu) {
        auto job = std::make_shared<GenericMemoryTransferJob>();
        job->targetImage = source;
        job->setDestIsGPU(gpu);
        for (const GenVec<int, 2>& p : positions)
            job->sourceTiles[p] = [] { return SharedPtr<const ImageTile>(); };
        return job;
    };
    EXPECT_EQ(transfer({{0, 0}, {1, 0}}, true)->compare(*transfer({{0, 0}, {1, 0}}, true)), 0);
    expectDistinct(*transfer({{0, 0}, {1, 0}}, true), *transfer({{0, 0}, {1, 0}}, false));
    expectDistinct(*transfer({{0, 0}, {1, 0}}, true), *transfer({{0, 0}}, true));
    expectDistinct(*transfer({{0, 0}, {1, 0}}, true), *transfer({{0, 0}, {1, 1}}, true));
}

TEST(ImageSourceJob, TerminatorsNeverMerge) {
    auto t1 = std::make_shared<TerminatorJob>();
    auto t2 = std::make_shared<TerminatorJob>();
    EXPECT_EQ(t1->compare(*t1), 0);
    expectDistinct(*t1, *t2);
    SharedPtr<thread::DependentJob> copy(t1->dup());
    expectDistinct(*t1, *copy);
    DependentJobMerger merger;
    merger.merge(t1);
    EXPECT_EQ(merger.merge(t2), t2);
    EXPECT_EQ(merger.size(), 2u);
    EXPECT_EQ(t1->precondition(), thread::JtTrivial);
}

TEST(ImageSourceJob, DescriptionsAndLabels) {
    auto source = GradientSource::create({64, 64}, {32, 32});
    const std::string ptr = pointerText(source.get());
    auto prefix = [&](const thread::DependentJob& job) {
        return "(jobId:" + std::to_string(job.id()) + ")((Maker)" + ptr + ",3)";
    };

    auto comp = computationJob(source, 3, {1, 2});
    comp->setCreatorName("Maker");
    EXPECT_EQ(std::string(comp->toString().view()), "Compute tile data: " + prefix(*comp) + " (1, 2)");
    EXPECT_EQ(std::string(comp->label().view()), "TComp");

    auto notify = notifyJob<TileNotifyJob>(source, 3, {4, 5});
    notify->setCreatorName("Maker");
    EXPECT_EQ(std::string(notify->toString().view()), "Notify tile: " + prefix(*notify) + " (4, 5)");
    EXPECT_EQ(std::string(notify->label().view()), "TNotif");

    auto cacheJob = notifyJob<TileCacheJob>(source, 3, {4, 5});
    cacheJob->setCreatorName("Maker");
    cacheJob->rect = Recti(32, 64, 16, 8);
    EXPECT_EQ(std::string(cacheJob->toString().view()),
              "Cache tile: " + prefix(*cacheJob) + " (32, 64, 16, 8)");
    EXPECT_EQ(std::string(cacheJob->label().view()), "TCache");

    auto assembly = std::make_shared<TileAssemblyJob>();
    assembly->targetImage = source;
    assembly->version = 3;
    assembly->setCreatorName("Maker");
    assembly->rect = Recti(-5, 6, 70, 80);
    assembly->setDestIsGPU(true);
    EXPECT_EQ(std::string(assembly->toString().view()),
              "Tile assembly: " + prefix(*assembly) + " (-5, 6, 70, 80) (dest mem type GPU)");
    EXPECT_EQ(std::string(assembly->label().view()), "TAsmb");

    auto transfer = std::make_shared<GenericMemoryTransferJob>();
    transfer->targetImage = source;
    transfer->version = 3;
    transfer->setCreatorName("Maker");
    EXPECT_EQ(std::string(transfer->toString().view()),
              "Generic memory transfer: " + prefix(*transfer) + " (dest mem type CPU)");
    EXPECT_EQ(std::string(transfer->label().view()), "GMTrans");

    auto terminator = std::make_shared<TerminatorJob>();
    EXPECT_EQ(std::string(terminator->toString().view()),
              "Termimator Job (jobId:" + std::to_string(terminator->id()) + ")(dummy job)");
    EXPECT_EQ(std::string(terminator->label().view()), "Term");
}

// ---- what the jobs do ----

TEST(ImageSourceJob, CacheJobNeverReplacesASameOrNewerVersion) {
    CacheGuard cache;
    auto source = GradientSource::create({64, 64}, {32, 32});
    const Recti rect(0, 0, 32, 32);
    SharedPtr<const ImageTile> held = source->getTile(1, 1, false, nullptr, {});
    SharedPtr<const ImageTile> offered = source->getTile(0, 0, false, nullptr, {});
    ASSERT_TRUE(held && offered);
    TileCache::cacheLifeTile(held, source.get(), rect, 2);

    LogCapture log;
    auto run = [&](unsigned int version) {
        auto job = notifyJob<TileCacheJob>(source, version, {0, 0});
        job->rect = rect;
        job->inputTile = [offered] { return offered; };
        EXPECT_EQ(job->memoryConsumption(), 0u);
        job->performComputation();
        EXPECT_FALSE(job->exceptionOccurred());
        EXPECT_EQ(job->getTile(), offered);
        EXPECT_EQ(job->memoryConsumption(), offered->memoryConsumption());
        unsigned int cachedVersion = 0;
        SharedPtr<const ImageTile> cached = TileCache::getLifeTile(source.get(), rect, &cachedVersion);
        return std::make_pair(cached, cachedVersion);
    };
    EXPECT_EQ(run(2), std::make_pair(held, 2u)) << "same version: kept";
    EXPECT_EQ(run(1), std::make_pair(held, 2u)) << "older version: kept";
    EXPECT_EQ(run(3), std::make_pair(offered, 3u)) << "newer version: replaced";
    EXPECT_EQ(log.assertions(), 0u);

    // A cache job without a tile fails with its own words.
    auto empty = notifyJob<TileCacheJob>(source, 4, {0, 0});
    empty->rect = rect;
    empty->inputTile = [] { return SharedPtr<const ImageTile>(); };
    empty->performComputation();
    EXPECT_TRUE(empty->exceptionOccurred());
    EXPECT_EQ(empty->exceptionType(), ImagingException::TypeUnknown);
    EXPECT_EQ(std::string(empty->exceptionMessage().view()),
              "TileCacheJob::compute() invalid input tile!");
}

// A derived source's cache jobs for its input's tiles run beside the input's own requests. With a
// look-up and an insertion locked apart, a job of an older version could replace a newer tile, and
// two jobs of one version both stored theirs ("t.version != version").
TEST(TileCacheJobThreads, JobsOfOneTileAtManyVersionsLeaveTheNewestCached) {
    CacheGuard cache;
    auto source = GradientSource::create({64, 64}, {32, 32});
    const Recti rect(0, 0, 32, 32);
    SharedPtr<const ImageTile> offered = source->getTile(0, 0, false, nullptr, {});
    ASSERT_TRUE(offered);
    constexpr int kThreads = 4, kRounds = 2000;
    // Each round, every thread runs a job of the round's version, and one of them also an older
    // one, all released at once.
    std::barrier<> start(kThreads);
    std::atomic<bool> done{false};
    std::atomic<int> wentBack{0};
    std::thread watcher([&] {
        unsigned int last = 0;
        while (!done.load()) {
            unsigned int v = 0;
            if (!TileCache::getLifeTile(source.get(), rect, &v)) continue;
            if (v < last) ++wentBack;
            last = v;
        }
    });
    auto run = [&](unsigned int version) {
        auto job = notifyJob<TileCacheJob>(source, version, {0, 0});
        job->rect = rect;
        job->inputTile = [offered] { return offered; };
        job->performComputation();
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int r = 0; r < kRounds; ++r) {
                const unsigned version = unsigned(2 * r + 10);
                start.arrive_and_wait();
                if (t == 0) run(version - 1);
                run(version);
            }
        });
    }
    for (std::thread& t : threads) t.join();
    done = true;
    watcher.join();
    EXPECT_EQ(wentBack.load(), 0) << "an older tile replaced a newer one";
    unsigned int cachedVersion = 0;
    EXPECT_TRUE(TileCache::getLifeTile(source.get(), rect, &cachedVersion));
    EXPECT_EQ(cachedVersion, unsigned(2 * (kRounds - 1) + 10));
}

TEST(ImageSourceJob, TerminatorsOrderAntisymmetricallyAgainstOtherJobs) {
    // The merger keeps jobs in an ordered set: a.compare(b) and b.compare(a) must have opposite
    // signs for every pair. Terminators compared by address alone broke that against jobs of
    // other classes whenever the address order disagreed with the class order; a terminator on
    // each side of another job, in one object, has both address orders.
    auto source = GradientSource::create({64, 64}, {32, 32});
    struct Side {
        TerminatorJob before;
        TileNotifyJob job;
        TerminatorJob after;
    } side;
    side.job.targetImage = source;
    side.job.version = 1;
    const thread::DependentJob* jobs[] = {&side.before, &side.job, &side.after};
    auto sign = [](int v) { return (v > 0) - (v < 0); };
    for (const thread::DependentJob* a : jobs)
        for (const thread::DependentJob* b : jobs) {
            EXPECT_EQ(sign(a->compare(*b)), -sign(b->compare(*a)));
            if (a != b) {
                EXPECT_NE(a->compare(*b), 0);
            }
        }
}

TEST(ImageSourceJob, NotifyJobHandsOnItsTile) {
    auto source = GradientSource::create({64, 64}, {32, 32});
    SharedPtr<const ImageTile> tile = source->getTile(1, 0, false, nullptr, {});
    auto job = notifyJob<TileNotifyJob>(source, 0, {1, 0});
    job->inputTile = [tile] { return tile; };
    job->performComputation();
    std::vector<TileFinishInterface::TileInfo> finished;
    job->getFinishedTiles(finished);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].source, source);
    EXPECT_EQ(finished[0].tile, tile);
    EXPECT_EQ(finished[0].pos, Vec2i(1, 0));
    EXPECT_EQ(job->precondition(), thread::JtWorker);
}

// Exposes the transfer type for the test.
class ProbedTransferJob : public GenericMemoryTransferJob {
public:
    TransferType transferType() const { return getTransferType(); }
};

TEST(ImageSourceJob, TransferTargetFollowsWhereTheTilesAre) {
    auto source = GradientSource::create({64, 64}, {32, 32});
    SharedPtr<const ImageTile> raw = source->getTile(0, 0, false, nullptr, {});
    ASSERT_TRUE(raw && raw->hasData<RawImageStorage>());
    ProbedTransferJob job;
    job.sourceTiles[{0, 0}] = [raw] { return raw; };

    job.setDestIsGPU(true);
    EXPECT_EQ(job.transferType(), GenericMemoryTransferJob::TransferToGPU);
    EXPECT_EQ(job.precondition(), thread::JtGLThread);
    job.setDestIsGPU(false);
    EXPECT_EQ(job.transferType(), GenericMemoryTransferJob::TransferNone);
    EXPECT_EQ(job.precondition(), thread::JtTrivial);

    // Once the tile counts as being on the card, an upload is not needed.
    GenericMemoryTransferJob::setHasTextureQuery([](const ImageTile&) { return true; });
    job.setDestIsGPU(true);
    EXPECT_EQ(job.transferType(), GenericMemoryTransferJob::TransferNone);
    GenericMemoryTransferJob::setHasTextureQuery(Function1<bool, const ImageTile&>());

    // compute hands each tile to the transfer function and keeps it.
    int transferred = 0;
    job.transferFunction = [&](const SharedPtr<const ImageTile>& t) { transferred += t == raw; };
    job.performComputation();
    EXPECT_EQ(transferred, 1);
    EXPECT_EQ(job.getTile({0, 0}), raw);
    LogCapture log;
    EXPECT_FALSE(job.getTile({5, 5}));
    EXPECT_EQ(log.assertions("it != sourceTilesCopy.end()"), 1u);
}

TEST(ImageSourceJob, AssemblyJobCopiesItsRegionFromTheSourceTiles) {
    CacheGuard cache;
    auto source = GradientSource::create({100, 60}, {32, 32});
    ImageSource::TileArray tiles = source->getTiles(allTiles({4, 2}), false, nullptr, {});
    TileAssemblyJob job;
    job.targetImage = source;
    job.layout = source->tileLayout();
    job.format = PfRGBA8;
    job.startTile = {1, 0};
    job.tileGetters.assign(3, 2, TileGetter());
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) {
            SharedPtr<const ImageTile> t = tiles(x + 1, y);
            job.tileGetters(x, y) = [t] { return t; };
        }
    job.rect = Recti(40, 20, 55, 35);
    int handedOn = 0;
    job.transferFunction = [&](const SharedPtr<const ImageTile>&) { ++handedOn; };
    EXPECT_EQ(job.precondition(), thread::JtWorker) << "processor tiles into processor memory";
    job.performComputation();
    ASSERT_FALSE(job.exceptionOccurred()) << job.exceptionMessage();
    ASSERT_TRUE(job.getResult());
    EXPECT_EQ(gradientMismatches(*job.getResult(), job.rect), 0);
    EXPECT_EQ(handedOn, 1);
    EXPECT_GT(job.memoryConsumption(), 0u);

    TileAssemblyJob gpuJob;
    gpuJob.targetImage = source;
    gpuJob.setDestIsGPU(true);
    gpuJob.tileGetters.assign(1, 1, TileGetter());
    SharedPtr<const ImageTile> t = tiles(0, 0);
    gpuJob.tileGetters(0, 0) = [t] { return t; };
    EXPECT_EQ(gpuJob.precondition(), thread::JtGLThread);
}

// ---- what a request holds while it runs ----

// Blocks of the memory manager alive now: every 256 x 256 RGBA8 tile is one block of its own.
long liveBlocks() {
    memory::NmStatistic statistic;
    memory::nmGetStatistic(&statistic);
    return long(statistic.memoryObjectCount);
}

// Requests every tile of `source` at once in line order, with a callback that keeps nothing, and
// returns the most blocks alive at any computation or delivery, over those alive before.
long peakBlocksOfOneRequest(const SharedPtr<ImageSource>& source, GradientSource& input) {
    const long before = liveBlocks();
    std::atomic<long> peak{0};
    auto sample = [&] {
        long now = liveBlocks() - before;
        for (long seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
        }
    };
    input.onCompute = [&](unsigned int, unsigned int) { sample(); };
    std::atomic<int> delivered{0};
    Gate ended;
    std::atomic<int> endStatus{-1};
    SharedPtr<RequestHandle> handle = source->requestTiles(
        allTiles(source->tileLayout().tileCount), std::make_shared<LineOrderScoreFunction>(),
        [&](const ComputedTileInfo& info) {
            sample();
            if (info.type == ComputedTileInfo::TileReady) {
                ++delivered;
            } else {
                endStatus = info.status;
                ended.open();
            }
        },
        true, {});
    EXPECT_TRUE(ended.wait());
    while (!handle->finished()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    input.onCompute = nullptr;
    const GenVec<int, 2> count = source->tileLayout().tileCount;
    EXPECT_EQ(endStatus.load(), int(ComputedTileInfo::Success));
    EXPECT_EQ(delivered.load(), count.x * count.y);
    return peak.load();
}

TEST(RequestMemoryThreads, ARequestForManyTilesHoldsOnlyTheTilesOnTheirWay) {
    // 8 x 8 input tiles of 256 KiB each; nothing is cached, so every tile that stays alive is
    // held by the request's job graph.
    auto input = GradientSource::create({2048, 2048}, {256, 256}, false);
    const long inputTiles = 8 * 8;
    const long direct = peakBlocksOfOneRequest(input, *input);
    EXPECT_LT(direct, inputTiles / 8) << "computed tiles are dropped once delivered";

    // Scaled by a half: each output tile reads a 2 x 2 block of input tiles through a scale job.
    auto scaled = ScaledImageSource::create(Image::create(input), 0.5);
    scaled->enableCaching(false);
    ASSERT_EQ(scaled->tileLayout().tileSize, (GenVec<int, 2>(256, 256)));
    const long throughScale = peakBlocksOfOneRequest(scaled, *input);
    // Input tiles live until the output tile that reads them is done: a row of input tiles, with
    // the lines the workers run ahead, not the whole image.
    EXPECT_LT(throughScale, (inputTiles + 16) / 4) << "input tiles are dropped once scaled";
}

}  // namespace
}  // namespace qor::imaging
