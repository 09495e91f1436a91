#pragma once
// TextureImageStorage: the graphics-memory form of a tile's pixels, a texture target of the
// tile's size. The tile layer makes it through TextureImageStorageHandler, which
// registerTextureImageFormat() enters as a storage type when the renderer loads; from then on
// `tile->getData<TextureImageStorage>()` uploads a processor tile, and asking such a tile for its
// processor storage reads the texture back.
//
// The texture's format is what the renderer chooses for the tile's format (an RGBA16 texture for
// a Red16 tile where Red16 cannot be rendered, say); read backs convert to the format asked for.
// Formats with an upload and a read back: RGB8/16/16F/32F, RGBA8/16/16F/32F, BGRA8 and
// Red8/16/16F/32F; RGB32, RGBA32 and the Lum family have no GPU form (asserted).
//
// Every GPU operation runs in the retry loop of gpu/detail/BadAllocRetry.h: on std::bad_alloc
// graphics memory is evicted and the operation tried again, ten times at most.
//
// Ownership and threads: a storage is made on the GL thread. Its last reference may go on any
// thread: on the GL thread the storage is deleted at once; elsewhere the deleter of its self
// reference hands it to TextureStorageCollector, and freeUnusedStorage() deletes it later on the
// GL thread; until then its texture is on the card and its entry stays in the GPU area of
// ImageStorageManager. readBack may be called on any
// thread: off the GL thread it runs as a job there and waits for it, so the GL thread must pump
// GL jobs meanwhile. Every other operation runs on the GL thread (asserted
// "renderer()->isValidRenderThread()"). The storage has no lock of its own: GL work is serialised
// by the one GL thread, and the tile's mutex guards the storage's place in the tile.

#include <cstddef>
#include <vector>

#include "base/thread/Mutex.h"
#include "gpu/RenderTarget.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageStorageHandler.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {
class ImageTile;
}

namespace qor::gpu {

using imaging::CopyFlippedMode;
using imaging::ImageTile;
using imaging::RawImageStorage;

class TextureImageStorage : public imaging::ImageStorage {
public:
    // The pixels of `src` (which has the tile's size) in a texture for `format`, the tile's
    // format. GL thread: elsewhere it logs the assertion "renderer()->isValidRenderThread()" and
    // throws RenderTargetException before any GL call. Throws GPUBadAlloc "std::bad_alloc():
    // Could not allocate texture!" when no texture could be made in ten attempts, and
    // std::bad_alloc when the upload keeps failing.
    TextureImageStorage(const RawImageStorage* src, RawPixelFormat format,
                        const WeakSharedPtr<ImageTile>& tile, const DrawParameters& params);
    // A blank texture of `size` for `format`. GL thread; throws as above.
    TextureImageStorage(const Vec2i& size, RawPixelFormat format,
                        const WeakSharedPtr<ImageTile>& tile,
                        const DrawParameters& params = DrawParameters());
    // Logs "TextureTarget not unique on ~TextureImageStorage!" when the target is still shared.
    // GL thread (the collector sees to that).
    ~TextureImageStorage() override;

    // The self reference, whose deleter removes the ImageStorageManager entry and deletes the
    // storage on the GL thread or hands it, still entered, to TextureStorageCollector elsewhere;
    // and the entry in the GPU area of ImageStorageManager, under the texture's format and cost.
    SharedPtr<imaging::ImageStorage> setupSelfRef() override;
    // The texture's format.
    RawPixelFormat getCurrentPixelFormat() override { return _pixelFormat; }
    int width() const override { return _size.x; }
    int height() const override { return _size.y; }
    // A new processor storage with the pixels in `format`, for the same tile. Any thread: off the
    // GL thread it blocks until a job on the GL thread has read the texture. Null for a format
    // without a read back (asserted). Throws std::bad_alloc after ten failed attempts.
    SharedPtr<RawImageStorage> readBack(RawPixelFormat format,
                                        const SharedPtr<RawImageStorage>& self) override;
    // A change of filters goes to the texture; a change of mipmapping makes a new target and
    // copies the pixels over. GL thread.
    void setDrawParameters(const DrawParameters& params) override;
    void updateMipmaps() override;
    // Copies `srcrect` of `src` to `dstoffset` here: from processor storage by an upload (flipped
    // on the processor when `mode` asks), from another texture storage by copyFromTexture (only
    // unflipped; false otherwise, so the tile goes through processor memory). False for any
    // other storage class. GL thread.
    bool writeRect(const imaging::ImageStorage* src, const Recti& srcrect, Vec2i dstoffset,
                   CopyFlippedMode mode) override;
    bool writeRect(const RawImageStorage* src, const Recti& srcrect, Vec2i dstoffset,
                   CopyFlippedMode mode);
    // The renderer's cost of the texture.
    unsigned int memoryConsumption() const override;

    SharedPtr<TextureTarget> target() const { return _target; }
    SharedPtr<Texture> texture() const { return _target ? _target->texture() : nullptr; }
    DrawParameters drawParameters() const { return _drawParameters; }
    // Where the image starts in the allocated texture (not (0, 0) with a border texel).
    Vec2i imageOrigin() const;

private:
    // Makes _target for _size and the format, inside the retry loop.
    void createTarget(RawPixelFormat format, const DrawParameters& params);
    SharedPtr<RawImageStorage> readBackOnGLThread(RawPixelFormat format);
    bool uploadRect(const RawImageStorage* src, const Recti& srcrect, Vec2i dstoffset);

    SharedPtr<TextureTarget> _target;
    RawPixelFormat _pixelFormat = imaging::PfInvalid;
    DrawParameters _drawParameters;
    Vec2i _size;
};

// The entry through which tiles make texture storage. Creation off the GL thread is refused with
// the logged assertion "Trying to create a texture from a non-gl thread!" and a null result.
class TextureImageStorageHandler : public imaging::ImageStorageHandler {
public:
    bool supportsReadBack() override { return true; }
    SharedPtr<imaging::ImageStorage> createFromRaw(const SharedPtr<RawImageStorage>& raw,
                                                   RawPixelFormat format,
                                                   const WeakSharedPtr<ImageTile>& parent,
                                                   const DrawParameters& params) override;
    SharedPtr<imaging::ImageStorage> createEmpty(int width, int height, RawPixelFormat format,
                                                 const WeakSharedPtr<ImageTile>& parent,
                                                 const DrawParameters& params) override;
};

// Holds the texture storages whose last reference went on a thread other than the GL thread,
// until the GL thread deletes them in collect() (run by freeUnusedStorage()). Holding them as
// plain pointers after their self reference has ended means nobody can reach them any more: no
// weak reference can bring one back while it waits. Process-wide; made by the static
// TextureStorageCollectorInit and freed with it.
// Thread contract: add and size from any thread; collect on the GL thread. _mutex guards
// _storages and is a leaf: no storage is deleted while it is held.
class TextureStorageCollector {
public:
    static TextureStorageCollector* instance();

    // Takes ownership of a storage that nobody references any more.
    void add(TextureImageStorage* storage);
    // Removes the storages waiting here from ImageStorageManager and deletes them; returns how
    // many. GL thread (asserted; elsewhere it deletes nothing).
    std::size_t collect();
    // Storages waiting.
    std::size_t size() const;

private:
    friend struct TextureStorageCollectorInit;
    TextureStorageCollector() = default;
    ~TextureStorageCollector();

    mutable thread::Mutex _mutex;  // guards _storages
    std::vector<TextureImageStorage*> _storages QOR_GUARDED_BY(_mutex);
};

// Enters TextureImageStorage as a tile storage type, and tells the tile jobs how to see that a
// tile lives on the GPU. Called by loadRenderer(); a second call changes nothing.
void registerTextureImageFormat();

// Whether tiles of `format` can have a texture storage (an upload and a read back).
bool isTextureStorageFormat(RawPixelFormat format);

// The tile's texture storage, made from its processor copy when it has none. GL thread. Null
// when the tile's format has no GPU form.
SharedPtr<TextureImageStorage> textureStorage(const SharedPtr<const ImageTile>& tile);

}  // namespace qor::gpu
