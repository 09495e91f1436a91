#pragma once
// RawImageStorage: the processor form of a tile's pixels, held in up to two of the twenty storage
// formats at once. The primary format is the truth; the secondary is a cached conversion of it, one
// conversion deep: asking for a third format replaces the secondary. Writing through a format
// (getTarget*, setData*) makes that format the only one.
//
// Pixels live in ImageDataAdapter buffers (swappable image memory unless switched off). Views
// handed out by getData* and getTarget* keep their buffer locked until they die, after the
// storage's mutex has been released. Each format held is registered with ImageStorageManager as
// an entry of its own, which the manager may evict through tryDiscardPixelFormat (secondary
// formats only).
//
// Ownership: behind the SharedPtr made by setupSelfRef, owned by one ImageTile (weak parent).
// Thread contract: every public member takes _mutex, except tryDiscardPixelFormat, which only
// tries it and gives up at once. Lock order: this storage's mutex, then ImageStorageManager's.
// writeRect takes the source's views before it locks this storage, so two storages are never
// locked together.

#include <cstdint>

#include "base/thread/Mutex.h"
#include "imaging/GenImageData.h"
#include "imaging/ImageDataAdapter.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageStorageHandler.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

// The twenty formats of processor storage: X(suffix, element type, channels); the format of each
// is Pf<suffix>. The order is the order of the data members.
#define QOR_RAW_STORAGE_FORMATS(X)   \
    X(Lum8, unsigned char, 1)        \
    X(Lum16, unsigned short, 1)      \
    X(Lum32, unsigned int, 1)        \
    X(Lum16F, half, 1)               \
    X(Lum32F, float, 1)              \
    X(RGB8, unsigned char, 3)        \
    X(RGB16, unsigned short, 3)      \
    X(RGB32, unsigned int, 3)        \
    X(RGB16F, half, 3)               \
    X(RGB32F, float, 3)              \
    X(RGBA8, unsigned char, 4)       \
    X(RGBA16, unsigned short, 4)     \
    X(RGBA32, unsigned int, 4)       \
    X(RGBA16F, half, 4)              \
    X(RGBA32F, float, 4)             \
    X(BGRA8, unsigned char, 4)       \
    X(Red8, unsigned char, 1)        \
    X(Red16, unsigned short, 1)      \
    X(Red16F, half, 1)               \
    X(Red32F, float, 1)

// The element type and channel count of each processor storage format.
template <RawPixelFormat F>
struct RawStorageFormat;
#define QOR_RAW_STORAGE_TRAITS(S, T, N)            \
    template <>                                    \
    struct RawStorageFormat<Pf##S> {               \
        using Element = T;                         \
        static constexpr int Channels = N;         \
    };
QOR_RAW_STORAGE_FORMATS(QOR_RAW_STORAGE_TRAITS)
#undef QOR_RAW_STORAGE_TRAITS

// The pixel view type of a processor storage format.
template <RawPixelFormat F>
using RawImageDataOf =
    GenImageData<typename RawStorageFormat<F>::Element, RawStorageFormat<F>::Channels>;

class RawImageStorage : public ImageStorage {
public:
    // An empty storage of width x height for the tile `parent`; it holds no format until the
    // first access. Put it behind setupSelfRef before use.
    RawImageStorage(int width, int height, const WeakSharedPtr<ImageTile>& parent);
    // Logs "_data<suffix> not unique on ~RawImageStorage!" for a buffer still shared elsewhere.
    ~RawImageStorage() override;

    // Removes every format held from ImageStorageManager.
    void unregister() override;
    // The primary format; PfInvalid while empty.
    RawPixelFormat getCurrentPixelFormat() override;
    int width() const override;
    int height() const override;
    // Processor pixels need no reading back: asserts "format == getCurrentPixelFormat()" and
    // returns `self`.
    SharedPtr<RawImageStorage> readBack(RawPixelFormat format,
                                        const SharedPtr<RawImageStorage>& self) override;
    // Copies `srcrect` of `src` to `dstoffset`, mirrored as `mode` says, switching this storage
    // to the source's format first (no conversion). False when `src` is not processor storage.
    // May block (conversion, swap-in); throws std::bad_alloc.
    bool writeRect(const ImageStorage* src, const Recti& srcrect, Vec2i dstoffset,
                   CopyFlippedMode mode) override;
    // The cost of the formats held (width x height x bytes per pixel each), without padding.
    unsigned int memoryConsumption() const override;
    // Drops `format` if it is the secondary, or the primary when the secondary is the tile's own
    // format (they change places). False at once when the storage is busy, or holds `format` as
    // its only copy. Never blocks.
    bool tryDiscardPixelFormat(RawPixelFormat format) override;

    // The secondary format; PfInvalid when there is none.
    RawPixelFormat secondaryPixelFormat() const;

    // For each format: setData<F> copies the view in and makes F the only format, taking the view's
    // size; getData<F> gives the pixels in F for reading, converting from the primary when needed;
    // getTarget<F> gives them for writing and drops every other format. All may block (conversion,
    // swap-in) and throw std::bad_alloc.
#define QOR_RAW_STORAGE_ACCESSORS(S, T, N)                                      \
    void setData##S(const SharedPtr<const GenImageData<T, N>>& data);           \
    SharedPtr<const GenImageData<T, N>> getData##S();                           \
    SharedPtr<GenImageData<T, N>> getTarget##S();
    QOR_RAW_STORAGE_FORMATS(QOR_RAW_STORAGE_ACCESSORS)
#undef QOR_RAW_STORAGE_ACCESSORS

    // The same, by format, for code that is generic over the element type.
    template <RawPixelFormat F>
    void setData(const SharedPtr<const RawImageDataOf<F>>& data);
    template <RawPixelFormat F>
    SharedPtr<const RawImageDataOf<F>> getData();
    template <RawPixelFormat F>
    SharedPtr<RawImageDataOf<F>> getTarget();

    // The key the storage registers its formats under.
    static const FastString<char>& storageKey();

private:
    template <RawPixelFormat F>
    auto& slot() QOR_REQUIRES(_mutex);

    bool switchToUnlocked(RawPixelFormat target) QOR_REQUIRES(_mutex);
    void allocateUnlocked(RawPixelFormat format) QOR_REQUIRES(_mutex);
    void convertUnlocked(RawPixelFormat from, RawPixelFormat to) QOR_REQUIRES(_mutex);
    void updatePixelFormats(RawPixelFormat primary, RawPixelFormat secondary)
        QOR_REQUIRES(_mutex);
    void discardPixelFormat(RawPixelFormat format) QOR_REQUIRES(_mutex);
    void discardAll() QOR_REQUIRES(_mutex);
    void discardPrimary() QOR_REQUIRES(_mutex);
    void discardSecondary() QOR_REQUIRES(_mutex);
    bool hasDataUnlocked() const QOR_REQUIRES(_mutex);

    mutable thread::OwnedMutex _mutex;  // guards the formats, the size and the data members
    RawPixelFormat _primaryFormat QOR_GUARDED_BY(_mutex) = PfInvalid;
    RawPixelFormat _secondaryFormat QOR_GUARDED_BY(_mutex) = PfInvalid;
    int _width QOR_GUARDED_BY(_mutex);
    int _height QOR_GUARDED_BY(_mutex);
#define QOR_RAW_STORAGE_MEMBER(S, T, N) \
    SharedPtr<ImageDataAdapter<T, N>> _data##S QOR_GUARDED_BY(_mutex);
    QOR_RAW_STORAGE_FORMATS(QOR_RAW_STORAGE_MEMBER)
#undef QOR_RAW_STORAGE_MEMBER
};

// The handler of processor storage. It can always be read back; a tile builds empty raw storages
// itself, and a raw storage made from a raw storage is a fault (logged, null).
class RawImageStorageHandler : public ImageStorageHandler {
public:
    bool supportsReadBack() override;
    SharedPtr<ImageStorage> createFromRaw(const SharedPtr<RawImageStorage>& raw,
                                          RawPixelFormat format,
                                          const WeakSharedPtr<ImageTile>& parent,
                                          const DrawParameters& params) override;
};

}  // namespace qor::imaging
