#include "imaging/RawImageStorage.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "base/Log.h"
#include "imaging/ImageDataConversion.h"
#include "imaging/ImageStorageManager.h"
#include "imaging/ImageTile.h"

namespace qor::imaging {

namespace {

template <RawPixelFormat F>
using FormatTag = std::integral_constant<RawPixelFormat, F>;

// Calls fn(FormatTag<F>()) for the storage format `format`; false for any other value.
template <class Fn>
bool visitFormat(RawPixelFormat format, Fn&& fn) {
    switch (format) {
#define QOR_VISIT_CASE(S, T, N) \
    case Pf##S:                 \
        fn(FormatTag<Pf##S>()); \
        return true;
        QOR_RAW_STORAGE_FORMATS(QOR_VISIT_CASE)
#undef QOR_VISIT_CASE
        default:
            return false;
    }
}

// Copies `rect` of src to `dst` in target, mirrored by `mode`; the same format on both sides.
template <class T, int N>
void copyRect(const GenImageData<T, N>& src, const Recti& rect, Vec2i dst,
              GenImageData<T, N>& target, CopyFlippedMode mode) {
    QOR_ASSERT_TEXT(rect.xmin() >= 0 && rect.xmax() <= src.width(),
                    "srcrect.xmin() >= 0 && srcrect.xmax() <= src->width()");
    QOR_ASSERT_TEXT(rect.ymin() >= 0 && rect.ymax() <= src.height(),
                    "srcrect.ymin() >= 0 && srcrect.ymax() <= src->height()");
    QOR_ASSERT_TEXT(dst.x >= 0 && dst.x + rect.width() <= target.width(),
                    "dst.x >= 0 && dst.x + srcrect.width() <= target->width()");
    QOR_ASSERT_TEXT(dst.y >= 0 && dst.y + rect.height() <= target.height(),
                    "dst.y >= 0 && dst.y + srcrect.height() <= target->height()");
    // Destination offset k in the rectangle reads source offset k, or its mirror when flipped.
    const bool flipH = (mode & COPY_FLIP_H) != 0;
    const bool flipV = (mode & COPY_FLIP_V) != 0;
    const int w = rect.width(), h = rect.height();
    auto srcX = [&](int dx) { return rect.xmin() + (flipH ? w - 1 - dx : dx); };
    auto srcY = [&](int dy) { return rect.ymin() + (flipV ? h - 1 - dy : dy); };
    // Only offsets inside both images are copied, so that a bad rectangle touches no memory
    // outside and the part that is copied is the part of the whole mirrored copy that fits.
    int x0 = std::max(0, -dst.x), x1 = std::min(w, target.width() - dst.x);
    int y0 = std::max(0, -dst.y), y1 = std::min(h, target.height() - dst.y);
    x0 = std::max(x0, flipH ? rect.xmin() + w - src.width() : -rect.xmin());
    x1 = std::min(x1, flipH ? rect.xmin() + w : src.width() - rect.xmin());
    y0 = std::max(y0, flipV ? rect.ymin() + h - src.height() : -rect.ymin());
    y1 = std::min(y1, flipV ? rect.ymin() + h : src.height() - rect.ymin());
    if (x0 >= x1 || y0 >= y1) return;
    for (int dy = y0; dy < y1; ++dy) {
        const T* from = src.row(srcY(dy));
        T* to = target.row(dst.y + dy);
        if (!flipH) {
            std::memcpy(to + std::size_t(dst.x + x0) * N, from + std::size_t(srcX(x0)) * N,
                        std::size_t(x1 - x0) * N * sizeof(T));
            continue;
        }
        for (int dx = x0; dx < x1; ++dx)
            std::memcpy(to + std::size_t(dst.x + dx) * N, from + std::size_t(srcX(dx)) * N,
                        N * sizeof(T));
    }
}

}  // namespace

const FastString<char>& RawImageStorage::storageKey() {
    static const FastString<char> key(storageTypeName<RawImageStorage>());
    return key;
}

RawImageStorage::RawImageStorage(int width, int height, const WeakSharedPtr<ImageTile>& parent)
    : ImageStorage(parent), _width(width), _height(height) {}

RawImageStorage::~RawImageStorage() {
    // No other thread can reach a storage being destroyed; the lock satisfies the annotations.
    ScopedLock<OwnedMutex> lock(_mutex);
#define QOR_CHECK_UNIQUE(S, T, N)                                            \
    if (_data##S && _data##S.use_count() > 1) {                              \
        QOR_LOG(LogWarning, "_data" #S " not unique on ~RawImageStorage!");  \
        QOR_LOG(LogWarning, "%*", static_cast<const void*>(_data##S.get())); \
        QOR_ASSERT_TEXT(false, "false");                                     \
    }
    QOR_RAW_STORAGE_FORMATS(QOR_CHECK_UNIQUE)
#undef QOR_CHECK_UNIQUE
}

template <RawPixelFormat F>
auto& RawImageStorage::slot() {
#define QOR_SLOT_CASE(S, T, N)  \
    if constexpr (F == Pf##S) { \
        return _data##S;        \
    } else
    QOR_RAW_STORAGE_FORMATS(QOR_SLOT_CASE)
#undef QOR_SLOT_CASE
    {
        static_assert(F != F, "not a processor storage format");
    }
}

void RawImageStorage::unregister() {
    RawPixelFormat primary, secondary;
    {
        ScopedLock<OwnedMutex> lock(_mutex);
        primary = _primaryFormat;
        secondary = _secondaryFormat;
    }
    ImageStorageManager* manager = ImageStorageManager::instance();
    if (primary != PfInvalid) manager->unregisterStorage(_selfRef, primary);
    if (secondary != PfInvalid) manager->unregisterStorage(_selfRef, secondary);
}

RawPixelFormat RawImageStorage::getCurrentPixelFormat() {
    ScopedLock<OwnedMutex> lock(_mutex);
    return _primaryFormat;
}

RawPixelFormat RawImageStorage::secondaryPixelFormat() const {
    ScopedLock<OwnedMutex> lock(_mutex);
    return _secondaryFormat;
}

int RawImageStorage::width() const {
    ScopedLock<OwnedMutex> lock(_mutex);
    return _width;
}

int RawImageStorage::height() const {
    ScopedLock<OwnedMutex> lock(_mutex);
    return _height;
}

unsigned int RawImageStorage::memoryConsumption() const {
    ScopedLock<OwnedMutex> lock(_mutex);
    return computeMemoryCost(_width, _height, _primaryFormat) +
           computeMemoryCost(_width, _height, _secondaryFormat);
}

SharedPtr<RawImageStorage> RawImageStorage::readBack(RawPixelFormat format,
                                                     const SharedPtr<RawImageStorage>& self) {
    QOR_ASSERT_TEXT(format == getCurrentPixelFormat(), "format == getCurrentPixelFormat()");
    return self;
}

bool RawImageStorage::hasDataUnlocked() const {
#define QOR_ANY_MEMBER(S, T, N) || bool(_data##S)
    return false QOR_RAW_STORAGE_FORMATS(QOR_ANY_MEMBER);
#undef QOR_ANY_MEMBER
}

void RawImageStorage::allocateUnlocked(RawPixelFormat format) {
    const int w = _width, h = _height;
    visitFormat(format, [&](auto tag) QOR_NO_THREAD_SAFETY_ANALYSIS {
        auto& member = slot<decltype(tag)::value>();
        using Adapter = typename std::remove_reference_t<decltype(member)>::element_type;
        member = std::make_shared<Adapter>(w, h);
    });
}

void RawImageStorage::convertUnlocked(RawPixelFormat from, RawPixelFormat to) {
    visitFormat(from, [&](auto fromTag) QOR_NO_THREAD_SAFETY_ANALYSIS {
        auto source = slot<decltype(fromTag)::value>()->getData(true);
        visitFormat(to, [&](auto toTag) QOR_NO_THREAD_SAFETY_ANALYSIS {
            auto target = slot<decltype(toTag)::value>()->getData(false);
            ImageDataFeature dst = target->feature(to);
            ImageDataConversion::convert(dst, target->data(), source->feature(from),
                                         source->data());
        });
    });
}

bool RawImageStorage::switchToUnlocked(RawPixelFormat target) {
    ImageStorageManager* manager = ImageStorageManager::instance();
    if (!hasDataUnlocked()) {
        if (!isStorageFormat(target)) {
            QOR_ASSERT_TEXT(false, "false");
            return true;
        }
        allocateUnlocked(target);
        updatePixelFormats(target, PfInvalid);
        return true;
    }
    if (target == _primaryFormat) {
        manager->touchStorage(_selfRef, target);
        return true;
    }
    if (target == _secondaryFormat) {
        manager->touchStorage(_selfRef, target);
        return false;
    }
    discardSecondary();
    if (!isStorageFormat(target)) {
        QOR_LOG(LogError, "Trying to switch TO unsupported pixel format: %*",
                pixelFormatString(target));
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    if (!isStorageFormat(_primaryFormat)) {
        // The text names the target, not the primary.
        QOR_LOG(LogError, "Trying to switch FROM an unsupported pixel format: %*",
                pixelFormatString(target));
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    allocateUnlocked(target);
    try {
        convertUnlocked(_primaryFormat, target);
    } catch (...) {
        discardPixelFormat(target);
        throw;
    }
    updatePixelFormats(_primaryFormat, target);
    return false;
}

void RawImageStorage::updatePixelFormats(RawPixelFormat primary, RawPixelFormat secondary) {
    const bool primaryChanges = primary != _primaryFormat;
    const bool secondaryChanges = secondary != _secondaryFormat;
    if (!primaryChanges && !secondaryChanges) return;
    ImageStorageManager* manager = ImageStorageManager::instance();
    if (primaryChanges && _primaryFormat != PfInvalid)
        manager->unregisterStorage(_selfRef, _primaryFormat);
    if (secondaryChanges && _secondaryFormat != PfInvalid)
        manager->unregisterStorage(_selfRef, _secondaryFormat);
    _primaryFormat = primary;
    _secondaryFormat = secondary;
    const FastString<char>& key = storageKey();
    if (primaryChanges && primary != PfInvalid)
        manager->registerStorage(key, _selfRef, primary,
                                 computeMemoryCost(_width, _height, primary), SaProcessor);
    if (secondaryChanges && secondary != PfInvalid)
        manager->registerStorage(key, _selfRef, secondary,
                                 computeMemoryCost(_width, _height, secondary), SaProcessor);
}

void RawImageStorage::discardPixelFormat(RawPixelFormat format) {
    if (format == PfInvalid) return;
    const bool known = visitFormat(format, [&](auto tag) QOR_NO_THREAD_SAFETY_ANALYSIS {
        slot<decltype(tag)::value>().reset();
    });
    QOR_ASSERT_TEXT(known, "false");
}

void RawImageStorage::discardAll() {
    discardPixelFormat(_primaryFormat);
    discardPixelFormat(_secondaryFormat);
    updatePixelFormats(PfInvalid, PfInvalid);
}

void RawImageStorage::discardSecondary() {
    discardPixelFormat(_secondaryFormat);
    updatePixelFormats(_primaryFormat, PfInvalid);
}

void RawImageStorage::discardPrimary() {
    discardPixelFormat(_primaryFormat);
    updatePixelFormats(_secondaryFormat, PfInvalid);
}

// The analysis cannot follow a lock that starts open and is then tried.
bool RawImageStorage::tryDiscardPixelFormat(RawPixelFormat format) QOR_NO_THREAD_SAFETY_ANALYSIS {
    // The thread that holds the lock may be the one whose allocation started the eviction.
    if (_mutex.heldByCurrentThread()) return false;
    // The tile's declared format, taken before the lock so that the tile is never released inside
    // it. A storage without a tile (the copy source of writeSubRect), or whose tile is being
    // destroyed, has no format to keep.
    SharedPtr<ImageTile> tile = _parent.lock();
    const RawPixelFormat tileFormat = tile ? tile->pixelFormat() : PfInvalid;
    ScopedLock<OwnedMutex> lock(_mutex, false);
    if (!lock.tryLock()) return false;
    if (format == _primaryFormat && _secondaryFormat != PfInvalid &&
        _secondaryFormat == tileFormat) {
        // The tile's own format survives: the cached copy becomes the truth. No buffer changes,
        // so only the roles are exchanged, in place, with the manager's entries kept.
        std::swap(_primaryFormat, _secondaryFormat);
    }
    if (format == PfInvalid || format != _secondaryFormat) return false;
    discardPixelFormat(format);
    updatePixelFormats(_primaryFormat, PfInvalid);
    return true;
}

template <RawPixelFormat F>
void RawImageStorage::setData(const SharedPtr<const RawImageDataOf<F>>& data) {
    if (!data) {
        QOR_ASSERT_TEXT(data, "data");
        return;
    }
    ScopedLock<OwnedMutex> lock(_mutex);
    discardAll();
    auto& member = slot<F>();
    using Adapter = typename std::remove_reference_t<decltype(member)>::element_type;
    member = std::make_shared<Adapter>(data->width(), data->height());
    _width = data->width();
    _height = data->height();
    SharedPtr<RawImageDataOf<F>> target = member->getData(false);
    copyPixels(*data, *target);
    updatePixelFormats(F, PfInvalid);
}

template <RawPixelFormat F>
SharedPtr<const RawImageDataOf<F>> RawImageStorage::getData() {
    ScopedLock<OwnedMutex> lock(_mutex);
    switchToUnlocked(F);
    return slot<F>()->getData(true);
}

template <RawPixelFormat F>
SharedPtr<RawImageDataOf<F>> RawImageStorage::getTarget() {
    ScopedLock<OwnedMutex> lock(_mutex);
    if (switchToUnlocked(F)) {
        discardSecondary();
        updatePixelFormats(_primaryFormat, PfInvalid);
    } else {
        discardPrimary();
        updatePixelFormats(F, PfInvalid);
    }
    return slot<F>()->getData(false);
}

#define QOR_RAW_STORAGE_DEFINE(S, T, N)                                                            \
    template void RawImageStorage::setData<Pf##S>(const SharedPtr<const GenImageData<T, N>>&);     \
    template SharedPtr<const GenImageData<T, N>> RawImageStorage::getData<Pf##S>();                \
    template SharedPtr<GenImageData<T, N>> RawImageStorage::getTarget<Pf##S>();                    \
    void RawImageStorage::setData##S(const SharedPtr<const GenImageData<T, N>>& data) {            \
        setData<Pf##S>(data);                                                                      \
    }                                                                                              \
    SharedPtr<const GenImageData<T, N>> RawImageStorage::getData##S() { return getData<Pf##S>(); } \
    SharedPtr<GenImageData<T, N>> RawImageStorage::getTarget##S() { return getTarget<Pf##S>(); }
QOR_RAW_STORAGE_FORMATS(QOR_RAW_STORAGE_DEFINE)
#undef QOR_RAW_STORAGE_DEFINE

bool RawImageStorage::writeRect(const ImageStorage* src, const Recti& srcrect, Vec2i dstoffset,
                                CopyFlippedMode mode) {
    auto* raw = dynamic_cast<const RawImageStorage*>(src);
    if (raw == this) {
        QOR_ASSERT_TEXT(false, "src != this");
        return false;
    }
    // The source is asked before this storage is locked: a storage's lock is never held while
    // another's is taken, so copies in both directions cannot deadlock.
    const int srcWidth = src->width(), srcHeight = src->height();
    {
        ScopedLock<OwnedMutex> lock(_mutex);
        QOR_ASSERT_TEXT((srcrect & Recti(0, 0, srcWidth, srcHeight)) == srcrect,
                        "(srcrect & math::Recti(0, 0, src->width(), src->height())) == srcrect");
        QOR_ASSERT_TEXT(dstoffset.x >= 0 && dstoffset.y >= 0,
                        "dstoffset.x >= 0 && dstoffset.y >= 0");
        QOR_ASSERT_TEXT(dstoffset.x + srcrect.width() <= _width,
                        "dstoffset.x + srcrect.width() <= _width");
        QOR_ASSERT_TEXT(dstoffset.y + srcrect.height() <= _height,
                        "dstoffset.y + srcrect.height() <= _height");
    }
    if (!raw) return false;
    // The source's view is taken before this storage is locked, as above.
    auto* source = const_cast<RawImageStorage*>(raw);
    const RawPixelFormat format = source->getCurrentPixelFormat();
    bool copied = false;
    const bool known = visitFormat(format, [&](auto tag) QOR_NO_THREAD_SAFETY_ANALYSIS {
        constexpr RawPixelFormat F = decltype(tag)::value;
        auto from = source->getData<F>();
        ScopedLock<OwnedMutex> lock(_mutex);
        if (switchToUnlocked(F)) {
            discardSecondary();
        } else {
            discardPrimary();
        }
        auto to = slot<F>()->getData(false);
        copyRect(*from, srcrect, dstoffset, *to, mode);
        copied = true;
    });
    if (!known) {
        QOR_LOG(LogWarning, "UNSUPPORTED image format to read from: %*", pixelFormatString(format));
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    return copied;
}

bool RawImageStorageHandler::supportsReadBack() { return true; }

SharedPtr<ImageStorage> RawImageStorageHandler::createFromRaw(const SharedPtr<RawImageStorage>&,
                                                              RawPixelFormat,
                                                              const WeakSharedPtr<ImageTile>&,
                                                              const DrawParameters&) {
    QOR_ASSERT_TEXT(false, "false");
    return nullptr;
}

}  // namespace qor::imaging
