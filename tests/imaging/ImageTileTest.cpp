#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Log.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageStorageHandler.h"

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
    unsigned int memoryConsumption() const override {
        return computeMemoryCost(4, 2, PfRGBA8);
    }

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
    registry.registerNativeGetter("texture", "storageA", [&](const ImageStorage*, void*) {
        ++calls;
    });
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

}  // namespace
}  // namespace qor::imaging
