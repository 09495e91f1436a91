// GPU tiles seen from worker threads: read backs that cross to the GL thread, storages dropped on
// workers, and a source computed by a shader whose tiles a worker reads as processor pixels.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "../support/TempDir.h"
#include "GPUTestSupport.h"
#include "TileTestSupport.h"
#include "base/Log.h"
#include "base/thread/DFSOrderScoreFunction.h"
#include "base/thread/DependentJobExecutor.h"
#include "base/thread/JobDispatcher.h"
#include "gpu/TextureImageStorage.h"
#include "gpu/TextureOperatorImageSource.h"
#include "imaging/ImageLog.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"
#include "imaging/SimpleImageSource.h"

namespace qor::gpu {
namespace {

using namespace imaging;
using test::fillPattern;
using test::normalised;
using test::textureTolerance;

using TextureImageStorageThreads = test::RendererTest;

// Runs `work` on a new thread while this (GL) thread runs GL jobs, until it has finished.
void onWorkerWhilePumping(const std::function<void()>& work) {
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    std::atomic<bool> done{false};
    std::thread worker([&] {
        work();
        done = true;
        dispatcher.wakeGLThread();
    });
    dispatcher.pumpGLJobsUntil([&] { return done.load(); });
    worker.join();
}

SharedPtr<const ImageTile> patternTile(Vec2i size) {
    auto tile = ImageTile::createNonCached(size, PfRGBA16F);
    fillPattern<PfRGBA16F>(*tile->getDataTarget<RawImageStorage>());
    return tile;
}

TEST_F(TextureImageStorageThreads, ReadBackOnAWorkerRunsOnTheGLThreadAndGivesTheSamePixels) {
    auto tile = patternTile(Vec2i(33, 17));
    SharedPtr<TextureImageStorage> gpu = textureStorage(tile);
    ASSERT_TRUE(gpu);
    SharedPtr<RawImageStorage> here = gpu->readBack(PfRGBA16F, nullptr);
    SharedPtr<RawImageStorage> there;
    bool workerWasGL = true;
    onWorkerWhilePumping([&] {
        workerWasGL = renderer()->isValidRenderThread();
        there = gpu->readBack(PfRGBA16F, nullptr);
    });
    EXPECT_FALSE(workerWasGL);
    ASSERT_TRUE(here && there);
    EXPECT_EQ(test::maxDifference<PfRGBA16F>(*here, *there, Recti(Vec2i(33, 17))), 0.0);
}

// The texture stays on the card until the GL thread collects it, and so in the GPU area's account.
TEST_F(TextureImageStorageThreads, StorageDroppedOnAWorkerWaitsForFreeUnusedStorage) {
    ImageStorageManager* manager = ImageStorageManager::instance();
    const std::uint64_t accountBefore = manager->memoryConsumption(SaGPU);
    auto gpu = std::static_pointer_cast<TextureImageStorage>(
        (new TextureImageStorage(Vec2i(16, 16), PfRGBA8, WeakSharedPtr<ImageTile>()))
            ->setupSelfRef());
    const std::uint64_t cost = gpu->memoryConsumption();
    ASSERT_GT(cost, 0u);
    EXPECT_EQ(manager->memoryConsumption(SaGPU), accountBefore + cost);
    const std::size_t usedBefore = TextureGLCache::instance()->usedCount();
    std::thread worker([held = std::move(gpu)]() mutable { held.reset(); });
    worker.join();
    EXPECT_EQ(TextureStorageCollector::instance()->size(), 1u);
    EXPECT_EQ(TextureGLCache::instance()->usedCount(), usedBefore) << "texture kept until then";
    EXPECT_EQ(manager->memoryConsumption(SaGPU), accountBefore + cost)
        << "the texture left the GPU account while it is still on the card";
    freeUnusedStorage();
    EXPECT_EQ(TextureStorageCollector::instance()->size(), 0u);
    EXPECT_EQ(TextureGLCache::instance()->usedCount(), usedBefore - 1);
    EXPECT_EQ(manager->memoryConsumption(SaGPU), accountBefore);
}

TEST_F(TextureImageStorageThreads, CreatingATextureOnAWorkerIsRefused) {
    auto tile = patternTile(Vec2i(8, 8));
    LogCapture log;
    SharedPtr<TextureImageStorage> made;
    std::thread worker([&] { made = tile->getData<TextureImageStorage>(); });
    worker.join();
    EXPECT_FALSE(made);
    // The tile asks the handler once from its processor copy and once more after reading it.
    EXPECT_GE(log.count("Trying to create a texture from a non-gl thread!"), 1u);
    EXPECT_FALSE(tile->hasData<TextureImageStorage>());

    // Made directly, the storage refuses before any GL call.
    auto cache = TextureGLCache::obtain();
    const std::size_t used = cache->usedCount();
    log.clear();
    bool refused = false;
    std::thread direct([&] {
        try {
            TextureImageStorage storage(Vec2i(8, 8), PfRGBA8, WeakSharedPtr<ImageTile>());
        } catch (const RenderTargetException&) {
            refused = true;
        }
    });
    direct.join();
    EXPECT_TRUE(refused);
    EXPECT_EQ(log.assertions("renderer()->isValidRenderThread()"), 1u);
    EXPECT_EQ(log.assertions(), 1u) << "GL was called off the GL thread";
    EXPECT_EQ(cache->usedCount(), used);
}

// Four 32 x 32 tiles of a 64 x 64 pattern, each a tile of its own with the pattern's pixels at its
// place; on the card (texture storage only) or in processor memory.
container::Array2D<SharedPtr<const ImageTile>> patternTiles(bool onCard) {
    auto whole = patternTile(Vec2i(64, 64));
    container::Array2D<SharedPtr<const ImageTile>> tiles;
    tiles.assign(2, 2, nullptr);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 2; ++x) {
            auto tile = ImageTile::createNonCached(Vec2i(32, 32), PfRGBA16F);
            tile->writeSubRect(whole->getData<RawImageStorage>().get(),
                               Recti(x * 32, y * 32, 32, 32), Vec2i(0, 0));
            if (onCard) tile->getDataTarget<TextureImageStorage>();
            tiles(x, y) = tile;
        }
    return tiles;
}

// A tile assembled for the card from tiles on the card, or from processor tiles that move there
// first: the job runs on the GL thread though a worker processes it, copies texture to texture,
// and its result holds the region of the pattern.
TEST_F(TextureImageStorageThreads, AssemblyForTheCardRunsOnTheGLThreadAndCopiesTheRegion) {
    for (bool inputsOnCard : {true, false}) {
        SCOPED_TRACE(inputsOnCard ? "inputs on the card" : "inputs in processor memory");
        container::Array2D<SharedPtr<const ImageTile>> tiles = patternTiles(inputsOnCard);
        auto job = std::make_shared<TileAssemblyJob>();
        job->layout = TileLayout({64, 64}, {32, 32}, {0, 0}, {64, 64});
        job->format = PfRGBA16F;
        job->rect = Recti(10, 20, 40, 30);
        job->startTile = {0, 0};
        job->setDestIsGPU(true);
        job->tileGetters.assign(2, 2, ImageSource::TileGetter());
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 2; ++x) job->tileGetters(x, y) = [t = tiles(x, y)] { return t; };
        // The executor drops the job's tiles once it is done: the result is the last tile handed
        // to the transfer function.
        std::atomic<int> offGLThread{0}, calls{0};
        SharedPtr<const ImageTile> result;
        job->transferFunction = [&](const SharedPtr<const ImageTile>& tile) {
            ++calls;
            result = tile;
            if (!renderer()->isValidRenderThread()) ++offGLThread;
            tile->getData<TextureImageStorage>();  // as a request moves tiles to the card
        };
        bool processed = false;
        onWorkerWhilePumping([&] {
            thread::DependentJobExecutor executor;
            processed = executor.process(nullptr, {job}, {});
        });
        ASSERT_TRUE(processed) << job->exceptionMessage();
        EXPECT_EQ(offGLThread.load(), 0);
        // The result, and the four inputs when they had to move.
        EXPECT_EQ(calls.load(), inputsOnCard ? 1 : 5);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->size(), (GenVec<int, 2>(40, 30)));
        EXPECT_TRUE(result->hasData<TextureImageStorage>());
        if (inputsOnCard) {
            EXPECT_FALSE(result->hasData<RawImageStorage>());
        }
        SharedPtr<RawImageStorage> pixels = result->getData<RawImageStorage>();
        auto expected = patternTile(Vec2i(64, 64));
        // Texture to texture and back in the same half-float format: bit for bit.
        EXPECT_EQ(test::maxDifference<PfRGBA16F>(*pixels, *expected->getData<RawImageStorage>(),
                                                 Recti(Vec2i(40, 30)), Vec2i(10, 20)),
                  0.0);
        pixels.reset();
        result.reset();
    }
    freeUnusedStorage();
}

// The processor's result of filters/Levels on the pattern, against the GPU tile read back.
template <RawPixelFormat F>
double levelsDifference(RawImageStorage& input, RawImageStorage& output, const Vec3f& gain,
                        const Vec3f& offset) {
    using T = typename RawStorageFormat<F>::Element;
    constexpr int N = RawStorageFormat<F>::Channels;
    auto in = input.getData<F>();
    auto out = output.getData<F>();
    double worst = 0;
    for (int y = 0; y < in->height(); ++y)
        for (int x = 0; x < in->width(); ++x)
            for (int c = 0; c < N; ++c) {
                const int channel = F == PfBGRA8 && c < 3 ? 2 - c : c;  // memory order B, G, R
                double expected = normalised(in->at(x, y, c));
                if (channel < 3) expected = expected * gain[channel] + offset[channel];
                if constexpr (std::is_integral_v<T>) expected = std::clamp(expected, 0.0, 1.0);
                worst = std::max(worst, std::fabs(normalised(out->at(x, y, c)) - expected));
            }
    return worst;
}

TEST_F(TextureImageStorageThreads, ShaderTilesReadOnAWorkerEqualTheProcessorResultInEveryFormat) {
    test::SearchPathsScope paths({QOR_SHADER_DIR});
    const Vec3f gain(0.5f, 1.25f, 1.5f);
    const Vec3f offset(0.1f, -0.05f, 0.2f);
    const Vec2i size(45, 29);
    int tested = 0;
    LogCapture log(false);
    const RawPixelFormat formats[] = {
#define QOR_LIST_FORMAT(S) Pf##S,
        QOR_TEST_TEXTURE_FORMATS(QOR_LIST_FORMAT)
#undef QOR_LIST_FORMAT
    };
    for (RawPixelFormat format : formats) {
        SCOPED_TRACE(pixelFormatString(format).c_str());
        DrawParameters params;
        const RawPixelFormat textureFormat = _renderer->chooseTextureFormat(format, params);
        if (!_renderer->isRenderable(textureFormat)) continue;
        ++tested;
        auto tile = ImageTile::createNonCached(size, format);
        auto target = tile->getDataTarget<RawImageStorage>();
        switch (format) {
#define QOR_FILL_CASE(S)             \
    case Pf##S:                      \
        fillPattern<Pf##S>(*target); \
        break;
            QOR_TEST_TEXTURE_FORMATS(QOR_FILL_CASE)
#undef QOR_FILL_CASE
            default:
                break;
        }
        auto input = SimpleImageSource::create(SharedPtr<const ImageTile>(tile));
        auto source = TextureOperatorImageSource::create(input, "filters/Levels", "",
                                                         [&](TextureOperator& op, const Recti&) {
                                                             op.setUniform("gain", gain);
                                                             op.setUniform("offset", offset);
                                                         });

        std::atomic<bool> ended{false};
        // The read-back is a storage of the delivered tile: the tile is kept while it is used, as
        // a storage outliving its tile is the fault that ImageTile's destructor reports.
        SharedPtr<const ImageTile> delivered;
        SharedPtr<RawImageStorage> readBack;
        bool deliveredOnGPU = false, readOnWorker = false;
        ComputedTileInfo::Status status = ComputedTileInfo::Error;
        thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
        SharedPtr<RequestHandle> handle =
            source->requestTiles({{0, 0}}, std::make_shared<thread::DFSOrderScoreFunction>(),
                                 [&](const ComputedTileInfo& info) {
                                     if (info.type == ComputedTileInfo::TileReady && info.tile) {
                                         deliveredOnGPU = info.tile->hasData<TextureImageStorage>();
                                         readOnWorker = !dispatcher.isGLThread();
                                         readBack = info.tile->getData<RawImageStorage>();
                                         delivered = info.tile;
                                         return;
                                     }
                                     status = info.status;
                                     ended = true;
                                     dispatcher.wakeGLThread();
                                 },
                                 false, {});
        dispatcher.pumpGLJobsUntil([&] { return ended.load(); });
        // The request's task lets go of its jobs, and so of the texture tile, on a worker after
        // the end record: wait for it, then free what was dropped there.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!(handle->finished() && !handle->source()) &&
               std::chrono::steady_clock::now() < deadline) {
            dispatcher.processGLJobs();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_FALSE(handle->source()) << "the request's task ended";
        EXPECT_EQ(status, ComputedTileInfo::Success);
        EXPECT_TRUE(deliveredOnGPU);
        EXPECT_TRUE(readOnWorker);
        ASSERT_TRUE(readBack);
        // Computed in float on the GPU, stored in the texture's format, read in the tile's.
        const double tolerance =
            std::max(textureTolerance(format), textureTolerance(textureFormat)) + 1e-6;
        double difference = 1e9;
        switch (format) {
#define QOR_COMPARE_CASE(S)                                                     \
    case Pf##S:                                                                 \
        difference = levelsDifference<Pf##S>(*target, *readBack, gain, offset); \
        break;
            QOR_TEST_TEXTURE_FORMATS(QOR_COMPARE_CASE)
#undef QOR_COMPARE_CASE
            default:
                break;
        }
        EXPECT_LE(difference, tolerance)
            << "texture format " << pixelFormatString(textureFormat).c_str();
        target.reset();
        readBack.reset();
        delivered.reset();
        freeUnusedStorage();
    }
    EXPECT_EQ(log.count("not unique"), 0u);
    EXPECT_GE(tested, 4) << "llvmpipe renders at least the 8-bit and float formats";
}

// Keeps the size and the first pixel of each picture the image log writes, and writes nothing.
class FirstPixelWriter : public ImageLogWriter {
public:
    struct Kept {
        int width, height, bits;
        unsigned char rgba[4];
    };
    const char* extension() const override { return "raw"; }
    void write(const std::string&, const ImageLogPicture& picture) override {
        const auto* p = static_cast<const unsigned char*>(picture.pixels);
        std::lock_guard<std::mutex> lock(mutex);
        kept.push_back(
            {picture.width, picture.height, picture.bitsPerChannel, {p[0], p[1], p[2], p[3]}});
    }
    std::mutex mutex;
    std::vector<Kept> kept;  // guarded by mutex
};

// The image log dumps a tile that a shader computed, though only the card holds it and its hook
// runs on a worker: the GL thread reads it back.
TEST_F(TextureImageStorageThreads, TheImageLogDumpsShaderTilesThroughTheGLThread) {
    test::SearchPathsScope paths({QOR_SHADER_DIR});
    auto tile = ImageTile::createNonCached(Vec2i(24, 16), PfRGBA8);
    {
        auto target = tile->getDataTarget<RawImageStorage>();
        auto pixels = target->getTargetRGBA8();
        for (int y = 0; y < 16; ++y)
            for (int x = 0; x < 24; ++x)
                for (int c = 0; c < 4; ++c) pixels->at(x, y, c) = c == 3 ? 255 : 100;
    }
    auto input = SimpleImageSource::create(SharedPtr<const ImageTile>(tile));
    auto source = TextureOperatorImageSource::create(
        input, "filters/Levels", "", [&](TextureOperator& op, const Recti&) {
            op.setUniform("gain", Vec3f(2.0f, 1.0f, 0.5f));
            op.setUniform("offset", Vec3f(0.0f, 0.0f, 0.0f));
        });
    auto writer = std::make_shared<FirstPixelWriter>();
    qor::test::TempDir dir;
    ImageLog::setWriter(writer);
    ASSERT_TRUE(ImageLog::start(dir.path(), ImageLogSourceTiles));

    std::atomic<bool> ended{false};
    bool onGPU = false;
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    SharedPtr<RequestHandle> handle =
        source->requestTiles({{0, 0}}, std::make_shared<thread::DFSOrderScoreFunction>(),
                             [&](const ComputedTileInfo& info) {
                                 if (info.type == ComputedTileInfo::TileReady && info.tile) {
                                     onGPU = info.tile->hasData<TextureImageStorage>() &&
                                             !info.tile->hasData<RawImageStorage>();
                                     return;
                                 }
                                 ended = true;
                                 dispatcher.wakeGLThread();
                             },
                             false, {});
    dispatcher.pumpGLJobsUntil([&] { return ended.load(); });
    while (!(handle->finished() && !handle->source())) {
        dispatcher.processGLJobs();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    dispatcher.processGLJobs();  // the dumps queued last
    ImageLog::stop();
    ImageLog::setWriter(nullptr);
    freeUnusedStorage();

    EXPECT_TRUE(onGPU);
    std::lock_guard<std::mutex> lock(writer->mutex);
    bool shaderTile = false;
    for (const auto& k : writer->kept) {
        if (k.width != 24 || k.height != 16 || k.bits != 8) continue;
        // 100 scaled by the gain: 200, 100, 50 (rounding of the card's arithmetic aside).
        shaderTile |= std::abs(k.rgba[0] - 200) <= 2 && std::abs(k.rgba[1] - 100) <= 2 &&
                      std::abs(k.rgba[2] - 50) <= 2 && k.rgba[3] == 255;
    }
    EXPECT_TRUE(shaderTile) << writer->kept.size() << " pictures, none of the shader's tile";
}

}  // namespace
}  // namespace qor::gpu
