#include "imaging/ImageTile.h"

#include <thread>
#include <vector>

#include "base/Log.h"
#include "imaging/ImageStorageManager.h"

namespace qor::imaging {

namespace {

ImageStorageTypeRegistry* registry() { return ImageStorageTypeRegistry::instance(); }

const char* rawTypeName() { return storageTypeName<RawImageStorage>(); }

bool isRawType(std::string_view type) { return type == rawTypeName(); }

}  // namespace

SharedPtr<ImageTile> ImageTile::create(GenVec<int, 2> size, RawPixelFormat format,
                                       const DrawParameters& params) {
    return createNonCached(size, format, params);
}

SharedPtr<ImageTile> ImageTile::createNonCached(GenVec<int, 2> size, RawPixelFormat format,
                                                const DrawParameters& params) {
    SharedPtr<ImageTile> tile(new ImageTile(size, format, params));
    tile->setupSelfRef(tile);
    return tile;
}

ImageTile::ImageTile(GenVec<int, 2> size, RawPixelFormat format, const DrawParameters& params)
    : _width(size.x), _height(size.y), _pixelFormat(format), _drawParameters(params) {
    QOR_ASSERT_TEXT(size.x > 0 && size.y > 0, "size.x > 0 && size.y > 0");
    QOR_ASSERT_TEXT(params.isValid(), "params.isValid()");
}

void ImageTile::setupSelfRef(const SharedPtr<ImageTile>& self) {
    QOR_ASSERT_TEXT(_selfRef.expired(), "_selfRef.isNull()");
    _selfRef = self;
}

ImageTile::~ImageTile() {
    ScopedLock<Mutex> lock(_mutex);
    for (const auto& [type, storage] : _storages) checkUniqueOnClear(storage);
    _storages.clear();
}

void ImageTile::checkUniqueOnClear(const SharedPtr<ImageStorage>& storage) {
    if (storage.use_count() == 1) return;
    QOR_LOG(LogWarning, "%* not unique on ImageTile::clearUnlocked()!",
            static_cast<const void*>(storage.get()));
    QOR_LOG(LogWarning, "SharedPtr %* held %* times", static_cast<const void*>(storage.get()),
            storage.use_count());
}

DrawParameters ImageTile::getDrawParameters() const {
    ScopedLock<Mutex> lock(_mutex);
    return _drawParameters;
}

bool ImageTile::valid() const {
    ScopedLock<Mutex> lock(_mutex);
    return !_storages.empty();
}

unsigned int ImageTile::memoryConsumption() const {
    ScopedLock<Mutex> lock(_mutex);
    unsigned int sum = 0;
    for (const auto& [type, storage] : _storages) sum += storage->memoryConsumption();
    return sum;
}

void ImageTile::setDrawParameters(const DrawParameters& params) {
    ScopedLock<Mutex> lock(_mutex);
    setDrawParametersUnlocked(params);
}

void ImageTile::setDrawParametersUnlocked(const DrawParameters& params) {
    QOR_ASSERT_TEXT(params.isValid(), "params.isValid()");
    if (params == _drawParameters) return;
    _drawParameters = params;
    for (const auto& [type, storage] : _storages) storage->setDrawParameters(params);
}

void ImageTile::updateMipmaps() {
    ScopedLock<Mutex> lock(_mutex);
    for (const auto& [type, storage] : _storages) storage->updateMipmaps();
}

void ImageTile::clear() {
    ScopedLock<Mutex> lock(_mutex);
    clearUnlocked();
}

void ImageTile::clearUnlocked() {
    for (const auto& [type, storage] : _storages) {
        QOR_ASSERT_TEXT(registry()->findFormat(type.view()), "ifi");
        checkUniqueOnClear(storage);
    }
    _storages.clear();
    advanceVersion();
}

void ImageTile::setData(ImageStorage* storage) {
    if (!storage) {
        QOR_ASSERT_TEXT(storage, "storage");
        return;
    }
    QOR_ASSERT_TEXT(storage->parent().lock().get() == this, "storage->parent() == this");
    const char* type = typeid(*storage).name();
    QOR_ASSERT_TEXT(isStorageRegisteredGeneric(type), "isStorageRegisteredGeneric(type)");
    ScopedLock<Mutex> lock(_mutex);
    clearUnlocked();
    _storages.emplace(type, storage->setupSelfRef());
}

bool ImageTile::hasDataGeneric(const char* type) const {
    ScopedLock<Mutex> lock(_mutex);
    return _storages.find(std::string_view(type)) != _storages.end();
}

SharedPtr<RawImageStorage> ImageTile::readBackCopy() const {
    std::vector<SharedPtr<ImageStorage>> sources;
    {
        ScopedLock<Mutex> lock(_mutex);
        for (const auto& [key, storage] : _storages) sources.push_back(storage);
    }
    // With the mutex open, as getData reads back: a texture may wait for the GL thread.
    for (const SharedPtr<ImageStorage>& source : sources)
        if (SharedPtr<RawImageStorage> copy = source->readBack(_pixelFormat, nullptr)) return copy;
    return nullptr;
}

void ImageTile::touch(const char* type) const {
    auto it = _storages.find(std::string_view(type));
    if (it == _storages.end()) return;
    const RawPixelFormat format = it->second->getCurrentPixelFormat();
    if (format != PfInvalid)
        ImageStorageManager::instance()->touchStorage(it->second->weakSelfRef(), format);
}

SharedPtr<ImageStorage> ImageTile::createEmptyStorage(const char* type,
                                                      const ImageFormatInfo* info) const {
    if (isRawType(type)) return (new RawImageStorage(_width, _height, _selfRef))->setupSelfRef();
    return info->handler->createEmpty(_width, _height, _pixelFormat, _selfRef, _drawParameters);
}

SharedPtr<ImageStorage> ImageTile::getDataGeneric(const char* type, ScopedLock<Mutex>& lock,
                                                  bool doTouch) const {
    const ImageFormatInfo* info = registry()->findFormat(type);
    if (!info) {
        QOR_ASSERT_TEXT(info, "fmt");
        return nullptr;
    }
    if (doTouch) touch(type);
    if (_storages.empty()) {
        SharedPtr<ImageStorage> storage = createEmptyStorage(type, info);
        if (storage) _storages.emplace(type, storage);
        return storage;
    }
    if (auto it = _storages.find(std::string_view(type)); it != _storages.end()) return it->second;

    if (isRawType(type)) {
        // Read back with the mutex open: it may wait for the GL thread. Whatever was read from
        // the map before may be stale afterwards.
        std::vector<SharedPtr<ImageStorage>> sources;
        for (const auto& [key, storage] : _storages) sources.push_back(storage);
        for (const SharedPtr<ImageStorage>& source : sources) {
            SharedPtr<RawImageStorage> result;
            {
                ScopedUnlock<Mutex> open(lock);
                result = source->readBack(_pixelFormat, nullptr);
            }
            if (!result) continue;
            bool stillHeld = false;
            for (const auto& [key, storage] : _storages) stillHeld |= storage == source;
            if (!stillHeld) {
                // Another thread changed the tile meanwhile: its current data wins.
                result.reset();
                return getDataGeneric(type, lock, false);
            }
            if (auto it = _storages.find(std::string_view(type)); it != _storages.end())
                return it->second;  // read back by another thread in the meantime
            _storages.emplace(type, result);
            return result;
        }
        QOR_ASSERT_TEXT(false, "newstorage");
        return nullptr;
    }

    SharedPtr<ImageStorage> created;
    for (const auto& [key, storage] : _storages) {
        if (auto raw = dynamic_ptr_cast<RawImageStorage>(storage)) {
            created = info->handler->createFromRaw(raw, _pixelFormat, _selfRef, _drawParameters);
            QOR_ASSERT_TEXT(created, "newstorage");
        } else {
            created =
                info->handler->createFromStorage(storage, _pixelFormat, _selfRef, _drawParameters);
        }
        if (created) break;
    }
    if (!created) {
        auto raw = dynamic_ptr_cast<RawImageStorage>(getDataGeneric(rawTypeName(), lock, false));
        // The raw form may have been read back with the mutex open.
        if (auto it = _storages.find(std::string_view(type)); it != _storages.end())
            return it->second;
        if (raw)
            created = info->handler->createFromRaw(raw, _pixelFormat, _selfRef, _drawParameters);
        QOR_ASSERT_TEXT(created, "newstorage");
        if (!created) return nullptr;
    }
    _storages.insert_or_assign(FastString<char>(type), created);
    return created;
}

SharedPtr<ImageStorage> ImageTile::getDataTargetGeneric(const char* type, ScopedLock<Mutex>& lock,
                                                        bool doTouch) {
    const ImageFormatInfo* info = registry()->findFormat(type);
    QOR_ASSERT_TEXT(info, "getImageFormatInfo(formatstoragetype)");
    if (!info) return nullptr;
    const bool readBack = info->handler->supportsReadBack();
    QOR_ASSERT_TEXT(readBack, "getImageFormatInfo(formatstoragetype)->handler->supportsReadBack()");
    if (!readBack) return nullptr;
    advanceVersion();
    if (_storages.empty()) {
        SharedPtr<ImageStorage> storage = createEmptyStorage(type, info);
        if (storage) _storages.emplace(type, storage);
        return storage;
    }
    SharedPtr<ImageStorage> storage = getDataGeneric(type, lock, doTouch);
    if (!storage || _storages.size() == 1) return storage;
    for (const auto& [key, other] : _storages)
        if (other != storage) checkUniqueOnClear(other);
    _storages.clear();
    _storages.emplace(type, storage);
    return storage;
}

bool ImageTile::tryDiscardDataGeneric(const FastString<char>& type) {
    ScopedLock<Mutex> lock(_mutex);
    return tryDiscardDataGenericUnlocked(type.c_str(), lock);
}

bool ImageTile::tryDiscardDataGenericUnlocked(const char* type, ScopedLock<Mutex>& lock) {
    // A storage may go only while a processor copy stays that can bring the data back.
    for (const auto& [key, storage] : _storages) {
        if (key.view() == type) continue;
        if (isRawType(key.view())) return discardDataGenericUnlocked(type, lock);
    }
    return false;
}

bool ImageTile::discardDataGenericUnlocked(const char* type, ScopedLock<Mutex>&) {
    auto it = _storages.find(std::string_view(type));
    if (it == _storages.end()) return false;
    if (it->second.use_count() != 1) {
        QOR_LOG(LogWarning, "Storage not unique on discard!");
        QOR_LOG(LogWarning, "%*", static_cast<const void*>(it->second.get()));
    }
    _storages.erase(it);
    return true;
}

void ImageTile::writeSubRect(const RawImageStorage* src, const Recti& srcRect, Vec2i destPos,
                             CopyFlippedMode mode) {
    ScopedLock<Mutex> lock(_mutex);
    if (_storages.empty()) getDataTargetGeneric(rawTypeName(), lock, false);
    advanceVersion();
    for (auto it = _storages.begin(); it != _storages.end(); ++it) {
        if (!it->second->writeRect(src, srcRect, destPos, mode)) continue;
        // The copies that were not written are stale now.
        SharedPtr<ImageStorage> written = it->second;
        FastString<char> type = it->first;
        for (const auto& [key, other] : _storages)
            if (other != written) checkUniqueOnClear(other);
        _storages.clear();
        _storages.emplace(std::move(type), std::move(written));
        return;
    }
    QOR_ASSERT_TEXT(false, "false");
}

void ImageTile::writeSubRect(const SharedPtr<GenImageData<unsigned char, 4>>& src,
                             const Recti& srcRect, Vec2i destPos, CopyFlippedMode mode) {
    if (!src) {
        QOR_ASSERT_TEXT(src, "src");
        return;
    }
    SharedPtr<ImageStorage> holder =
        (new RawImageStorage(src->width(), src->height(), WeakSharedPtr<ImageTile>()))
            ->setupSelfRef();
    auto* raw = static_cast<RawImageStorage*>(holder.get());
    raw->setDataRGBA8(src);
    writeSubRect(raw, srcRect, destPos, mode);
}

namespace {

// Locks two tiles without a fixed order: lock one, try the other; on failure swap roles.
void lockBoth(ScopedLock<Mutex>& a, ScopedLock<Mutex>& b) QOR_NO_THREAD_SAFETY_ANALYSIS {
    for (;;) {
        a.lock();
        if (b.tryLock()) return;
        a.unlock();
        b.lock();
        if (a.tryLock()) return;
        b.unlock();
        std::this_thread::yield();
    }
}

}  // namespace

void ImageTile::writeSubRect(const SharedPtr<const ImageTile>& src, const Recti& srcRect,
                             Vec2i destPos, CopyFlippedMode mode) QOR_NO_THREAD_SAFETY_ANALYSIS {
    if (!src || src.get() == this) {
        QOR_ASSERT_TEXT(src && src.get() != this, "src && src.get() != this");
        return;
    }
    {
        ScopedLock<Mutex> mine(_mutex, false);
        ScopedLock<Mutex> theirs(src->_mutex, false);
        lockBoth(mine, theirs);
        if (_storages.empty()) {
            for (const auto& [type, source] : src->_storages) {
                const ImageFormatInfo* info = registry()->findFormat(type.view());
                if (!info) continue;
                SharedPtr<ImageStorage> created = createEmptyStorage(type.c_str(), info);
                if (created && created->writeRect(source.get(), srcRect, destPos, mode)) {
                    _storages.emplace(type, created);
                    advanceVersion();
                    return;
                }
            }
        } else {
            for (const auto& [type, storage] : _storages) {
                for (auto it = src->_storages.rbegin(); it != src->_storages.rend(); ++it) {
                    if (!storage->writeRect(it->second.get(), srcRect, destPos, mode)) continue;
                    FastString<char> written = type;
                    theirs.unlock();
                    mine.unlock();
                    ScopedLock<Mutex> lock(_mutex);
                    getDataTargetGeneric(written.c_str(), lock, false);
                    return;
                }
            }
        }
    }
    // No storage pair copies directly: go through the source's processor copy.
    SharedPtr<RawImageStorage> raw = src->getData<RawImageStorage>();
    if (raw) writeSubRect(raw.get(), srcRect, destPos, mode);
}

bool ImageTile::getNativeDataGeneric(const char* native, void* result) const {
    std::vector<NativeAccessor<NativeGetter>> getters = registry()->nativeGetters(native);
    if (getters.empty()) return false;
    ScopedLock<Mutex> lock(_mutex);
    for (const NativeAccessor<NativeGetter>& getter : getters) {
        auto it = _storages.find(getter.storageType.view());
        if (it == _storages.end()) continue;
        getter.function(it->second.get(), result);
        return true;
    }
    SharedPtr<ImageStorage> storage =
        getDataGeneric(getters.front().storageType.c_str(), lock, true);
    if (!storage) return false;
    getters.front().function(storage.get(), result);
    return true;
}

bool ImageTile::getNativeDataTargetGeneric(const char* native, void* result) {
    std::vector<NativeAccessor<NativeTargetGetter>> getters =
        registry()->nativeTargetGetters(native);
    if (getters.empty()) return false;
    ScopedLock<Mutex> lock(_mutex);
    SharedPtr<ImageStorage> storage =
        getDataTargetGeneric(getters.front().storageType.c_str(), lock, true);
    if (!storage) return false;
    getters.front().function(storage.get(), result);
    return true;
}

bool ImageTile::setNativeDataGeneric(const char* native, const void* value) {
    std::vector<NativeAccessor<NativeSetter>> setters = registry()->nativeSetters(native);
    if (setters.empty()) return false;
    ScopedLock<Mutex> lock(_mutex);
    SharedPtr<ImageStorage> storage =
        getDataTargetGeneric(setters.front().storageType.c_str(), lock, true);
    if (!storage) return false;
    setters.front().function(storage.get(), value);
    return true;
}

void ImageTile::registerStorageTypeGeneric(ImageStorageHandler* handler, const char* type) {
    registry()->registerFormat(handler, type);
}

bool ImageTile::isStorageRegisteredGeneric(const char* type) {
    return registry()->findFormat(type) != nullptr;
}

void ImageTile::registerNativeGetterGeneric(const char* native, const char* type, NativeGetter fn) {
    registry()->registerNativeGetter(native, type, std::move(fn));
}

void ImageTile::registerNativeSetterGeneric(const char* native, const char* type, NativeSetter fn) {
    registry()->registerNativeSetter(native, type, std::move(fn));
}

void ImageTile::registerNativeTargetGetterGeneric(const char* native, const char* type,
                                                  NativeTargetGetter fn) {
    registry()->registerNativeTargetGetter(native, type, std::move(fn));
}

void ImageTile::cleanupStorageTypes() { ImageStorageTypeRegistry::destroy(); }

}  // namespace qor::imaging
