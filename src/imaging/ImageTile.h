#pragma once
// ImageTile: one rectangular block of pixels, held in up to one storage per storage type (processor
// memory, a texture ...), keyed by the type's name. The tile moves data between storages on
// demand: asking for a type it does not hold converts from one it does, through processor memory
// when no direct path exists, and keeps both copies. Writing through a type drops every other.
//
// Ownership: a tile exists only behind the SharedPtr of create/createNonCached; storages hold a
// weak reference to it. Tiles are shared as SharedPtr<const ImageTile> between caches and readers:
// reading may add a storage to a const tile.
//
// Thread contract: one mutex per tile guards the storages and the draw parameters; size, format
// and version are read without it. getDataGeneric opens the mutex around a read back, which can
// wait for the GL thread. Two tiles are locked together by try-and-swap, never in a fixed order.
// Lock order: the tile's mutex, then a storage's, then ImageStorageManager's.

#include <atomic>
#include <map>
#include <string_view>
#include <typeinfo>

#include "base/thread/Mutex.h"
#include "imaging/DrawParameters.h"
#include "imaging/GenImageData.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageStorageHandler.h"
#include "imaging/PixelFormat.h"
#include "imaging/RawImageStorage.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

class ImageTile {
public:
    // A new tile, through the tile cache's allocator. Not valid until it has data.
    static SharedPtr<ImageTile> create(GenVec<int, 2> size, RawPixelFormat format,
                                       const DrawParameters& params = DrawParameters());
    // A new tile outside any cache.
    static SharedPtr<ImageTile> createNonCached(GenVec<int, 2> size, RawPixelFormat format,
                                                const DrawParameters& params = DrawParameters());
    // Clears the storages; logs "%* not unique on ImageTile::clearUnlocked()!" for a storage that
    // is still referenced elsewhere.
    ~ImageTile();
    ImageTile(const ImageTile&) = delete;
    ImageTile& operator=(const ImageTile&) = delete;

    GenVec<int, 2> size() const { return GenVec<int, 2>(_width, _height); }
    int width() const { return _width; }
    int height() const { return _height; }
    RawPixelFormat pixelFormat() const { return _pixelFormat; }
    // Advances with every write (setData, a write target, writeSubRect, clear).
    unsigned int version() const { return _version.load(std::memory_order_acquire); }
    DrawParameters getDrawParameters() const;
    // Whether any storage holds the data.
    bool valid() const;
    // The sum of the storages' memory consumption.
    unsigned int memoryConsumption() const;

    // Stores the parameters and passes them to every storage; logs "params.isValid()".
    void setDrawParameters(const DrawParameters& params);
    void updateMipmaps();
    // Drops every storage; the tile is then not valid.
    void clear();
    // Makes `storage` (whose parent must be this tile, of a registered type) the only storage.
    // Takes ownership: the storage is put behind its self reference here.
    void setData(ImageStorage* storage);
    // Drops the storage of `type` if another storage keeps the data (a processor copy). Returns
    // whether it went.
    bool tryDiscardDataGeneric(const FastString<char>& type);

    // Copies srcRect of `src` to destPos, mirrored as `mode` says, through whichever storage takes
    // it. May block (read back, conversion).
    void writeSubRect(const RawImageStorage* src, const Recti& srcRect, Vec2i destPos,
                      CopyFlippedMode mode = COPY_NORMAL);
    void writeSubRect(const SharedPtr<GenImageData<unsigned char, 4>>& src, const Recti& srcRect,
                      Vec2i destPos, CopyFlippedMode mode = COPY_NORMAL);
    // From another tile (not this one): a storage pair that can copy directly is preferred, so a
    // texture tile writes into a texture without reading back.
    void writeSubRect(const SharedPtr<const ImageTile>& src, const Recti& srcRect, Vec2i destPos,
                      CopyFlippedMode mode = COPY_NORMAL);

    // The storage of type T for reading, converted from another storage when the tile lacks it;
    // null after a logged assertion when T is not registered. May block.
    template <class T>
    SharedPtr<T> getData() const {
        ScopedLock<Mutex> lock(_mutex);
        return dynamic_ptr_cast<T>(getDataGeneric(storageTypeName<T>(), lock, true));
    }
    // The storage of type T for writing: every other storage is dropped. May block.
    template <class T>
    SharedPtr<T> getDataTarget() {
        ScopedLock<Mutex> lock(_mutex);
        return dynamic_ptr_cast<T>(getDataTargetGeneric(storageTypeName<T>(), lock, true));
    }
    template <class T>
    bool hasData() const {
        return hasDataGeneric(storageTypeName<T>());
    }
    // A processor copy of the pixels in the tile's format, read from the first storage that can
    // give one, which the tile does not keep; null when none can. May block (a texture waits for
    // the GL thread unless called there).
    SharedPtr<RawImageStorage> readBackCopy() const;
    // Drops the storage of type T whatever else the tile holds. Returns whether there was one.
    template <class T>
    bool discardData() {
        ScopedLock<Mutex> lock(_mutex);
        return discardDataGenericUnlocked(storageTypeName<T>(), lock);
    }
    template <class T>
    bool tryDiscardData() {
        return tryDiscardDataGeneric(storageTypeName<T>());
    }
    // Registers the storage type T with its handler (owned by the registry from then on).
    template <class T>
    static void registerStorageType(ImageStorageHandler* handler) {
        registerStorageTypeGeneric(handler, storageTypeName<T>());
    }
    template <class T>
    static bool isStorageRegistered() {
        return isStorageRegisteredGeneric(storageTypeName<T>());
    }

    // A native object (for instance a texture handle) out of the storage that offers it, converting
    // to that storage when needed. False when no storage type offers N.
    template <class N>
    bool getNativeData(N* result) const {
        return getNativeDataGeneric(typeid(N).name(), result);
    }
    // A native object to write through; the storage that offers it becomes the only one.
    template <class N>
    bool getNativeDataTarget(N* result) {
        return getNativeDataTargetGeneric(typeid(N).name(), result);
    }
    // Hands a native object to the storage type that takes it, which becomes the only storage.
    template <class N>
    bool setNativeData(const N& value) {
        return setNativeDataGeneric(typeid(N).name(), &value);
    }
    template <class N>
    static void registerNativeGetter(const char* storageType, NativeGetter fn) {
        registerNativeGetterGeneric(typeid(N).name(), storageType, std::move(fn));
    }
    template <class N>
    static void registerNativeSetter(const char* storageType, NativeSetter fn) {
        registerNativeSetterGeneric(typeid(N).name(), storageType, std::move(fn));
    }
    template <class N>
    static void registerNativeTargetGetter(const char* storageType, NativeTargetGetter fn) {
        registerNativeTargetGetterGeneric(typeid(N).name(), storageType, std::move(fn));
    }

    // Pixels by processor format: the raw storage is taken for reading (getRawData) or as the
    // write target (getRawDataTarget, setRawData). setRawData logs
    // "data->width() == width() && data->height() == height()" for data of another size and stores
    // it all the same. May block; throw std::bad_alloc.
    template <RawPixelFormat F>
    SharedPtr<const RawImageDataOf<F>> getRawData() const {
        SharedPtr<RawImageStorage> raw = getData<RawImageStorage>();
        return raw ? raw->getData<F>() : nullptr;
    }
    template <RawPixelFormat F>
    SharedPtr<RawImageDataOf<F>> getRawDataTarget() {
        SharedPtr<RawImageStorage> raw = getDataTarget<RawImageStorage>();
        return raw ? raw->getTarget<F>() : nullptr;
    }
    template <RawPixelFormat F>
    void setRawData(const SharedPtr<const RawImageDataOf<F>>& data) {
        QOR_ASSERT_TEXT(data && data->width() == width() && data->height() == height(),
                        "data->width() == width() && data->height() == height()");
        if (SharedPtr<RawImageStorage> raw = getDataTarget<RawImageStorage>())
            raw->setData<F>(data);
    }

#define QOR_TILE_PIXEL_ACCESSORS(S)                                                           \
    void setData##S(const SharedPtr<const RawImageDataOf<Pf##S>>& data) {                     \
        setRawData<Pf##S>(data);                                                              \
    }                                                                                         \
    SharedPtr<const RawImageDataOf<Pf##S>> getData##S() const { return getRawData<Pf##S>(); } \
    SharedPtr<RawImageDataOf<Pf##S>> getDataTarget##S() { return getRawDataTarget<Pf##S>(); }
    QOR_TILE_PIXEL_ACCESSORS(Red16)
    QOR_TILE_PIXEL_ACCESSORS(Red32F)
    QOR_TILE_PIXEL_ACCESSORS(Lum32F)
    QOR_TILE_PIXEL_ACCESSORS(RGB8)
    QOR_TILE_PIXEL_ACCESSORS(RGB16)
    QOR_TILE_PIXEL_ACCESSORS(RGBA8)
    QOR_TILE_PIXEL_ACCESSORS(RGBA16)
    QOR_TILE_PIXEL_ACCESSORS(BGRA8)
#undef QOR_TILE_PIXEL_ACCESSORS

    // Deletes the storage type registry and its handlers. Only at shutdown.
    static void cleanupStorageTypes();

private:
    struct KeyLess {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const { return a < b; }
    };
    using StorageMap = std::map<FastString<char>, SharedPtr<ImageStorage>, KeyLess>;

    ImageTile(GenVec<int, 2> size, RawPixelFormat format, const DrawParameters& params);
    void setupSelfRef(const SharedPtr<ImageTile>& self);

    bool hasDataGeneric(const char* type) const;
    void touch(const char* type) const QOR_REQUIRES(_mutex);
    SharedPtr<ImageStorage> getDataGeneric(const char* type, ScopedLock<Mutex>& lock,
                                           bool touch) const QOR_REQUIRES(_mutex);
    SharedPtr<ImageStorage> getDataTargetGeneric(const char* type, ScopedLock<Mutex>& lock,
                                                 bool touch) QOR_REQUIRES(_mutex);
    // A blank storage of `type`: a raw storage built here, any other through its handler.
    SharedPtr<ImageStorage> createEmptyStorage(const char* type, const ImageFormatInfo* info) const
        QOR_REQUIRES(_mutex);
    bool getNativeDataGeneric(const char* native, void* result) const;
    bool getNativeDataTargetGeneric(const char* native, void* result);
    bool setNativeDataGeneric(const char* native, const void* value);
    void clearUnlocked() QOR_REQUIRES(_mutex);
    void setDrawParametersUnlocked(const DrawParameters& params) QOR_REQUIRES(_mutex);
    bool discardDataGenericUnlocked(const char* type, ScopedLock<Mutex>& lock) QOR_REQUIRES(_mutex);
    bool tryDiscardDataGenericUnlocked(const char* type, ScopedLock<Mutex>& lock)
        QOR_REQUIRES(_mutex);
    // Logs a storage that is about to be dropped while others still hold it.
    static void checkUniqueOnClear(const SharedPtr<ImageStorage>& storage);
    void advanceVersion() { _version.fetch_add(1, std::memory_order_acq_rel); }

    static void registerStorageTypeGeneric(ImageStorageHandler* handler, const char* type);
    static bool isStorageRegisteredGeneric(const char* type);
    static void registerNativeGetterGeneric(const char* native, const char* type, NativeGetter fn);
    static void registerNativeSetterGeneric(const char* native, const char* type, NativeSetter fn);
    static void registerNativeTargetGetterGeneric(const char* native, const char* type,
                                                  NativeTargetGetter fn);

    mutable Mutex _mutex;  // guards _storages, _drawParameters
    std::atomic<unsigned int> _version{0};
    const int _width;
    const int _height;
    const RawPixelFormat _pixelFormat;
    WeakSharedPtr<ImageTile> _selfRef;
    mutable StorageMap _storages QOR_GUARDED_BY(_mutex);
    DrawParameters _drawParameters QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::imaging
