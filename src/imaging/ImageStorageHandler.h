#pragma once
// ImageStorageHandler: the factory and description of one storage type, so that new storage types
// (textures, native bitmaps) can be added at run time without the tile layer depending on them.
// ImageStorageTypeRegistry: the process-wide lists of storage types and of the native getters and
// setters that storages offer, searched by type name.
//
// Ownership: the registry owns the handlers given to it and deletes them in destroy().
// Thread contract: handlers are called from any thread that reads or writes a tile, with the
// tile's mutex held; a handler states where it may be used beyond that. The registry has its own
// mutex, held only during one search or insertion.

#include <memory>
#include <string_view>
#include <vector>

#include "base/thread/Mutex.h"
#include "imaging/DrawParameters.h"
#include "imaging/PixelFormat.h"
#include "text/FastString.h"
#include "util/Function.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

class ImageStorage;
class ImageTile;
class RawImageStorage;

class ImageStorageHandler {
public:
    virtual ~ImageStorageHandler();

    // Whether storages of this type can be read back into processor memory; only such a type may
    // be a write target.
    virtual bool supportsReadBack() = 0;
    // A storage of this type with the data of `storage`, a storage of another type. Null when no
    // direct path exists (the default), in which case the tile goes through raw data.
    virtual SharedPtr<ImageStorage> createFromStorage(const SharedPtr<ImageStorage>& storage,
                                                      RawPixelFormat format,
                                                      const WeakSharedPtr<ImageTile>& parent,
                                                      const DrawParameters& params);
    // A storage of this type with the data of a raw storage. Null on failure.
    virtual SharedPtr<ImageStorage> createFromRaw(const SharedPtr<RawImageStorage>& raw,
                                                  RawPixelFormat format,
                                                  const WeakSharedPtr<ImageTile>& parent,
                                                  const DrawParameters& params) = 0;
    // A blank storage of this type; null where the type has no such form (the default).
    virtual SharedPtr<ImageStorage> createEmpty(int width, int height, RawPixelFormat format,
                                                const WeakSharedPtr<ImageTile>& parent,
                                                const DrawParameters& params);
};

// One registered storage type. Entries are never moved or freed before destroy(), so a pointer
// to one stays valid.
struct ImageFormatInfo {
    FastString<char> name;
    ImageStorageHandler* handler = nullptr;
};

// Hands a native object (a texture handle, say) out of a storage, or takes one in.
using NativeGetter = Function2<void, const ImageStorage*, void*>;
using NativeSetter = Function2<void, ImageStorage*, const void*>;
using NativeTargetGetter = Function2<void, ImageStorage*, void*>;

// One native accessor: the native type it deals in, the storage type it works on, the function.
template <class F>
struct NativeAccessor {
    FastString<char> nativeType;
    FastString<char> storageType;
    F function;
};

class ImageStorageTypeRegistry {
public:
    // The registry, made on first use with the processor storage type registered. Thread-safe.
    static ImageStorageTypeRegistry* instance();
    // Deletes the registry and its handlers; the next instance() makes a fresh one. Only at
    // shutdown, when no tile is used any more.
    static void destroy();

    // A registry of its own, apart from the process-wide one; for tests.
    ImageStorageTypeRegistry() = default;
    ~ImageStorageTypeRegistry();
    ImageStorageTypeRegistry(const ImageStorageTypeRegistry&) = delete;
    ImageStorageTypeRegistry& operator=(const ImageStorageTypeRegistry&) = delete;

    // Enters a storage type and takes ownership of its handler. A name registered before keeps its
    // first handler (pointers to it may be in use): the new one is deleted and a warning logged.
    void registerFormat(ImageStorageHandler* handler, std::string_view type);
    // The entry of `type`, or null.
    const ImageFormatInfo* findFormat(std::string_view type) const;

    void registerNativeGetter(std::string_view native, std::string_view type, NativeGetter fn);
    void registerNativeSetter(std::string_view native, std::string_view type, NativeSetter fn);
    void registerNativeTargetGetter(std::string_view native, std::string_view type,
                                    NativeTargetGetter fn);
    // Copies of the accessors for `native`, in registration order.
    std::vector<NativeAccessor<NativeGetter>> nativeGetters(std::string_view native) const;
    std::vector<NativeAccessor<NativeSetter>> nativeSetters(std::string_view native) const;
    std::vector<NativeAccessor<NativeTargetGetter>> nativeTargetGetters(
        std::string_view native) const;

private:
    mutable thread::Mutex _mutex;
    std::vector<std::unique_ptr<ImageFormatInfo>> _formats
        QOR_GUARDED_BY(_mutex);  // guarded by _mutex
    std::vector<NativeAccessor<NativeGetter>> _getters QOR_GUARDED_BY(_mutex);  // guarded by _mutex
    std::vector<NativeAccessor<NativeSetter>> _setters QOR_GUARDED_BY(_mutex);  // guarded by _mutex
    std::vector<NativeAccessor<NativeTargetGetter>> _targetGetters
        QOR_GUARDED_BY(_mutex);  // guarded by _mutex
};

}  // namespace qor::imaging
