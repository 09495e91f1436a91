#include "imaging/ImageStorageHandler.h"

#include "base/Log.h"
#include "imaging/RawImageStorage.h"

namespace qor::imaging {

ImageStorageHandler::~ImageStorageHandler() = default;

SharedPtr<ImageStorage> ImageStorageHandler::createFromStorage(const SharedPtr<ImageStorage>&,
                                                               RawPixelFormat,
                                                               const WeakSharedPtr<ImageTile>&,
                                                               const DrawParameters&) {
    return nullptr;
}

SharedPtr<ImageStorage> ImageStorageHandler::createEmpty(int, int, RawPixelFormat,
                                                         const WeakSharedPtr<ImageTile>&,
                                                         const DrawParameters&) {
    return nullptr;
}

namespace {

thread::Mutex gRegistryMutex;
ImageStorageTypeRegistry* gRegistry = nullptr;  // guarded by gRegistryMutex

template <class F>
std::vector<NativeAccessor<F>> matching(const std::vector<NativeAccessor<F>>& list,
                                        std::string_view native) {
    std::vector<NativeAccessor<F>> result;
    for (const NativeAccessor<F>& entry : list)
        if (entry.nativeType.view() == native) result.push_back(entry);
    return result;
}

}  // namespace

ImageStorageTypeRegistry* ImageStorageTypeRegistry::instance() {
    thread::ScopedLock<thread::Mutex> lock(gRegistryMutex);
    if (!gRegistry) {
        gRegistry = new ImageStorageTypeRegistry();
        // Processor storage is always there: every other type converts through it.
        gRegistry->registerFormat(new RawImageStorageHandler(), storageTypeName<RawImageStorage>());
    }
    return gRegistry;
}

void ImageStorageTypeRegistry::destroy() {
    ImageStorageTypeRegistry* registry;
    {
        thread::ScopedLock<thread::Mutex> lock(gRegistryMutex);
        registry = gRegistry;
        gRegistry = nullptr;
    }
    delete registry;
}

ImageStorageTypeRegistry::~ImageStorageTypeRegistry() {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    for (std::unique_ptr<ImageFormatInfo>& info : _formats) delete info->handler;
}

void ImageStorageTypeRegistry::registerFormat(ImageStorageHandler* handler,
                                              std::string_view type) {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    for (const std::unique_ptr<ImageFormatInfo>& info : _formats) {
        if (info->name.view() == type) {
            QOR_LOG(LogWarning, "Storage type %* registered twice; keeping the first handler",
                    type);
            if (handler != info->handler) delete handler;
            return;
        }
    }
    _formats.push_back(std::make_unique<ImageFormatInfo>(ImageFormatInfo{type, handler}));
}

const ImageFormatInfo* ImageStorageTypeRegistry::findFormat(std::string_view type) const {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    for (const std::unique_ptr<ImageFormatInfo>& info : _formats)
        if (info->name.view() == type) return info.get();
    return nullptr;
}

void ImageStorageTypeRegistry::registerNativeGetter(std::string_view native,
                                                    std::string_view type, NativeGetter fn) {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    _getters.push_back({native, type, std::move(fn)});
}

void ImageStorageTypeRegistry::registerNativeSetter(std::string_view native,
                                                    std::string_view type, NativeSetter fn) {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    _setters.push_back({native, type, std::move(fn)});
}

void ImageStorageTypeRegistry::registerNativeTargetGetter(std::string_view native,
                                                          std::string_view type,
                                                          NativeTargetGetter fn) {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    _targetGetters.push_back({native, type, std::move(fn)});
}

std::vector<NativeAccessor<NativeGetter>> ImageStorageTypeRegistry::nativeGetters(
    std::string_view native) const {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    return matching(_getters, native);
}

std::vector<NativeAccessor<NativeSetter>> ImageStorageTypeRegistry::nativeSetters(
    std::string_view native) const {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    return matching(_setters, native);
}

std::vector<NativeAccessor<NativeTargetGetter>> ImageStorageTypeRegistry::nativeTargetGetters(
    std::string_view native) const {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    return matching(_targetGetters, native);
}

}  // namespace qor::imaging
