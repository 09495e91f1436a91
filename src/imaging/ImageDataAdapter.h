#pragma once
// ImageDataAdapter<T, N>: the pixel buffer behind one format of a RawImageStorage. It holds a
// ManagedImageData (memory that may be swapped to disk while unlocked) or, when managing is
// switched off process-wide, a plain heap buffer; which one is decided at construction.
//
// Thread contract: as ManagedImageData; the plain form hands out the same view to everyone.

#include "imaging/GenImageData.h"
#include "imaging/ManagedImageData.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

// The process-wide choice between managed and plain pixel buffers. Defaults to managed. A change
// applies to buffers made afterwards. Thread-safe.
class ImageDataAdapterConfig {
public:
    static bool managingImageData();
    static void setManagingImageData(bool managing);
};

template <class T, int N>
class ImageDataAdapter {
public:
    using View = GenImageData<T, N>;

    // A buffer of width x height pixels, not initialised. Throws std::bad_alloc.
    ImageDataAdapter(int width, int height) {
        if (ImageDataAdapterConfig::managingImageData())
            _managed = ManagedImageData<T, N>::create(width, height);
        else
            _plain = View::create(width, height);
    }
    ImageDataAdapter(const ImageDataAdapter&) = delete;
    ImageDataAdapter& operator=(const ImageDataAdapter&) = delete;

    // The pixels, locked (for a managed buffer) while the view lives. May block on swap-in;
    // throws std::bad_alloc.
    SharedPtr<View> getData(bool readOnly) {
        return _managed ? _managed->getData(readOnly) : _plain;
    }

    int width() const { return _managed ? _managed->width() : _plain->width(); }
    int height() const { return _managed ? _managed->height() : _plain->height(); }
    unsigned stride() const { return _managed ? _managed->stride() : _plain->stride(); }
    bool managed() const { return bool(_managed); }

private:
    SharedPtr<ManagedImageData<T, N>> _managed;
    SharedPtr<View> _plain;
};

}  // namespace qor::imaging
