#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "TileTestSupport.h"
#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageStorageHandler.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"

namespace qor::imaging {
namespace {

// A storage that records the calls its owner makes, for checking the base's contract.
class ProbeStorage : public ImageStorage {
public:
    explicit ProbeStorage(std::vector<std::string>* events)
        : ImageStorage(WeakSharedPtr<ImageTile>()), _events(events) {}
    ~ProbeStorage() override { _events->push_back("deleted"); }

    void unregister() override { _events->push_back("unregistered"); }
    RawPixelFormat getCurrentPixelFormat() override { return PfRGBA8; }
    int width() const override { return 4; }
    int height() const override { return 2; }
    unsigned int memoryConsumption() const override { return computeMemoryCost(4, 2, PfRGBA8); }

private:
    std::vector<std::string>* _events;
};

class CountingHandler : public ImageStorageHandler {
public:
    explicit CountingHandler(int* deleted) : _deleted(deleted) {}
    ~CountingHandler() override { ++*_deleted; }
    bool supportsReadBack() override { return true; }
    SharedPtr<ImageStorage> createFromRaw(const SharedPtr<RawImageStorage>&, RawPixelFormat,
                                          const WeakSharedPtr<ImageTile>&,
                                          const DrawParameters&) override {
        return nullptr;
    }

private:
    int* _deleted;
};

TEST(ImageStorage, MemoryCostIsBytesPerPixelTimesArea) {
    EXPECT_EQ(ImageStorage::computeMemoryCost(256, 256, PfRGBA16F), 524288u);
    EXPECT_EQ(ImageStorage::computeMemoryCost(3, 5, PfRGB8), 45u);
    EXPECT_EQ(ImageStorage::computeMemoryCost(256, 256, PfInvalid), 0u);
}

TEST(ImageStorage, SelfReferenceUnregistersBeforeDeleting) {
    std::vector<std::string> events;
    {
        LogCapture log;
        auto* raw = new ProbeStorage(&events);
        SharedPtr<ImageStorage> self = raw->setupSelfRef();
        EXPECT_EQ(raw->weakSelfRef().lock(), self);
        // A second set-up is a fault; it hands out the same reference.
        EXPECT_EQ(raw->setupSelfRef(), self);
        EXPECT_EQ(log.assertions("_selfRef.isNull()"), 1u);

        EXPECT_EQ(self->readBack(PfRGBA8, nullptr), nullptr);
        EXPECT_FALSE(self->writeRect(self.get(), Recti(0, 0, 1, 1), Vec2i(), COPY_NORMAL));
        EXPECT_FALSE(self->tryDiscardPixelFormat(PfRGBA8));
        EXPECT_EQ(self->memoryConsumption(), 32u);
        EXPECT_TRUE(events.empty());
    }
    EXPECT_EQ(events, (std::vector<std::string>{"unregistered", "deleted"}));
}

TEST(ImageStorageTypeRegistry, FindsTypesByNameAndOwnsHandlers) {
    int deleted = 0;
    {
        ImageStorageTypeRegistry registry;
        auto* first = new CountingHandler(&deleted);
        registry.registerFormat(first, storageTypeName<ProbeStorage>());
        EXPECT_EQ(registry.findFormat("other"), nullptr);
        const ImageFormatInfo* info = registry.findFormat(storageTypeName<ProbeStorage>());
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->handler, first);

        // A second handler for the same name is dropped; the first stays in use.
        LogCapture log;
        registry.registerFormat(new CountingHandler(&deleted), storageTypeName<ProbeStorage>());
        EXPECT_EQ(deleted, 1);
        EXPECT_EQ(registry.findFormat(storageTypeName<ProbeStorage>()), info);
        EXPECT_EQ(info->handler, first);
    }
    EXPECT_EQ(deleted, 2);
}

TEST(ImageStorageTypeRegistry, NativeAccessorsAreFilteredByNativeType) {
    ImageStorageTypeRegistry registry;
    int calls = 0;
    registry.registerNativeGetter("texture", "storageA",
                                  [&](const ImageStorage*, void*) { ++calls; });
    registry.registerNativeGetter("bitmap", "storageB", [](const ImageStorage*, void*) {});
    registry.registerNativeGetter("texture", "storageC", [](const ImageStorage*, void*) {});
    registry.registerNativeSetter("texture", "storageA", [](ImageStorage*, const void*) {});

    auto getters = registry.nativeGetters("texture");
    ASSERT_EQ(getters.size(), 2u);
    EXPECT_EQ(getters[0].storageType, "storageA");
    EXPECT_EQ(getters[1].storageType, "storageC");
    getters[0].function(nullptr, nullptr);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(registry.nativeSetters("texture").size(), 1u);
    EXPECT_TRUE(registry.nativeSetters("bitmap").empty());
    EXPECT_TRUE(registry.nativeTargetGetters("texture").empty());

    EXPECT_EQ(ImageStorageTypeRegistry::instance(), ImageStorageTypeRegistry::instance());
}

using namespace tiletest;
// The fixtures below take the class's name, as the suites are named after it.
using Tile = imaging::ImageTile;

SharedPtr<Tile> newTile(Vec2i size = Vec2i(8, 7), const DrawParameters& params = DrawParameters()) {
    return Tile::create(size, PfRGBA8, params);
}

std::vector<unsigned char> shadowPixels(const SharedPtr<Tile>& tile) {
    SharedPtr<ShadowStorage> shadow = tile->getData<ShadowStorage>();
    return shadow ? shadow->pixels() : std::vector<unsigned char>();
}

class ImageTile : public TileTest {};

TEST_F(ImageTile, NewTileIsNotValidUntilItsFirstRead) {
    auto tile = Tile::create(Vec2i(5, 3), PfRGB8);
    EXPECT_FALSE(tile->valid());
    EXPECT_EQ(tile->memoryConsumption(), 0u);
    auto view = tile->getDataRGB8();
    ASSERT_TRUE(view);
    EXPECT_EQ(view->width(), 5);
    EXPECT_EQ(view->height(), 3);
    EXPECT_TRUE(tile->valid());
    EXPECT_TRUE(tile->hasData<RawImageStorage>());
    EXPECT_FALSE(tile->hasData<ShadowStorage>());
    EXPECT_EQ(tile->getData<RawImageStorage>()->getCurrentPixelFormat(), PfRGB8);
    EXPECT_EQ(tile->memoryConsumption(), 45u);
    tile->clear();
    EXPECT_FALSE(tile->valid());
}

TEST_F(ImageTile, SetDataOfAnotherSizeIsReportedAndStored) {
    auto tile = newTile(Vec2i(4, 4));
    LogCapture log;
    SharedPtr<Rgba8> data = makePattern(6, 2, 3);
    tile->setDataRGBA8(data);
    EXPECT_EQ(log.assertions("data->width() == width() && data->height() == height()"), 1u);
    auto view = tile->getDataRGBA8();
    EXPECT_NE(view->data(), data->data());
    EXPECT_TRUE(holdsPattern(*view, PfRGBA8, 3));
    log.clear();
    tile->setDataRGBA8(makePattern(4, 4, 4));
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_TRUE(holdsPattern(*tile->getDataRGBA8(), PfRGBA8, 4));
}

TEST_F(ImageTile, ReadingAddsAStorageAndAWriteTargetLeavesOnlyItself) {
    ShadowProbe& probe = ShadowStorage::probe();
    auto tile = newTile();
    tile->setData(ShadowStorage::withPattern(tile, 7));
    EXPECT_TRUE(tile->hasData<ShadowStorage>());
    EXPECT_FALSE(tile->hasData<RawImageStorage>());

    EXPECT_TRUE(holdsPattern(*tile->getDataRGBA8(), PfRGBA8, 7));
    EXPECT_TRUE(holdsPattern(*tile->getDataRGB8(), PfRGB8, 7));
    EXPECT_EQ(probe.readBacks, 1);
    EXPECT_TRUE(tile->hasData<ShadowStorage>());
    EXPECT_EQ(tile->memoryConsumption(), 224u + 224u + 168u);

    // A write target drops every other storage, whichever type it is.
    EXPECT_TRUE(tile->getDataTarget<ShadowStorage>());
    EXPECT_FALSE(tile->hasData<RawImageStorage>());
    EXPECT_EQ(patternIdOf(*tile->getData<ShadowStorage>()), 7u);
    EXPECT_TRUE(tile->getDataTargetRGBA8());
    EXPECT_EQ(probe.readBacks, 2);
    EXPECT_FALSE(tile->hasData<ShadowStorage>());

    // A storage of another type is made from processor data.
    EXPECT_EQ(shadowPixels(tile), patternIn(PfRGBA8, 8, 7, 7));
    EXPECT_EQ(probe.createdFromRaw, 1);
    EXPECT_TRUE(tile->hasData<RawImageStorage>());
}

TEST_F(ImageTile, DiscardKeepsAProcessorCopy) {
    auto tile = newTile();
    tile->setData(ShadowStorage::withPattern(tile, 2));
    EXPECT_FALSE(tile->tryDiscardData<ShadowStorage>()) << "the only copy";
    tile->getDataRGBA8();
    EXPECT_FALSE(tile->tryDiscardData<RawImageStorage>());
    EXPECT_TRUE(tile->hasData<RawImageStorage>());
    EXPECT_TRUE(tile->hasData<ShadowStorage>());
    EXPECT_TRUE(tile->tryDiscardDataGeneric(storageTypeName<ShadowStorage>()));
    EXPECT_FALSE(tile->hasData<ShadowStorage>());
    EXPECT_FALSE(tile->tryDiscardData<ShadowStorage>()) << "not held";
    EXPECT_FALSE(tile->tryDiscardData<RawImageStorage>());
    EXPECT_TRUE(holdsPattern(*tile->getDataRGBA8(), PfRGBA8, 2));
}

TEST_F(ImageTile, WriteSubRectFromProcessorDataHonoursTheFlipMode) {
    auto src = makeRawStorage(6, 5);
    src->setDataRGBA8(makePattern(6, 5, 1));
    for (CopyFlippedMode mode : {COPY_NORMAL, COPY_FLIP_H, COPY_FLIP_V, COPY_FLIP_HV}) {
        auto fromStorage = newTile();
        fromStorage->setDataRGBA8(makePattern(8, 7, 2));
        fromStorage->writeSubRect(src.get(), kCopyRect, kCopyDest, mode);
        EXPECT_EQ(countCopyErrors(packedRows(*fromStorage->getDataRGBA8()), mode), 0) << mode;

        auto fromData = newTile();
        fromData->setDataRGBA8(makePattern(8, 7, 2));
        fromData->getData<ShadowStorage>();
        fromData->writeSubRect(makePattern(6, 5, 1), kCopyRect, kCopyDest, mode);
        EXPECT_FALSE(fromData->hasData<ShadowStorage>()) << "stale after the write";
        EXPECT_EQ(countCopyErrors(packedRows(*fromData->getDataRGBA8()), mode), 0) << mode;

        // An empty tile takes a processor storage first.
        auto empty = newTile();
        empty->writeSubRect(makePattern(6, 5, 1), kCopyRect, kCopyDest, mode);
        EXPECT_TRUE(empty->hasData<RawImageStorage>());
        EXPECT_EQ(countCopyErrors(packedRows(*empty->getDataRGBA8()), mode, true), 0) << mode;
    }
}

TEST_F(ImageTile, TileToTileCopyTakesTheDirectPathWithoutReadingBack) {
    ShadowProbe& probe = ShadowStorage::probe();
    auto src = newTile(Vec2i(6, 5));
    src->setData(ShadowStorage::withPattern(src, 1));

    // Into an empty tile: a blank storage of the source's type takes the copy.
    auto empty = newTile();
    empty->writeSubRect(SharedPtr<const Tile>(src), kCopyRect, kCopyDest, COPY_FLIP_V);
    EXPECT_EQ(probe.createdEmpty, 1);
    EXPECT_EQ(probe.directWrites, 1);
    EXPECT_FALSE(empty->hasData<RawImageStorage>());
    EXPECT_EQ(countCopyErrors(shadowPixels(empty), COPY_FLIP_V, true), 0);

    // Into a tile with data: the storage that took the copy stays, the others go.
    auto full = newTile();
    full->setDataRGBA8(makePattern(8, 7, 2));
    full->getData<ShadowStorage>();
    const unsigned before = full->version();
    full->writeSubRect(SharedPtr<const Tile>(src), kCopyRect, kCopyDest, COPY_FLIP_H);
    EXPECT_EQ(probe.directWrites, 2);
    EXPECT_GT(full->version(), before);
    EXPECT_FALSE(full->hasData<RawImageStorage>());
    EXPECT_EQ(countCopyErrors(shadowPixels(full), COPY_FLIP_H), 0);

    EXPECT_EQ(probe.readBacks, 0);
    EXPECT_FALSE(src->hasData<RawImageStorage>());
}

TEST_F(ImageTile, TileToTileCopyFallsBackToProcessorData) {
    ShadowProbe& probe = ShadowStorage::probe();
    probe.acceptWrites = false;
    auto src = newTile(Vec2i(6, 5));
    src->setData(ShadowStorage::withPattern(src, 1));
    auto dst = newTile();
    dst->setData(ShadowStorage::withPattern(dst, 2));
    dst->writeSubRect(SharedPtr<const Tile>(src), kCopyRect, kCopyDest, COPY_FLIP_HV);
    EXPECT_EQ(probe.readBacks, 1) << "the source's processor copy";
    EXPECT_EQ(probe.uploads, 1);
    EXPECT_TRUE(src->hasData<RawImageStorage>());
    EXPECT_FALSE(dst->hasData<RawImageStorage>());
    EXPECT_EQ(countCopyErrors(shadowPixels(dst), COPY_FLIP_HV), 0);

    // Processor storage to processor storage is a direct path of its own.
    auto empty = newTile();
    empty->writeSubRect(SharedPtr<const Tile>(src), kCopyRect, kCopyDest, COPY_FLIP_H);
    EXPECT_EQ(probe.readBacks, 1);
    EXPECT_EQ(countCopyErrors(packedRows(*empty->getDataRGBA8()), COPY_FLIP_H, true), 0);
}

TEST_F(ImageTile, VersionAdvancesOnWritesOnly) {
    auto tile = newTile();
    unsigned version = tile->version();
    auto expectWrite = [&](const char* what) {
        EXPECT_GT(tile->version(), version) << what;
        version = tile->version();
    };
    auto expectRead = [&](const char* what) { EXPECT_EQ(tile->version(), version) << what; };

    tile->setDataRGBA8(makePattern(8, 7, 1));
    expectWrite("setDataRGBA8");
    tile->getDataRGB8();
    tile->getData<ShadowStorage>();
    expectRead("getData");
    tile->getDataTargetRGBA8();
    expectWrite("getDataTarget");
    tile->writeSubRect(makePattern(6, 5, 1), kCopyRect, kCopyDest);
    expectWrite("writeSubRect");
    tile->setData(ShadowStorage::withPattern(tile, 3));
    expectWrite("setData");
    tile->getDataRGBA8();
    expectRead("read back");
    tile->clear();
    expectWrite("clear");
}

TEST_F(ImageTile, DrawParametersReachEveryStorage) {
    const DrawParameters first(MM_LINEAR, IM_LINEAR, IM_NEAREST);
    const DrawParameters second(MM_OFF, IM_NEAREST, IM_LINEAR);
    auto tile = newTile(Vec2i(6, 5), first);
    tile->setDataRGBA8(makePattern(6, 5, 1));
    EXPECT_EQ(tile->getData<ShadowStorage>()->drawParameters(), first);
    tile->setDrawParameters(second);
    EXPECT_EQ(tile->getDrawParameters(), second);
    EXPECT_EQ(tile->getData<ShadowStorage>()->drawParameters(), second);

    // A blank storage made for a copy is told the destination's parameters.
    auto dst = newTile(Vec2i(8, 7), first);
    tile->discardData<RawImageStorage>();
    dst->writeSubRect(SharedPtr<const Tile>(tile), kCopyRect, kCopyDest);
    EXPECT_EQ(dst->getData<ShadowStorage>()->drawParameters(), first);

    LogCapture log;
    tile->setDrawParameters(DrawParameters(MipmapMode(7), IM_NEAREST, IM_NEAREST));
    EXPECT_EQ(log.assertions("params.isValid()"), 1u);
}

TEST_F(ImageTile, TypesWithoutADirectPathConvertThroughProcessorData) {
    ShadowProbe& probe = ShadowStorage::probe();
    auto tile = newTile();
    tile->setData(ShadowStorage::withPattern<RelayStorage>(tile, 6));
    EXPECT_EQ(shadowPixels(tile), patternIn(PfRGBA8, 8, 7, 6));
    EXPECT_EQ(probe.readBacks, 1);
    EXPECT_EQ(probe.createdFromRaw, 1);
    EXPECT_TRUE(tile->hasData<RelayStorage>());
    EXPECT_TRUE(tile->hasData<RawImageStorage>());

    // A type that cannot be read back is made for reading but is never a write target.
    EXPECT_TRUE(tile->getData<FrozenStorage>());
    LogCapture log;
    EXPECT_FALSE(tile->getDataTarget<FrozenStorage>());
    EXPECT_EQ(log.assertions("getImageFormatInfo(formatstoragetype)->handler->supportsReadBack()"),
              1u);
    EXPECT_TRUE(tile->hasData<ShadowStorage>()) << "nothing was dropped";

    // An unregistered type has no storage.
    class StrayStorage : public ShadowStorage {
    public:
        using ShadowStorage::ShadowStorage;
    };
    EXPECT_FALSE(tile->getData<StrayStorage>());
    EXPECT_EQ(log.assertions("fmt"), 1u);
}

TEST_F(ImageTile, NativeObjectsComeFromTheStorageThatOffersThem) {
    auto tile = newTile();
    tile->setDataRGBA8(makePattern(8, 7, 4));
    ShadowHandle handle;
    EXPECT_TRUE(tile->getNativeData(&handle));
    ASSERT_TRUE(handle.storage);
    EXPECT_EQ(patternIdOf(*handle.storage), 4u);
    EXPECT_TRUE(tile->hasData<RawImageStorage>());

    handle = ShadowHandle();
    EXPECT_TRUE(tile->getNativeDataTarget(&handle));
    EXPECT_TRUE(handle.storage);
    EXPECT_FALSE(tile->hasData<RawImageStorage>());

    tile->setDataRGBA8(makePattern(8, 7, 1));
    EXPECT_TRUE(tile->setNativeData(ShadowPixels{patternIn(PfRGBA8, 8, 7, 5)}));
    EXPECT_FALSE(tile->hasData<RawImageStorage>());
    EXPECT_TRUE(holdsPattern(*tile->getDataRGBA8(), PfRGBA8, 5));

    int unknown = 0;
    EXPECT_FALSE(tile->getNativeData(&unknown));
}

TEST_F(ImageTile, DroppingAStorageThatIsStillHeldIsReported) {
    auto tile = newTile();
    tile->setDataRGBA8(makePattern(8, 7, 3));
    tile->getData<ShadowStorage>();
    SharedPtr<RawImageStorage> held = tile->getData<RawImageStorage>();
    LogCapture log;
    tile->getDataTarget<ShadowStorage>();
    EXPECT_EQ(log.count("not unique on ImageTile::clearUnlocked()!"), 1u);
    EXPECT_TRUE(holdsPattern(*held->getDataRGBA8(), PfRGBA8, 3)) << "the holder keeps it";

    SharedPtr<ShadowStorage> shadow = tile->getData<ShadowStorage>();
    tile->clear();
    EXPECT_EQ(log.count("not unique on ImageTile::clearUnlocked()!"), 2u);

    tile->setDataRGBA8(makePattern(8, 7, 3));
    held = tile->getData<RawImageStorage>();
    EXPECT_TRUE(tile->discardData<RawImageStorage>());
    EXPECT_EQ(log.count("Storage not unique on discard!"), 1u);
    EXPECT_FALSE(tile->valid());
    EXPECT_EQ(log.assertions(), 0u);
}

using ImageTileThreads = TileTest;

TEST_F(ImageTileThreads, ReadBackThatLosesItsSourceRetriesWithTheCurrentData) {
    ShadowProbe& probe = ShadowStorage::probe();
    for (bool replace : {true, false}) {
        SCOPED_TRACE(replace ? "replaced" : "cleared");
        probe.readBacks = 0;
        auto tile = newTile();
        tile->setData(ShadowStorage::withPattern(tile, 1));
        Latch entered, proceed;
        probe.beforeReadBack = [&] {
            if (entered.isOpen()) return;
            entered.open();
            proceed.wait();
        };
        SharedPtr<const Rgba8> seen;
        std::thread reader([&] { seen = tile->getDataRGBA8(); });
        // The tile's mutex is open while the read back runs.
        const bool reading = entered.wait();
        if (reading && replace) tile->setData(ShadowStorage::withPattern(tile, 2));
        if (reading && !replace) tile->clear();
        proceed.open();
        reader.join();
        probe.beforeReadBack = nullptr;
        ASSERT_TRUE(reading);
        ASSERT_TRUE(seen);
        EXPECT_TRUE(tile->hasData<RawImageStorage>());
        if (replace) {
            EXPECT_TRUE(holdsPattern(*seen, PfRGBA8, 2));
            EXPECT_EQ(probe.readBacks, 2);
            EXPECT_TRUE(tile->hasData<ShadowStorage>());
        } else {
            EXPECT_FALSE(holdsPattern(*seen, PfRGBA8, 1)) << "the cleared data came back";
            EXPECT_EQ(probe.readBacks, 1);
            EXPECT_FALSE(tile->hasData<ShadowStorage>());
        }
    }
}

TEST_F(ImageTileThreads, CopiesBetweenTwoTilesBothWaysDoNotDeadlock) {
    auto a = newTile();
    auto b = newTile();
    a->setDataRGBA8(makePattern(8, 7, 1));
    b->setDataRGBA8(makePattern(8, 7, 2));
    // Each copies its left half over the other's right half, which nobody reads.
    auto copy = [](SharedPtr<Tile> to, SharedPtr<const Tile> from) {
        return [to, from] {
            for (int i = 0; i < 300; ++i)
                to->writeSubRect(from, Recti(0, 0, 4, 7), Vec2i(4, 0), COPY_NORMAL);
        };
    };
    runConcurrently({copy(a, b), copy(b, a)}, 60, "ImageTile::writeSubRect both ways");
    auto pa = a->getDataRGBA8();
    auto pb = b->getDataRGBA8();
    for (int y = 0; y < 7; ++y) {
        EXPECT_EQ(std::memcmp(pa->row(y) + 16, pb->row(y), 16), 0) << y;
        EXPECT_EQ(std::memcmp(pb->row(y) + 16, pa->row(y), 16), 0) << y;
        EXPECT_EQ(std::memcmp(pa->row(y), &patternIn(PfRGBA8, 8, 7, 1)[y * 32], 16), 0) << y;
    }
}

// Reads tile `index` in F and checks that it holds one whole pattern written to that tile.
template <RawPixelFormat F>
bool readsWhole(const SharedPtr<Tile>& tile, unsigned index, unsigned tiles) {
    auto view = tile->getRawData<F>();
    const unsigned id = patternId(*view, F);
    if (id % tiles == index && holdsPattern(*view, F, id)) return true;
    ADD_FAILURE() << "tile " << index << " read as " << pixelFormatString(F) << " holds id " << id;
    return false;
}

// One read in each family of formats that keeps the id.
constexpr bool (*kReads[])(const SharedPtr<Tile>&, unsigned, unsigned) = {
    readsWhole<PfRGBA8>,  readsWhole<PfRGB8>,    readsWhole<PfBGRA8>,
    readsWhole<PfRGBA16>, readsWhole<PfRGBA32F>, readsWhole<PfRed8>,
};

TEST_F(ImageTileThreads, ReadsWritesConversionsAndEvictionKeepEveryTileWhole) {
    constexpr unsigned kTiles = 6;
    constexpr int kThreads = 4, kSteps = 300;
    const Vec2i size(24, 16);
    std::vector<SharedPtr<Tile>> tiles;
    for (unsigned i = 0; i < kTiles; ++i) {
        tiles.push_back(newTile(size));
        tiles[i]->setDataRGBA8(makePattern(size.x, size.y, i));
    }
    // Room for two tiles in RGBA8: every conversion evicts.
    ImageStorageManager::instance()->setMemoryLimit(SaProcessor, 2 * 24 * 16 * 4);
    std::atomic<unsigned> round{1};
    std::atomic<int> failures{0};
    LogCapture log;
    std::vector<Function0<void>> work;
    for (int t = 0; t < kThreads; ++t) {
        work.push_back([&, t] {
            unsigned seed = 12345u + t;
            for (int step = 0; step < kSteps && failures < 5; ++step) {
                seed = seed * 1103515245u + 12345u;
                const unsigned index = (seed >> 8) % kTiles;
                const SharedPtr<Tile>& tile = tiles[index];
                bool ok = true;
                const unsigned op = (seed >> 16) % 12;
                switch (op) {
                    default:
                        ok = kReads[op](tile, index, kTiles);  // ops 0 to 5
                        break;
                    case 6: {
                        auto shadow = tile->getData<ShadowStorage>();
                        const unsigned id = patternIdOf(*shadow);
                        ok = id % kTiles == index &&
                             shadow->pixels() == patternIn(PfRGBA8, size.x, size.y, id);
                        if (!ok) ADD_FAILURE() << "tile " << index << " shadow id " << id;
                        break;
                    }
                    case 7:
                        tile->setDataRGBA8(makePattern(size.x, size.y, index + kTiles * round++));
                        break;
                    case 8:
                        tile->setData(ShadowStorage::withPattern(tile, index + kTiles * round++));
                        break;
                    case 9:
                        tile->tryDiscardData<ShadowStorage>();
                        break;
                    case 10:
                        tile->getDataTarget<ShadowStorage>();
                        break;
                    case 11:
                        ImageStorageManager::instance()->discard(SaProcessor, 1 << 20);
                        break;
                }
                if (!ok) ++failures;
            }
        });
    }
    runConcurrently(work, 120, "tile readers and writers");
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(log.assertions(), 0u);
    for (unsigned i = 0; i < kTiles; ++i) EXPECT_TRUE(readsWhole<PfRGBA8>(tiles[i], i, kTiles));
}

// Image memory limited to 8 MB, so that tiles go to the swap file.
class ImageTileMemory : public TileTest {
protected:
    unsigned memoryLimitMegabytes() const override { return 8; }
};

template <RawPixelFormat F>
void fillTile(const SharedPtr<Tile>& tile, unsigned id) {
    auto target = tile->getRawDataTarget<F>();
    const std::vector<unsigned char> bytes = patternIn(F, tile->width(), tile->height(), id);
    const std::size_t rowBytes = bytes.size() / tile->height();
    for (int y = 0; y < tile->height(); ++y)
        std::memcpy(target->row(y), bytes.data() + rowBytes * y, rowBytes);
}

TEST_F(ImageTileMemory, TilesOfThreeTimesTheLimitComeBackIntactFromSwap) {
    // Whole 256 KiB blocks alternate with small tiles that share the pool's chunks.
    std::vector<SharedPtr<Tile>> tiles;
    std::uint64_t total = 0;
    for (unsigned id = 0; total < 3 * 8 * 1048576u; ++id) {
        const bool large = id % 2 == 0;
        tiles.push_back(Tile::create(large ? Vec2i(256, 256) : Vec2i(120, 100), PfRGBA8));
        if (large)
            fillTile<PfRGBA8>(tiles.back(), id);
        else
            fillTile<PfRGB8>(tiles.back(), id);
        total += tiles.back()->memoryConsumption();
    }
    ASSERT_EQ(memory::nmClearUnlocked(0), memory::NM_OK);
    memory::NmStatistic stats;
    ASSERT_EQ(memory::nmGetStatistic(&stats), memory::NM_OK);
    EXPECT_EQ(stats.memoryAllocated, 0u);
    EXPECT_GT(stats.writeOperations, 0u);
    for (unsigned id = 0; id < tiles.size(); ++id) {
        if (id % 2 == 0)
            EXPECT_TRUE(holdsPattern(*tiles[id]->getDataRGBA8(), PfRGBA8, id)) << id;
        else
            EXPECT_TRUE(holdsPattern(*tiles[id]->getDataRGB8(), PfRGB8, id)) << id;
    }
}

TEST_F(ImageTileMemory, WritesThroughAViewFirstTakenForReadingReachTheSwapFile) {
    auto tile = Tile::create(Vec2i(256, 256), PfRGBA8);
    tile->setDataRGBA8(makePattern(256, 256, 1));
    ASSERT_EQ(memory::nmClearUnlocked(0), memory::NM_OK);
    {
        // Read back from the swap file, unchanged so far; then written through a target while
        // the reading view still holds the block.
        auto read = tile->getDataRGBA8();
        EXPECT_TRUE(holdsPattern(*read, PfRGBA8, 1));
        fillPattern(*tile->getDataTargetRGBA8(), 2);
    }
    ASSERT_EQ(memory::nmClearUnlocked(0), memory::NM_OK);
    EXPECT_TRUE(holdsPattern(*tile->getDataRGBA8(), PfRGBA8, 2));
}

}  // namespace
}  // namespace qor::imaging
