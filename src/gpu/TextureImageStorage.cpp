#include "gpu/TextureImageStorage.h"

#include <new>

#include "base/Log.h"
#include "base/thread/JobDispatcher.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/detail/BadAllocRetry.h"
#include "imaging/ImageSourceJobs.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"
#include "imaging/ImagingException.h"
#include "imaging/RawImageStorage.h"

namespace qor::gpu {

using namespace imaging;

namespace {

bool onRenderThread() {
    SharedPtr<Renderer> r = renderer();
    return r && r->isValidRenderThread();
}

// Logs the assertion of the GL entries; true when the caller may go on.
bool checkRenderThread() {
    const bool ok = onRenderThread();
    QOR_ASSERT_TEXT(ok, "renderer()->isValidRenderThread()");
    return ok;
}

// The guard of the constructors: off the render thread no GL object may be made, so the storage
// is refused with the logged assertion and a RenderTargetException.
void refuseOffRenderThread() {
    if (!checkRenderThread())
        throw RenderTargetException("TextureImageStorage: made off the GL thread");
}

const FastString<char>& storageKey() {
    static const FastString<char> key(storageTypeName<TextureImageStorage>());
    return key;
}

SharedPtr<RawImageStorage> newRawStorage(int width, int height,
                                         const WeakSharedPtr<ImageTile>& parent) {
    return std::static_pointer_cast<RawImageStorage>(
        (new RawImageStorage(width, height, parent))->setupSelfRef());
}

}  // namespace

// ---- TextureImageStorage ----

TextureImageStorage::TextureImageStorage(const RawImageStorage* src, RawPixelFormat format,
                                         const WeakSharedPtr<ImageTile>& tile,
                                         const DrawParameters& params)
    : ImageStorage(tile), _size(src ? src->width() : 0, src ? src->height() : 0) {
    refuseOffRenderThread();
    QOR_ASSERT_TEXT(src, "src");
    if (!src) throw GPUBadAlloc("std::bad_alloc(): Could not allocate texture!");
    createTarget(format, params);
    uploadRect(src, Recti(_size), Vec2i(0, 0));
}

TextureImageStorage::TextureImageStorage(const Vec2i& size, RawPixelFormat format,
                                         const WeakSharedPtr<ImageTile>& tile,
                                         const DrawParameters& params)
    : ImageStorage(tile), _size(size) {
    refuseOffRenderThread();
    createTarget(format, params);
}

TextureImageStorage::~TextureImageStorage() {
    if (!_target) return;
    QOR_ASSERT_TEXT(_pixelFormat == _target->texture()->pixelFormat(),
                    "_pixelFormat == _target->texture()->pixelFormat()");
    if (_target.use_count() != 1) {
        QOR_LOG(LogWarning, "TextureTarget not unique on ~TextureImageStorage!");
        QOR_LOG(LogWarning, "%*", static_cast<const void*>(_target.get()));
    }
}

void TextureImageStorage::createTarget(RawPixelFormat format, const DrawParameters& params) {
    SharedPtr<Renderer> r = renderer();
    if (!r) throw GPUBadAlloc("std::bad_alloc(): Could not allocate texture!");
    DrawParameters chosen = params;
    const RawPixelFormat real = r->chooseTextureFormat(format, chosen);
    detail::RetryTexts texts;
    texts.caught = "std::bad_alloc(%*) while creating texture.";
    texts.lastThrow = "std::bad_alloc(): Could not allocate texture!";
    detail::runWithGPURetry(
        [&] { _target = r->createTextureTarget(_size, real, chosen); },
        r->computeMemoryCost(_size, real, chosen), false, texts);
    _pixelFormat = _target->texture()->pixelFormat();
    _drawParameters = _target->getDrawParameters();
    QOR_ASSERT_TEXT(_pixelFormat != PfInvalid, "_pixelFormat != PfInvalid");
}

SharedPtr<ImageStorage> TextureImageStorage::setupSelfRef() {
    if (SharedPtr<ImageStorage> existing = _selfRef.lock()) {
        QOR_ASSERT_TEXT(false, "_selfRef.isNull()");
        return existing;
    }
    // The last reference may go on any thread: off the GL thread the storage waits in the
    // collector for freeUnusedStorage(). Its texture stays on the card until then, and so does its
    // ImageStorageManager entry, which the collector removes as it deletes the storage.
    SharedPtr<ImageStorage> self(this, [](ImageStorage* storage) {
        auto* texture = static_cast<TextureImageStorage*>(storage);
        if (onRenderThread()) {
            storage->unregister();
            delete texture;
        } else {
            TextureStorageCollector::instance()->add(texture);
        }
    });
    _selfRef = self;
    // The entry holds the texture's own format and the renderer's cost of it, not the tile's
    // format and width * height * its bytes per pixel: a Red16 tile in an RGBA16 texture holds four
    // times what its format says, and a mipmapped one 13 / 10 of that, so the GPU area's account
    // and limit follow what the card really holds. The tile's touch, which names the storage's
    // current format, also finds the entry only under the texture's format.
    ImageStorageManager::instance()->registerStorage(storageKey(), self, _pixelFormat,
                                                     memoryConsumption(), SaGPU);
    return self;
}

Vec2i TextureImageStorage::imageOrigin() const {
    SharedPtr<Texture> t = texture();
    if (!t) return Vec2i(0, 0);
    const Rectf coords = t->texCoords();
    const Vec2i texSize = t->texSize();
    // A rectangle texture gives its coordinates in texels, a 2D one in fractions of the size.
    const bool texels = coords.xmax() > 1.0f || coords.ymax() > 1.0f;
    if (texels) return Vec2i(int(coords.xmin() + 0.5f), int(coords.ymin() + 0.5f));
    return Vec2i(int(coords.xmin() * float(texSize.x) + 0.5f),
                 int(coords.ymin() * float(texSize.y) + 0.5f));
}

SharedPtr<RawImageStorage> TextureImageStorage::readBack(RawPixelFormat format,
                                                         const SharedPtr<RawImageStorage>&) {
    if (onRenderThread()) return readBackOnGLThread(format);
    // Only the GL thread touches GL: read there and wait. The job keeps this storage alive.
    SharedPtr<ImageStorage> keep = _selfRef.lock();
    SharedPtr<RawImageStorage> result;
    thread::JobDispatcher& dispatcher = thread::defaultJobDispatcher();
    SharedPtr<thread::DispatchedJob> job = dispatcher.createJob(
        [this, keep, format, &result] { result = readBackOnGLThread(format); },
        thread::JtGLThread);
    const bool ret = dispatcher.waitForJob(job);
    QOR_ASSERT_TEXT(ret, "ret");
    if (!ret) job->rethrowIfFailed();
    return result;
}

SharedPtr<RawImageStorage> TextureImageStorage::readBackOnGLThread(RawPixelFormat format) {
    if (!checkRenderThread() || !_target) return nullptr;
    SharedPtr<RawImageStorage> result;
    const Recti rect(imageOrigin(), imageOrigin() + _size);
    detail::runWithGPURetry(
        [&] {
            SharedPtr<RawImageStorage> raw = newRawStorage(_size.x, _size.y, _parent);
            switch (format) {
#define QOR_READBACK_CASE(F, Name)                         \
    case Pf##F:                                            \
        _target->readBack##Name(raw->getTarget##F(), rect); \
        break;
                QOR_READBACK_CASE(RGBA8, RGBA)
                QOR_READBACK_CASE(BGRA8, BGRA)
                QOR_READBACK_CASE(RGBA16, RGBA)
                QOR_READBACK_CASE(RGBA16F, RGBA)
                QOR_READBACK_CASE(RGBA32F, RGBA)
                QOR_READBACK_CASE(RGB8, RGB)
                QOR_READBACK_CASE(RGB16, RGB)
                QOR_READBACK_CASE(RGB16F, RGB)
                QOR_READBACK_CASE(RGB32F, RGB)
                QOR_READBACK_CASE(Red8, Red)
                QOR_READBACK_CASE(Red16, Red)
                QOR_READBACK_CASE(Red16F, Red)
                QOR_READBACK_CASE(Red32F, Red)
#undef QOR_READBACK_CASE
                default:
                    QOR_ASSERT_TEXT(false, "false");
                    raw.reset();
                    break;
            }
            result = raw;
        },
        ImageStorage::computeMemoryCost(unsigned(_size.x), unsigned(_size.y), format), true);
    return result;
}

void TextureImageStorage::setDrawParameters(const DrawParameters& params) {
    if (!checkRenderThread() || !_target) return;
    SharedPtr<Texture> old = _target->texture();
    if (old->compatibleDrawParameters(params)) {
        _target->setDrawParameters(params);
        _drawParameters = _target->getDrawParameters();
        return;
    }
    // Mipmapping cannot change on a texture: a new target, and the pixels copied over.
    const Vec2i oldOrigin = imageOrigin();
    const RawPixelFormat oldFormat = _pixelFormat;
    SharedPtr<TextureTarget> previous = _target;
    createTarget(oldFormat, params);
    detail::runWithGPURetry(
        [&] {
            _target->copyFromTexture(old, Recti(imageOrigin(), imageOrigin() + _size),
                                     Recti(oldOrigin, oldOrigin + _size));
        },
        memoryConsumption(), false);
    previous.reset();
    old.reset();
    ImageStorageManager* manager = ImageStorageManager::instance();
    if (_pixelFormat != oldFormat) manager->unregisterStorage(_selfRef, oldFormat);
    if (!_selfRef.expired())
        manager->registerStorage(storageKey(), _selfRef, _pixelFormat, memoryConsumption(), SaGPU);
}

void TextureImageStorage::updateMipmaps() {
    if (!checkRenderThread() || !_target) return;
    _target->texture()->updateMipmaps();
}

bool TextureImageStorage::writeRect(const ImageStorage* src, const Recti& srcrect,
                                    Vec2i dstoffset, CopyFlippedMode mode) {
    if (!src) return false;
    QOR_ASSERT_TEXT((srcrect & Recti(0, 0, src->width(), src->height())) == srcrect,
                    "(srcrect & math::Recti(0, 0, src->width(), src->height())) == srcrect");
    QOR_ASSERT_TEXT(dstoffset.x >= 0 && dstoffset.y >= 0, "dstoffset.x >= 0 && dstoffset.y >= 0");
    QOR_ASSERT_TEXT(dstoffset.x + srcrect.width() <= width(),
                    "dstoffset.x + srcrect.width() <= width()");
    QOR_ASSERT_TEXT(dstoffset.y + srcrect.height() <= height(),
                    "dstoffset.y + srcrect.height() <= height()");
    if (const auto* raw = dynamic_cast<const RawImageStorage*>(src))
        return writeRect(raw, srcrect, dstoffset, mode);
    const auto* other = dynamic_cast<const TextureImageStorage*>(src);
    if (!other) {
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    QOR_ASSERT_TEXT(Recti(Vec2i(src->width(), src->height())).contains(srcrect),
                    "Recti(Vec2i(src->width(), src->height())).contains(srcrect)");
    // A mirrored copy goes through processor memory, where the tile takes it.
    if (mode != COPY_NORMAL || !checkRenderThread() || !_target || !other->texture()) return false;
    const Vec2i at = imageOrigin() + dstoffset;
    const Vec2i from = other->imageOrigin() + srcrect.mins;
    detail::runWithGPURetry(
        [&] {
            _target->copyFromTexture(other->texture(), Recti(at, at + srcrect.size()),
                                     Recti(from, from + srcrect.size()));
        },
        memoryConsumption(), false);
    return true;
}

bool TextureImageStorage::writeRect(const RawImageStorage* src, const Recti& srcrect,
                                    Vec2i dstoffset, CopyFlippedMode mode) {
    if (!src || !checkRenderThread() || !_target) return false;
    if (mode == COPY_NORMAL) return uploadRect(src, srcrect, dstoffset);
    // Mirror on the processor, then upload the mirrored block.
    SharedPtr<RawImageStorage> mirrored =
        newRawStorage(srcrect.width(), srcrect.height(), WeakSharedPtr<ImageTile>());
    if (!mirrored->writeRect(src, srcrect, Vec2i(0, 0), mode)) return false;
    return uploadRect(mirrored.get(), Recti(srcrect.size()), dstoffset);
}

bool TextureImageStorage::uploadRect(const RawImageStorage* src, const Recti& srcrect,
                                     Vec2i dstoffset) {
    QOR_ASSERT_TEXT((Recti(Vec2i(src->width(), src->height())) & srcrect) == srcrect,
                    "(Recti(Vec2i(src->width(), src->height())) & srcrect) == srcrect");
    const Recti rect(dstoffset, dstoffset + srcrect.size());
    const bool inside = (Recti(Vec2i(width(), height())) & rect) == rect;
    QOR_ASSERT_TEXT(inside, "(Recti(Vec2i(width(), height())) & rect) == rect");
    if (!inside) return false;
    // Reading the source's pixels does not change what it holds for its tile.
    auto* source = const_cast<RawImageStorage*>(src);
    detail::runWithGPURetry([&] { uploadStorage(*source, *_target->texture(), srcrect, dstoffset); },
                            memoryConsumption(), false);
    return true;
}

unsigned int TextureImageStorage::memoryConsumption() const {
    SharedPtr<Renderer> ren = renderer();
    QOR_ASSERT_TEXT(ren, "ren");
    if (!ren) return 0;
    return unsigned(ren->computeMemoryCost(_size, _pixelFormat, _drawParameters));
}

// ---- TextureImageStorageHandler ----

namespace {

bool mayCreateHere() {
    if (onRenderThread()) return true;
    assertionFailed(__FILE__, __LINE__, "false", "Trying to create a texture from a non-gl thread!");
    return false;
}

}  // namespace

SharedPtr<ImageStorage> TextureImageStorageHandler::createFromRaw(
    const SharedPtr<RawImageStorage>& raw, RawPixelFormat format,
    const WeakSharedPtr<ImageTile>& parent, const DrawParameters& params) {
    if (!raw || !mayCreateHere()) return nullptr;
    return (new TextureImageStorage(raw.get(), format, parent, params))->setupSelfRef();
}

SharedPtr<ImageStorage> TextureImageStorageHandler::createEmpty(
    int width, int height, RawPixelFormat format, const WeakSharedPtr<ImageTile>& parent,
    const DrawParameters& params) {
    if (!mayCreateHere()) return nullptr;
    return (new TextureImageStorage(Vec2i(width, height), format, parent, params))->setupSelfRef();
}

// ---- TextureStorageCollector ----

namespace {
TextureStorageCollector* s_collector = nullptr;
}

struct TextureStorageCollectorInit {
    TextureStorageCollectorInit() { TextureStorageCollector::instance(); }
    ~TextureStorageCollectorInit() {
        delete s_collector;
        s_collector = nullptr;
    }
};

namespace {
TextureStorageCollectorInit s_collectorInit;
}

TextureStorageCollector* TextureStorageCollector::instance() {
    // Made during static initialisation, before any thread can ask.
    if (!s_collector) s_collector = new TextureStorageCollector;
    return s_collector;
}

TextureStorageCollector::~TextureStorageCollector() {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    if (!_storages.empty())
        QOR_LOG(LogWarning, "TextureStorageCollector: %* storages left at exit", _storages.size());
}

void TextureStorageCollector::add(TextureImageStorage* storage) {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    _storages.push_back(storage);
}

std::size_t TextureStorageCollector::collect() {
    const bool ok = onRenderThread();
    QOR_ASSERT_TEXT(ok, "renderer()->isValidRenderThread()");
    if (!ok) return size();
    std::vector<TextureImageStorage*> dropped;
    {
        thread::ScopedLock<thread::Mutex> lock(_mutex);
        dropped.swap(_storages);
    }
    // Deleted outside the mutex: a texture going back to the cache may run the cache's
    // bookkeeping, and nothing may wait on this mutex meanwhile. Each leaves the GPU area's
    // account here, as its texture leaves the card.
    for (TextureImageStorage* storage : dropped) {
        storage->unregister();
        delete storage;
    }
    // The debug figure is what is still waiting: storages dropped on workers meanwhile.
    QOR_LOG(LogDebug, "TextureStorageCollector: %*", size());
    return dropped.size();
}

std::size_t TextureStorageCollector::size() const {
    thread::ScopedLock<thread::Mutex> lock(_mutex);
    return _storages.size();
}

// ---- registration ----

bool isTextureStorageFormat(RawPixelFormat format) {
    switch (format) {
        case PfRGB8: case PfRGB16: case PfRGB16F: case PfRGB32F:
        case PfRGBA8: case PfRGBA16: case PfRGBA16F: case PfRGBA32F: case PfBGRA8:
        case PfRed8: case PfRed16: case PfRed16F: case PfRed32F:
            return true;
        default:
            return false;
    }
}


void registerTextureImageFormat() {
    if (!ImageTile::isStorageRegistered<TextureImageStorage>())
        ImageTile::registerStorageType<TextureImageStorage>(new TextureImageStorageHandler());
    GenericMemoryTransferJob::setHasTextureQuery(
        [](const ImageTile& tile) { return tile.hasData<TextureImageStorage>(); });
}

SharedPtr<TextureImageStorage> textureStorage(const SharedPtr<const ImageTile>& tile) {
    if (!tile || !checkRenderThread() || !isTextureStorageFormat(tile->pixelFormat())) return nullptr;
    return tile->getData<TextureImageStorage>();
}

}  // namespace qor::gpu
