#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TileTestSupport.h"
#include "base/Log.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"
#include "imaging/RawImageStorage.h"

namespace qor::imaging {
namespace {

using namespace tiletest;
// The fixture below takes the class's name, as the suite is named after it.
using Manager = imaging::ImageStorageManager;

// An entry of a manager of its own: it notes each time eviction asks it and, when it gives in,
// leaves the manager as real storages do (from inside the eviction).
class ProbeEntry : public ImageStorage {
public:
    ProbeEntry(Manager* manager, std::string name, std::vector<std::string>* asked, bool gives)
        : ImageStorage(WeakSharedPtr<ImageTile>()),
          _manager(manager),
          _name(std::move(name)),
          _asked(asked),
          _gives(gives) {}
    static SharedPtr<ImageStorage> create(Manager* manager, std::string name,
                                          std::vector<std::string>* asked, bool gives = true) {
        return (new ProbeEntry(manager, std::move(name), asked, gives))->setupSelfRef();
    }

    void unregister() override {
        _manager->unregisterStorage(_selfRef, PfRGBA8);
        _manager->unregisterStorage(_selfRef, PfRGB8);
    }
    RawPixelFormat getCurrentPixelFormat() override { return PfRGBA8; }
    int width() const override { return 1; }
    int height() const override { return 1; }
    unsigned int memoryConsumption() const override { return 0; }
    bool tryDiscardPixelFormat(RawPixelFormat format) override {
        _asked->push_back(_name);
        if (!_gives) return false;
        _manager->unregisterStorage(_selfRef, format);
        return true;
    }

private:
    Manager* _manager;
    std::string _name;
    std::vector<std::string>* _asked;
    bool _gives;
};

using Names = std::vector<std::string>;

class ImageStorageManager : public TileTest {
protected:
    // Enters a probe of `cost` bytes into `area` of _manager and keeps it alive in _entries.
    void add(const std::string& name, std::uint64_t cost, int area = SaProcessor,
             bool gives = true) {
        _entries.push_back(ProbeEntry::create(&_manager, name, &_asked, gives));
        _manager.registerStorage("probe", _entries.back(), PfRGBA8, cost, area);
    }
    Manager _manager;
    Names _asked;
    std::vector<SharedPtr<ImageStorage>> _entries;
};

TEST_F(ImageStorageManager, EvictsLeastRecentlyTouchedFirst) {
    for (const char* name : {"a", "b", "c", "d"}) add(name, 10);
    _manager.touchStorage(_entries[0], PfRGBA8);
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 40u);
    _manager.setMemoryLimit(SaProcessor, 25);
    EXPECT_EQ(_asked, (Names{"b", "c"}));
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 20u);
    EXPECT_EQ(_manager.entryCount(SaProcessor), 2u);
}

TEST_F(ImageStorageManager, EntriesThatRefuseStayAndAreAskedOncePerEviction) {
    add("a", 10, SaProcessor, false);
    for (const char* name : {"b", "c", "d"}) add(name, 10);
    _manager.setMemoryLimit(SaProcessor, 25);
    EXPECT_EQ(_asked, (Names{"a", "b", "c"}));
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 20u);

    // What cannot go keeps the area above its limit; each entry is asked once.
    _asked.clear();
    _manager.setMemoryLimit(SaProcessor, 5);
    EXPECT_EQ(_asked, (Names{"d", "a"}));
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 10u);
    EXPECT_EQ(_manager.entryCount(SaProcessor), 1u);
}

TEST_F(ImageStorageManager, EachFormatOfAStorageIsAnEntryOfItsOwn) {
    add("a", 10);
    _manager.registerStorage("probe", _entries[0], PfRGBA8, 30, SaProcessor);
    EXPECT_EQ(_manager.entryCount(SaProcessor), 1u) << "registered again: updated in place";
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 30u);
    _manager.registerStorage("probe", _entries[0], PfRGB8, 5, SaProcessor);
    EXPECT_EQ(_manager.entryCount(SaProcessor), 2u);
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 35u);
    _manager.unregisterStorage(_entries[0], PfRGB8);
    _manager.unregisterStorage(_entries[0], PfLum8);
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 30u);

    // A storage that has gone is not entered; one that goes leaves.
    WeakSharedPtr<ImageStorage> gone = ProbeEntry::create(&_manager, "gone", &_asked);
    _manager.registerStorage("probe", gone, PfRGBA8, 100, SaProcessor);
    EXPECT_EQ(_manager.entryCount(SaProcessor), 1u);
    _entries.clear();
    EXPECT_EQ(_manager.entryCount(SaProcessor), 0u);
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 0u);
}

TEST_F(ImageStorageManager, DiscardTakesAtLeastTheBytesAskedFor) {
    for (const char* name : {"a", "b", "c", "d"}) add(name, 10);
    add("gpu", 10, SaGPU);
    EXPECT_EQ(_manager.discard(SaProcessor, 15), 20u);
    EXPECT_EQ(_asked, (Names{"a", "b"}));
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 20u);
    EXPECT_EQ(_manager.memoryConsumption(SaGPU), 10u);
    EXPECT_EQ(_manager.discard(SaProcessor, 0), 0u);
    EXPECT_EQ(_manager.discard(7, 100), 0u) << "an area nobody uses";
}

TEST_F(ImageStorageManager, GraphicsAndProcessorAreasAreKeptApart) {
    add("a", 10);
    add("g1", 100, SaGPU);
    add("b", 10);
    add("g2", 100, SaGPU);
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 20u);
    EXPECT_EQ(_manager.memoryConsumption(SaGPU), 200u);
    _manager.setMemoryLimit(SaGPU, 150);
    EXPECT_EQ(_asked, (Names{"g1"}));
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 20u);
    EXPECT_EQ(_manager.memoryLimit(SaProcessor), Manager::NoLimit);
    EXPECT_EQ(_manager.memoryLimit(SaGPU), 150u);

    // Touching moves an entry within its own area only.
    _manager.touchStorage(_entries[0], PfRGBA8);
    _manager.setMemoryLimit(SaProcessor, 10);
    EXPECT_EQ(_asked, (Names{"g1", "b"}));
}

TEST_F(ImageStorageManager, LimitSetToTheCurrentConsumptionEvictsOnTheNextEntry) {
    add("a", 10);
    add("b", 10);
    LogCapture log;
    _manager.setMemoryLimitToCurrentConsumption(SaProcessor);
    EXPECT_EQ(_manager.memoryLimit(SaProcessor), 20u);
    EXPECT_TRUE(log.contains("Memory limit of storage area 0 set to 20 bytes"));
    EXPECT_TRUE(_asked.empty());
    add("c", 10);
    EXPECT_EQ(_asked, (Names{"a"}));
    EXPECT_EQ(_manager.memoryConsumption(SaProcessor), 20u);
}

// Three tiles declared in RGBA8 with an RGB8 copy each; tile 0's copy was read last.
struct ThreeTiles {
    ThreeTiles() {
        for (int i = 0; i < 3; ++i) {
            tiles.push_back(ImageTile::createNonCached(Vec2i(8, 8), PfRGBA8));
            tiles[i]->setDataRGBA8(makePattern(8, 8, i));
            tiles[i]->getDataRGB8();
            storages.push_back(tiles[i]->getData<RawImageStorage>());
        }
        tiles[0]->getDataRGB8();
    }
    std::vector<RawPixelFormat> secondaries() const {
        std::vector<RawPixelFormat> result;
        for (const auto& s : storages) result.push_back(s->secondaryPixelFormat());
        return result;
    }
    std::vector<SharedPtr<ImageTile>> tiles;
    std::vector<SharedPtr<RawImageStorage>> storages;
};

TEST_F(ImageStorageManager, ProcessorStoragesLoseTheirOldestConversionsFirst) {
    Manager* manager = Manager::instance();
    ThreeTiles three;
    EXPECT_EQ(manager->memoryConsumption(SaProcessor), 3u * (256 + 192));
    manager->setMemoryLimit(SaProcessor, 3 * (256 + 192) - 192);
    EXPECT_EQ(three.secondaries(), (std::vector<RawPixelFormat>{PfRGB8, PfInvalid, PfRGB8}));

    // Primaries are the last copies: they stay above any limit.
    manager->setMemoryLimit(SaProcessor, 0);
    EXPECT_EQ(three.secondaries(), std::vector<RawPixelFormat>(3, PfInvalid));
    EXPECT_EQ(manager->memoryConsumption(SaProcessor), 3u * 256);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(holdsPattern(*three.tiles[i]->getDataRGBA8(), PfRGBA8, i));
}

TEST_F(ImageStorageManager, EvictionKeepsTheTilesOwnFormat) {
    Manager* manager = Manager::instance();
    auto tile = ImageTile::createNonCached(Vec2i(8, 8), PfRGB8);
    tile->setRawData<PfRGBA8>(makePattern(8, 8, 3));
    auto storage = tile->getData<RawImageStorage>();
    tile->getDataRGB8();  // the primary, touched first, is the older entry
    EXPECT_EQ(storage->getCurrentPixelFormat(), PfRGBA8);
    manager->setMemoryLimit(SaProcessor, 0);
    EXPECT_EQ(storage->getCurrentPixelFormat(), PfRGB8);
    EXPECT_EQ(storage->secondaryPixelFormat(), PfInvalid);
    EXPECT_EQ(manager->memoryConsumption(SaProcessor), 192u);
    EXPECT_TRUE(holdsPattern(*tile->getDataRGB8(), PfRGB8, 3));
}

TEST_F(ImageStorageManager, StorageRegisteringOnTheEvictingThreadIsSkipped) {
    Manager* manager = Manager::instance();
    auto tile = ImageTile::createNonCached(Vec2i(8, 8), PfRGBA8);
    tile->setDataRGBA8(makePattern(8, 8, 1));
    manager->setMemoryLimit(SaProcessor, 0);
    // The conversion's registration passes the limit while the storage's mutex is held.
    EXPECT_TRUE(holdsPattern(*tile->getDataRGB8(), PfRGB8, 1));
    auto storage = tile->getData<RawImageStorage>();
    EXPECT_EQ(storage->secondaryPixelFormat(), PfRGB8);
    // From outside, the conversion can go.
    EXPECT_EQ(manager->discard(SaProcessor, 1), 192u);
    EXPECT_EQ(storage->secondaryPixelFormat(), PfInvalid);
}

TEST_F(ImageStorageManager, StorageWithoutTileCanBeEvicted) {
    Manager* manager = Manager::instance();
    auto storage = makeRawStorage(8, 8);
    storage->setDataRGBA8(makePattern(8, 8, 1));
    storage->getDataRGB8();
    LogCapture log;
    manager->setMemoryLimit(SaProcessor, 0);
    EXPECT_EQ(storage->secondaryPixelFormat(), PfInvalid);
    EXPECT_EQ(storage->getCurrentPixelFormat(), PfRGBA8);
    EXPECT_EQ(log.assertions(), 0u);
}

}  // namespace
}  // namespace qor::imaging
