#pragma once
// ManagedImageData<T, N>: a pixel buffer in a block of the image memory manager, which may write
// the block to disk while nobody has it locked. The pixels are reached through a view
// (GenImageData) that keeps the block locked until the view dies; while a view lives, later
// requests get the same view.
//
// Ownership: created by create() behind a SharedPtr; every view holds a strong reference, so the
// block outlives the last view even when its owner has dropped the buffer.
// Thread contract: getData may be called from any thread; _mutex guards the view and the lock
// state. Writers and readers of the pixels synchronise among themselves.

#include <limits>
#include <new>

#include "base/Log.h"
#include "base/thread/Mutex.h"
#include "imaging/GenImageData.h"
#include "imaging/ImageMemoryManager.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

template <class T, int N>
class ManagedImageData {
public:
    using View = GenImageData<T, N>;

    // A buffer of width x height pixels with the default stride; the pixels are not initialised.
    // Throws std::bad_alloc (after the line "Memory manager error: could not allocate the required
    // space") when the memory manager has no block for it. May block while it swaps out.
    static SharedPtr<ManagedImageData> create(int width, int height) {
        SharedPtr<ManagedImageData> data(new ManagedImageData(width, height));
        data->_selfRef = data;
        return data;
    }
    ~ManagedImageData() { ImageMemoryManager::free(_handle); }
    ManagedImageData(const ManagedImageData&) = delete;
    ManagedImageData& operator=(const ManagedImageData&) = delete;

    // The view of the pixels, locked for as long as it lives. `readOnly` false tells the memory
    // manager that the block changes, so that it is written out again before its memory goes.
    // May block while the block is read back from disk; throws std::bad_alloc when it cannot be.
    SharedPtr<View> getData(bool readOnly) {
        ScopedLock<Mutex> lock(_mutex);
        if (SharedPtr<View> view = _view.lock()) {
            if (!readOnly) {
                // One more lock for writing marks the block changed; the view keeps its own lock.
                if (ImageMemoryManager::lock(_handle, false)) ImageMemoryManager::unlock(_handle);
            }
            return view;
        }
        // A block that was never written cannot be locked for reading: its first lock writes.
        void* pixels = ImageMemoryManager::lock(_handle, readOnly && _written);
        if (!pixels) {
            QOR_LOG(LogError, "Memory manager error: could not lock image data of %*x%*", _width,
                    _height);
            throw std::bad_alloc();
        }
        _written = true;
        SharedPtr<ManagedImageData> self = _selfRef.lock();
        SharedPtr<View> view = std::make_shared<View>(
            _width, _height, _stride, static_cast<T*>(pixels),
            [self] { ImageMemoryManager::unlock(self->_handle); });
        _view = view;
        return view;
    }

    int width() const { return _width; }
    int height() const { return _height; }
    unsigned stride() const { return _stride; }
    // Bytes the block takes while resident, as the allocator counts them.
    std::size_t memoryFootprint() const { return ImageMemoryManager::memoryFootprint(_handle); }

private:
    ManagedImageData(int width, int height)
        : _width(width), _height(height), _stride(View::defaultStride(width)) {
        const unsigned long long bytes =
            (unsigned long long)_stride * (unsigned long long)(height > 0 ? height : 0) *
            sizeof(T);
        if (width > 0 && height > 0 && bytes <= std::numeric_limits<unsigned>::max())
            _handle = ImageMemoryManager::alloc(unsigned(bytes));
        if (!_handle) {
            QOR_LOG(LogError, "Memory manager error: could not allocate the required space");
            throw std::bad_alloc();
        }
    }

    WeakSharedPtr<ManagedImageData> _selfRef;
    Mutex _mutex;  // guards _view, _written
    WeakSharedPtr<View> _view QOR_GUARDED_BY(_mutex);
    LockableMemoryHandle* _handle = nullptr;
    int _width;
    int _height;
    unsigned _stride;
    bool _written QOR_GUARDED_BY(_mutex) = false;
};

}  // namespace qor::imaging
