#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "TileTestSupport.h"
#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "imaging/ImageDataAdapter.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"
#include "imaging/ManagedImageData.h"
#include "imaging/RawImageStorage.h"

namespace qor::imaging {
namespace {

using namespace tiletest;
// The fixture below takes the class's name, as the suite is named after it.
using Storage = imaging::RawImageStorage;

std::uint64_t processorBytes() {
    return ImageStorageManager::instance()->memoryConsumption(SaProcessor);
}
std::size_t processorEntries() { return ImageStorageManager::instance()->entryCount(SaProcessor); }

// The state of a storage as (primary, secondary).
std::pair<RawPixelFormat, RawPixelFormat> formats(Storage& storage) {
    return {storage.getCurrentPixelFormat(), storage.secondaryPixelFormat()};
}
std::pair<RawPixelFormat, RawPixelFormat> single(RawPixelFormat f) { return {f, PfInvalid}; }

// Every behaviour of the format cache, once with managed (swappable) buffers and once with plain
// heap buffers.
class RawImageStorage : public TileTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        TileTest::SetUp();
        ImageDataAdapterConfig::setManagingImageData(GetParam());
    }
    // A storage of `size` for a new tile declared in `tileFormat`; the tile is kept in _tile.
    SharedPtr<Storage> makeStorage(Vec2i size, RawPixelFormat tileFormat) {
        _tile = ImageTile::createNonCached(size, tileFormat);
        return makeRawStorage(size.x, size.y, _tile);
    }
    SharedPtr<ImageTile> _tile;
};

TEST_P(RawImageStorage, FirstReadAllocatesTheConstructorsSizeWithoutConversion) {
    auto storage = makeStorage(Vec2i(7, 5), PfRGB8);
    EXPECT_EQ(formats(*storage), single(PfInvalid));
    EXPECT_EQ(storage->memoryConsumption(), 0u);

    SharedPtr<const GenImageData<unsigned char, 3>> view = storage->getDataRGB8();
    ASSERT_TRUE(view);
    EXPECT_EQ(view->width(), 7);
    EXPECT_EQ(view->height(), 5);
    EXPECT_EQ(view->stride(), 96u) << "a row of RGB8 is a whole number of 32-pixel groups";
    EXPECT_EQ(formats(*storage), single(PfRGB8));
    EXPECT_EQ(storage->memoryConsumption(), 105u);
    EXPECT_EQ(processorBytes(), 105u);
    EXPECT_EQ(processorEntries(), 1u);

    // The write path starts a storage the same way.
    auto other = makeRawStorage(3, 2, _tile);
    auto target = other->getTargetLum32F();
    ASSERT_TRUE(target);
    EXPECT_EQ(target->width(), 3);
    EXPECT_EQ(formats(*other), single(PfLum32F));
    EXPECT_EQ(processorBytes(), 105u + 24u);

    // Managed buffers are blocks of the memory manager; plain ones are not.
    memory::NmStatistic stats;
    ASSERT_EQ(memory::nmGetStatistic(&stats), memory::NM_OK);
    EXPECT_EQ(stats.memoryObjectCount > 0, GetParam());
}

TEST_P(RawImageStorage, ThirdFormatReplacesTheSecondaryAndKeepsThePrimary) {
    auto storage = makeStorage(Vec2i(13, 3), PfRGBA8);
    storage->setDataRGBA8(makePattern(13, 3, 7));
    EXPECT_EQ(processorBytes(), 156u);

    auto b = storage->getDataRGB16();
    EXPECT_EQ(formats(*storage), std::make_pair(PfRGBA8, PfRGB16));
    EXPECT_TRUE(holdsPattern(*b, PfRGB16, 7));
    EXPECT_EQ(processorBytes(), 156u + 234u);
    EXPECT_EQ(processorEntries(), 2u);

    auto c = storage->getDataLum32F();
    EXPECT_EQ(formats(*storage), std::make_pair(PfRGBA8, PfLum32F));
    EXPECT_TRUE(holdsPattern(*c, PfLum32F, 7)) << "converted from the primary";
    EXPECT_EQ(storage->memoryConsumption(), 156u + 156u);
    EXPECT_EQ(processorBytes(), 156u + 156u);
    EXPECT_EQ(processorEntries(), 2u);
    // The dropped format's view still reads.
    EXPECT_TRUE(holdsPattern(*b, PfRGB16, 7));
    EXPECT_TRUE(holdsPattern(*storage->getDataRGBA8(), PfRGBA8, 7));
}

TEST_P(RawImageStorage, AlternatingTwoFormatsConvertsOnce) {
    auto storage = makeStorage(Vec2i(9, 4), PfRGBA8);
    storage->setDataRGBA8(makePattern(9, 4, 1));
    auto a = storage->getDataRGBA8();
    auto b = storage->getDataRGBA32F();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(storage->getDataRGBA8().get(), a.get());
        EXPECT_EQ(storage->getDataRGBA32F().get(), b.get()) << "converted again";
    }
    EXPECT_EQ(formats(*storage), std::make_pair(PfRGBA8, PfRGBA32F));
}

TEST_P(RawImageStorage, WriteTargetMakesItsFormatTheOnlyOne) {
    auto storage = makeStorage(Vec2i(6, 5), PfRGBA8);
    storage->setDataRGBA8(makePattern(6, 5, 3));
    storage->getDataBGRA8();

    // The target of the secondary: the primary goes, the converted pixels stay.
    auto target = storage->getTargetBGRA8();
    EXPECT_EQ(formats(*storage), single(PfBGRA8));
    EXPECT_EQ(processorBytes(), 120u);
    EXPECT_EQ(processorEntries(), 1u);
    EXPECT_TRUE(holdsPattern(*target, PfBGRA8, 3));

    // What is written through the target is what every later read sees.
    const std::vector<unsigned char> next = patternIn(PfBGRA8, 6, 5, 4);
    for (int y = 0; y < 5; ++y) std::memcpy(target->row(y), next.data() + y * 24, 24);
    target.reset();
    EXPECT_TRUE(holdsPattern(*storage->getDataRGBA8(), PfRGBA8, 4));
    EXPECT_EQ(formats(*storage), std::make_pair(PfBGRA8, PfRGBA8));

    // The target of the primary drops the secondary.
    storage->getTargetBGRA8();
    EXPECT_EQ(formats(*storage), single(PfBGRA8));
    EXPECT_EQ(processorBytes(), 120u);
}

TEST_P(RawImageStorage, SetDataCopiesAndTakesTheDataSize) {
    auto storage = makeStorage(Vec2i(4, 4), PfRGBA8);
    storage->getDataRGB8();
    storage->getDataLum8();
    SharedPtr<Rgba8> data = makePattern(6, 2, 9);
    storage->setDataRGBA8(data);
    EXPECT_EQ(storage->width(), 6);
    EXPECT_EQ(storage->height(), 2);
    EXPECT_EQ(formats(*storage), single(PfRGBA8));
    EXPECT_EQ(storage->memoryConsumption(), 48u);
    EXPECT_EQ(processorBytes(), 48u);

    fillPattern(*data, 10);  // the caller's buffer changes afterwards
    auto view = storage->getDataRGBA8();
    EXPECT_NE(view->data(), data->data());
    EXPECT_TRUE(holdsPattern(*view, PfRGBA8, 9));

    storage->setDataLum16(makePatternIn<PfLum16>(3, 3, 2));
    EXPECT_EQ(formats(*storage), single(PfLum16));
    EXPECT_EQ(processorBytes(), 18u);
    EXPECT_TRUE(holdsPattern(*storage->getDataLum16(), PfLum16, 2));
}

TEST_P(RawImageStorage, TryDiscardKeepsTheLastCopyAndTheTilesOwnFormat) {
    auto storage = makeStorage(Vec2i(8, 4), PfRGB8);
    storage->setDataRGBA16(makePatternIn<PfRGBA16>(8, 4, 5));
    EXPECT_FALSE(storage->tryDiscardPixelFormat(PfRGBA16)) << "the only copy";
    EXPECT_FALSE(storage->tryDiscardPixelFormat(PfRGB16)) << "not held";
    EXPECT_EQ(formats(*storage), single(PfRGBA16));

    storage->getDataLum8();
    EXPECT_FALSE(storage->tryDiscardPixelFormat(PfRGBA16)) << "Lum8 is not the tile's format";
    EXPECT_TRUE(storage->tryDiscardPixelFormat(PfLum8));
    EXPECT_EQ(formats(*storage), single(PfRGBA16));
    EXPECT_EQ(processorBytes(), 256u);

    // With the tile's own format as the cached copy, the primary may go: the two change places.
    storage->getDataRGB8();
    EXPECT_TRUE(storage->tryDiscardPixelFormat(PfRGBA16));
    EXPECT_EQ(formats(*storage), single(PfRGB8));
    EXPECT_EQ(storage->memoryConsumption(), 96u);
    EXPECT_EQ(processorBytes(), 96u);
    EXPECT_EQ(processorEntries(), 1u);
    EXPECT_TRUE(holdsPattern(*storage->getDataRGB8(), PfRGB8, 5));
}

TEST_P(RawImageStorage, MemoryConsumptionIsTheCostOfBothFormatsWithoutPadding) {
    auto storage = makeStorage(Vec2i(5, 3), PfRGB8);
    storage->getTargetRGB8();
    storage->getDataRGBA16F();
    EXPECT_EQ(storage->memoryConsumption(), 45u + 120u);
    EXPECT_EQ(processorBytes(), 45u + 120u);
}

// Reads `format`'s view of a storage holding pattern `id` as RGBA8.
template <RawPixelFormat F>
void expectReadAsConversion(Vec2i size, unsigned id) {
    auto storage = makeRawStorage(size.x, size.y);
    storage->setDataRGBA8(makePattern(size.x, size.y, id));
    auto view = storage->getData<F>();
    EXPECT_TRUE(holdsPattern(*view, F, id)) << "RGBA8 to " << pixelFormatString(F);
}

// Stores pattern `id` in `F` and reads it as RGBA32F.
template <RawPixelFormat F>
void expectReadFromConversion(Vec2i size, unsigned id) {
    auto storage = makeRawStorage(size.x, size.y);
    const std::vector<unsigned char> source = patternIn(F, size.x, size.y, id);
    storage->setData<F>(makeView<F>(size.x, size.y, source));
    auto view = storage->getDataRGBA32F();
    EXPECT_TRUE(sameRows(*view, convertRows(source, F, PfRGBA32F, size.x, size.y)))
        << pixelFormatString(F) << " to RGBA32F";
}

TEST_P(RawImageStorage, ConvertsAsImageDataConversionDoes) {
    // Odd widths leave padding at the end of the rows of every format.
    for (Vec2i size : {Vec2i(13, 3), Vec2i(33, 2)}) {
#define QOR_CHECK_FORMAT(S, T, N)            \
    expectReadAsConversion<Pf##S>(size, 11); \
    expectReadFromConversion<Pf##S>(size, 12);
        QOR_RAW_STORAGE_FORMATS(QOR_CHECK_FORMAT)
#undef QOR_CHECK_FORMAT
    }
}

TEST_P(RawImageStorage, ViewsOutliveTheirStorage) {
    LogCapture log;
    SharedPtr<const Rgba8> read;
    SharedPtr<GenImageData<float, 1>> written;
    {
        auto storage = makeStorage(Vec2i(40, 30), PfRGBA8);
        storage->setDataRGBA8(makePattern(40, 30, 5));
        read = storage->getDataRGBA8();
        written = storage->getTargetLum32F();
        _tile.reset();
    }
    EXPECT_EQ(processorEntries(), 0u);
    EXPECT_TRUE(holdsPattern(*read, PfRGBA8, 5));
    EXPECT_TRUE(holdsPattern(*written, PfLum32F, 5));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) written->at(x, y) = 0.5f;
    EXPECT_FALSE(log.contains("not unique"));
    EXPECT_EQ(log.assertions(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Buffers, RawImageStorage, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "Managed" : "Plain";
                         });

TEST(GenImageData, RowsArePaddedAndTheReleaseRunsWithTheView) {
    EXPECT_EQ((GenImageData<unsigned char, 3>::defaultStride(1)), 96u);
    EXPECT_EQ((GenImageData<unsigned char, 4>::defaultStride(1)), 32u) << "32 bytes";
    EXPECT_EQ((GenImageData<unsigned short, 4>::defaultStride(3)), 16u);
    EXPECT_EQ((GenImageData<float, 1>::defaultStride(9)), 16u);

    int released = 0;
    unsigned char pixels[64] = {};
    LogCapture log;
    {
        GenImageData<unsigned char, 1> view(4, 2, 32, pixels, [&] { ++released; });
        EXPECT_EQ(view.row(1), pixels + 32);
        EXPECT_EQ(view.row(2), pixels) << "a bad row gives row 0";
        EXPECT_EQ(log.assertions("ln >= 0 && ln < _height"), 1u);
        EXPECT_EQ(released, 0);
    }
    EXPECT_EQ(released, 1);
    { GenImageData<unsigned char, 1> bad(0, 1, 0, pixels); }
    EXPECT_EQ(log.assertions("width > 0"), 1u);
    { GenImageData<unsigned char, 1> bad(1, 1, 0, nullptr); }
    EXPECT_EQ(log.assertions("src"), 1u);
}

class ManagedImageData : public TileTest {};

TEST_F(ManagedImageData, OneViewWhileItLivesAndTheBlockOutlivesItsOwner) {
    // 64 KiB: a whole block of the memory manager, not a piece of the pool.
    auto data = imaging::ManagedImageData<unsigned char, 4>::create(128, 128);
    auto write = data->getData(false);
    EXPECT_EQ(data->getData(true), write);
    fillPattern(*write, 8);
    write.reset();
    ASSERT_EQ(memory::nmClearUnlocked(0), memory::NM_OK);
    EXPECT_EQ(data->memoryFootprint(), 12u) << "swapped out";
    auto read = data->getData(true);
    data.reset();
    EXPECT_TRUE(holdsPattern(*read, PfRGBA8, 8));
}

TEST_F(ManagedImageData, BlocksThatCannotBeHadThrowBadAlloc) {
    LogCapture log;
    EXPECT_THROW((imaging::ManagedImageData<unsigned char, 4>::create(0, 4)), std::bad_alloc);
    EXPECT_TRUE(log.contains("Memory manager error: could not allocate the required space"));
    // More than 4 GiB is more than one block can hold.
    EXPECT_THROW((imaging::ManagedImageData<float, 4>::create(1 << 16, 1 << 14)), std::bad_alloc);
    auto storage = makeRawStorage(0, 3);
    EXPECT_THROW(storage->getDataRGBA8(), std::bad_alloc);
    EXPECT_EQ(storage->getCurrentPixelFormat(), PfInvalid) << "nothing was entered";
}

using RawImageStorageWriteRect = TileTest;

TEST_F(RawImageStorageWriteRect, CopiesEveryFlipModePixelByPixel) {
    auto src = makeRawStorage(6, 5);
    src->setDataRGBA8(makePattern(6, 5, 1));
    for (CopyFlippedMode mode : {COPY_NORMAL, COPY_FLIP_H, COPY_FLIP_V, COPY_FLIP_HV}) {
        auto dst = makeRawStorage(8, 7);
        dst->setDataRGBA8(makePattern(8, 7, 2));
        LogCapture log;
        EXPECT_TRUE(dst->writeRect(src.get(), kCopyRect, kCopyDest, mode));
        EXPECT_EQ(log.assertions(), 0u);
        EXPECT_EQ(countCopyErrors(packedRows(*dst->getDataRGBA8()), mode), 0) << "mode " << mode;
    }
}

TEST_F(RawImageStorageWriteRect, SwitchesTheDestinationToTheSourceFormat) {
    auto src = makeRawStorage(6, 5);
    src->setDataRGBA16(makePatternIn<PfRGBA16>(6, 5, 1));
    auto dst = makeRawStorage(8, 7);
    dst->setDataRGB8(makePatternIn<PfRGB8>(8, 7, 2));
    dst->getDataLum8();
    EXPECT_TRUE(dst->writeRect(src.get(), kCopyRect, kCopyDest, COPY_NORMAL));
    EXPECT_EQ(formats(*dst), single(PfRGBA16));
    EXPECT_EQ(formats(*src), single(PfRGBA16));

    // Outside the rectangle: the old pixels converted; inside: the source's, not converted.
    std::vector<unsigned char> expected =
        convertRows(patternIn(PfRGB8, 8, 7, 2), PfRGB8, PfRGBA16, 8, 7);
    const std::vector<unsigned char> source = patternIn(PfRGBA16, 6, 5, 1);
    for (int y = 0; y < 3; ++y)
        std::memcpy(&expected[((2 + y) * 8 + 3) * 8], &source[((1 + y) * 6 + 1) * 8], 4 * 8);
    EXPECT_TRUE(sameRows(*dst->getDataRGBA16(), expected));
}

TEST_F(RawImageStorageWriteRect, RefusesAStorageOfAnotherType) {
    auto tile = ImageTile::createNonCached(Vec2i(4, 4), PfRGBA8);
    SharedPtr<ImageStorage> shadow = ShadowStorage::withPattern(tile, 1)->setupSelfRef();
    auto dst = makeRawStorage(4, 4);
    dst->setDataRGB8(makePatternIn<PfRGB8>(4, 4, 2));
    EXPECT_FALSE(dst->writeRect(shadow.get(), Recti(0, 0, 2, 2), Vec2i(0, 0), COPY_NORMAL));
    EXPECT_EQ(formats(*dst), single(PfRGB8));
    EXPECT_TRUE(holdsPattern(*dst->getDataRGB8(), PfRGB8, 2));
}

TEST_F(RawImageStorageWriteRect, RectanglesOutsideAreReportedAndClipped) {
    auto src = makeRawStorage(6, 5);
    src->setDataRGBA8(makePattern(6, 5, 1));
    auto dst = makeRawStorage(4, 4);
    dst->setDataRGBA8(makePattern(4, 4, 2));
    LogCapture log;
    dst->writeRect(src.get(), Recti(0, 0, 3, 3), Vec2i(2, 2), COPY_FLIP_H);
    EXPECT_EQ(log.assertions("dstoffset.x + srcrect.width() <= _width"), 1u);
    EXPECT_EQ(log.assertions("dstoffset.y + srcrect.height() <= _height"), 1u);
    dst->writeRect(src.get(), Recti(4, 3, 4, 4), Vec2i(0, 0), COPY_NORMAL);
    EXPECT_EQ(
        log.assertions("(srcrect & math::Recti(0, 0, src->width(), src->height())) == srcrect"),
        1u);
    dst->writeRect(src.get(), Recti(0, 0, 1, 1), Vec2i(-1, 0), COPY_NORMAL);
    EXPECT_EQ(log.assertions("dstoffset.x >= 0 && dstoffset.y >= 0"), 1u);
    // What lies inside both was copied, nothing outside the destination was touched
    // (AddressSanitizer checks the rest), and pixels outside every copy kept their values.
    auto view = dst->getDataRGBA8();
    EXPECT_EQ(view->at(2, 2, 0), patternComponent(1, 2, 0, 0)) << "mirrored over the whole width";
    EXPECT_EQ(view->at(3, 3, 0), patternComponent(1, 1, 1, 0));
    EXPECT_EQ(view->at(0, 3, 1), patternComponent(2, 0, 3, 1));
    EXPECT_EQ(view->at(3, 0, 2), patternComponent(2, 3, 0, 2));
}

// A storage entered into the processor area whose eviction blocks until it is released, so that
// the thread evicting stays inside its own storage's registration.
class GateStorage : public ImageStorage {
public:
    GateStorage() : ImageStorage(WeakSharedPtr<ImageTile>()) {}
    RawPixelFormat getCurrentPixelFormat() override { return PfRGBA8; }
    int width() const override { return 1; }
    int height() const override { return 1; }
    unsigned int memoryConsumption() const override { return 1; }
    bool tryDiscardPixelFormat(RawPixelFormat) override {
        if (!entered.isOpen()) {
            entered.open();
            release.wait(30);
        }
        return false;
    }
    Latch entered;
    Latch release;
};

using RawImageStorageThreads = TileTest;

TEST_F(RawImageStorageThreads, TryDiscardGivesUpAtOnceWhileAnotherThreadHoldsTheStorage) {
    ImageStorageManager* manager = ImageStorageManager::instance();
    auto* gate = new GateStorage;
    SharedPtr<ImageStorage> gateRef = gate->setupSelfRef();
    manager->registerStorage("gate", gateRef, PfRGBA8, 1, SaProcessor);
    auto tile = ImageTile::createNonCached(Vec2i(16, 16), PfRGBA8);
    auto storage = makeRawStorage(16, 16, tile);
    storage->setDataRGBA8(makePattern(16, 16, 1));
    manager->setMemoryLimit(SaProcessor, manager->memoryConsumption(SaProcessor));

    // The conversion registers its new format, passes the limit and evicts, oldest first: the
    // gate, which holds that thread inside the storage's mutex.
    std::thread converter([&] { storage->getDataRGB8(); });
    const bool entered = gate->entered.wait(10);
    std::future<std::pair<bool, bool>> answer = std::async(std::launch::async, [&] {
        return std::make_pair(storage->tryDiscardPixelFormat(PfRGBA8),
                              storage->tryDiscardPixelFormat(PfRGB8));
    });
    const bool answered = answer.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    gate->release.open();
    converter.join();
    ASSERT_TRUE(entered) << "the conversion did not evict";
    EXPECT_TRUE(answered) << "tryDiscardPixelFormat waited for the busy storage";
    EXPECT_EQ(answer.get(), std::make_pair(false, false));
    // The registering thread skipped its own storage.
    EXPECT_EQ(formats(*storage), std::make_pair(PfRGBA8, PfRGB8));
    manager->setMemoryLimit(SaProcessor, ImageStorageManager::NoLimit);
    EXPECT_TRUE(storage->tryDiscardPixelFormat(PfRGB8));
}

TEST_F(RawImageStorageThreads, CopiesInOppositeDirectionsDoNotDeadlock) {
    auto a = makeRawStorage(8, 8);
    auto b = makeRawStorage(8, 8);
    a->setDataRGBA8(makePattern(8, 8, 1));
    b->setDataRGBA8(makePattern(8, 8, 2));
    // Empty rectangles: the storages' locks are taken as for any copy, no pixel is shared.
    auto copy = [](Storage* to, Storage* from) {
        return [to, from] {
            for (int i = 0; i < 2000; ++i)
                to->writeRect(from, Recti(0, 0, 0, 0), Vec2i(0, 0), COPY_NORMAL);
        };
    };
    runConcurrently({copy(a.get(), b.get()), copy(b.get(), a.get())}, 30,
                    "RawImageStorage::writeRect both ways");
    EXPECT_TRUE(holdsPattern(*a->getDataRGBA8(), PfRGBA8, 1));
    EXPECT_TRUE(holdsPattern(*b->getDataRGBA8(), PfRGBA8, 2));
}

}  // namespace
}  // namespace qor::imaging
