#pragma once
// ImageStorage: base of the places that hold the pixels of one ImageTile (processor memory, a
// texture, a native bitmap). A tile keeps at most one storage per storage type and moves data
// between them on demand; the storage keeps a weak reference to that tile.
//
// Ownership: a storage lives behind the SharedPtr made by setupSelfRef, whose deleter calls the
// virtual unregister before deleting, so that nothing that tracks storages ever sees a dead one.
// Every storage must go through setupSelfRef before it is put into a tile.
//
// Thread contract: the base holds no lock; setupSelfRef runs once, before the storage is shared.
// Derived storages state their own contract for the virtual operations.

#include <typeinfo>

#include "imaging/DrawParameters.h"
#include "imaging/PixelFormat.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ImageTile;
class RawImageStorage;

class ImageStorage {
public:
    virtual ~ImageStorage();

    // Puts this storage behind a SharedPtr whose deleter calls unregister, then deletes, and
    // keeps a weak copy in _selfRef. A second call logs "_selfRef.isNull()" and returns the
    // existing reference.
    virtual SharedPtr<ImageStorage> setupSelfRef();
    // Called by the deleter of the self reference, just before deletion. The default removes the
    // entry of the current format from ImageStorageManager.
    virtual void unregister();
    // The format the storage currently holds its pixels in; PfInvalid when it holds none.
    virtual RawPixelFormat getCurrentPixelFormat() = 0;
    virtual int width() const = 0;
    virtual int height() const = 0;
    // Copies the pixels into processor memory in `format`, into `target` where given. May block
    // (a texture waits for the GL thread). The default cannot read back and returns null.
    virtual SharedPtr<RawImageStorage> readBack(RawPixelFormat format,
                                                const SharedPtr<RawImageStorage>& target);
    // The default ignores draw parameters.
    virtual void setDrawParameters(const DrawParameters& params);
    // The default has no mipmaps to update.
    virtual void updateMipmaps();
    // Copies srcRect of `src` to destPos here, mirrored as `mode` says. False when this storage
    // cannot copy from that source; the default always answers false.
    virtual bool writeRect(const ImageStorage* src, const Recti& srcRect, GenVec<int, 2> destPos,
                           CopyFlippedMode mode);
    // Bytes held by this storage.
    virtual unsigned int memoryConsumption() const = 0;
    // Drops the copy in `format` if that can be done without waiting; the default never can.
    virtual bool tryDiscardPixelFormat(RawPixelFormat format);

    // The bytes of a width x height block in `format`; 0 for PfInvalid.
    static unsigned int computeMemoryCost(unsigned int width, unsigned int height,
                                          RawPixelFormat format);

    // The tile that owns this storage.
    const WeakSharedPtr<ImageTile>& parent() const { return _parent; }
    // The reference made by setupSelfRef; empty before it.
    const WeakSharedPtr<ImageStorage>& weakSelfRef() const { return _selfRef; }

protected:
    explicit ImageStorage(const WeakSharedPtr<ImageTile>& parent);
    ImageStorage(const ImageStorage&) = delete;
    ImageStorage& operator=(const ImageStorage&) = delete;

    WeakSharedPtr<ImageTile> _parent;
    WeakSharedPtr<ImageStorage> _selfRef;

private:
    bool _selfRefSet = false;
};

// The name a storage type is registered and keyed under: the run-time name of its class.
template <class T>
const char* storageTypeName() {
    return typeid(T).name();
}

}  // namespace qor::imaging
