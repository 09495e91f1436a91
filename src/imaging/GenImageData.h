#pragma once
// GenImageData<T, N>: a view of width x height pixels of N interleaved components of type T, rows
// `stride` components apart. The view does not say how its memory is owned: it carries a release
// function that runs when the view dies (free a block, unlock a managed buffer). Views are handed
// out as SharedPtr, so the memory stays valid and locked as long as anyone holds the view.
//
// Element types: unsigned char, unsigned short, unsigned int, Imath::half and float; N is 1, 3 or 4.
//
// Thread contract: a view is plain memory; callers synchronise access to the pixels themselves.

#include <Imath/half.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/Log.h"
#include "base/memory/MemoryManager.h"
#include "imaging/ImageDataConversion.h"
#include "imaging/PixelFormat.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

using Imath::half;

template <class T, int N>
class GenImageData {
public:
    using Element = T;
    static constexpr int Channels = N;
    using Release = Function0<void>;

    // A view of `data`. A stride of 0 takes computeStride(width, sizeof(T), N, 32). Logs
    // "width > 0", "height > 0" and "src" for a bad size or a null pointer.
    GenImageData(int width, int height, unsigned stride, T* data, Release release = Release())
        : _width(width),
          _height(height),
          _stride(stride ? stride : defaultStride(width)),
          _release(std::move(release)),
          _data(data) {
        QOR_ASSERT_TEXT(width > 0, "width > 0");
        QOR_ASSERT_TEXT(height > 0, "height > 0");
        QOR_ASSERT_TEXT(data, "src");
    }
    ~GenImageData() {
        if (_release) _release();
    }
    GenImageData(const GenImageData&) = delete;
    GenImageData& operator=(const GenImageData&) = delete;

    // A view that owns a fresh block of memory, 32-byte aligned, with the default stride. From
    // 1 MiB on it is a mapping of its own (memory::allocLargeBuffer; not in sanitized builds):
    // huge pages, and a freed buffer of the same size is reused, so that a stream of equal bands
    // or pictures does not fault in fresh pages for each. The pixels are not initialised. Throws
    // std::bad_alloc.
    static SharedPtr<GenImageData> create(int width, int height) {
        if (width <= 0 || height <= 0) {
            QOR_ASSERT_TEXT(width > 0 && height > 0, "width > 0 && height > 0");
            throw std::bad_alloc();
        }
        const unsigned stride = defaultStride(width);
        const std::size_t bytes = std::size_t(stride) * std::size_t(height) * sizeof(T);
        // Sanitized builds keep every buffer on the heap, where an overrun is caught.
        if (!kSanitized && bytes >= kLargeBuffer) {
            void* mapped = memory::allocLargeBuffer(bytes);
            if (!mapped) throw std::bad_alloc();
            return std::make_shared<GenImageData>(width, height, stride, static_cast<T*>(mapped),
                                                  [mapped, bytes] {
                                                      memory::freeLargeBuffer(mapped, bytes);
                                                  });
        }
        void* block = std::aligned_alloc(32, (bytes + 31) & ~std::size_t(31));
        if (!block) throw std::bad_alloc();
        return std::make_shared<GenImageData>(width, height, stride, static_cast<T*>(block),
                                              [block] { std::free(block); });
    }

    // Buffers from this size on are mapped (page-aligned) rather than taken from the heap.
    static constexpr std::size_t kLargeBuffer = std::size_t(1) << 20;
#if defined(QOR_SANITIZED)
    static constexpr bool kSanitized = true;
#else
    static constexpr bool kSanitized = false;
#endif

    static unsigned defaultStride(int width) {
        return width > 0 ? computeStride(width, sizeof(T), N, 32) : 0;
    }

    int width() const { return _width; }
    int height() const { return _height; }
    // Row length in components of T.
    unsigned stride() const { return _stride; }
    std::size_t byteStride() const { return std::size_t(_stride) * sizeof(T); }

    T* data() { return _data; }
    const T* data() const { return _data; }
    // Row `ln`; logs "ln >= 0 && ln < _height" when out of range and returns row 0.
    T* row(int ln) { return _data + rowOffset(ln); }
    const T* row(int ln) const { return _data + rowOffset(ln); }
    // Component `c` of pixel (x, y), unchecked.
    T& at(int x, int y, int c = 0) { return _data[std::size_t(y) * _stride + x * N + c]; }
    const T& at(int x, int y, int c = 0) const {
        return _data[std::size_t(y) * _stride + x * N + c];
    }

    // The layout of these pixels in `format`, for ImageDataConversion.
    ImageDataFeature feature(RawPixelFormat format) const {
        return ImageDataFeature(_width, _height, _stride, format);
    }

private:
    std::size_t rowOffset(int ln) const {
        const bool ok = ln >= 0 && ln < _height;
        QOR_ASSERT_TEXT(ok, "ln >= 0 && ln < _height");
        return ok ? std::size_t(ln) * _stride : 0;
    }

    int _width;
    int _height;
    unsigned _stride;
    Release _release;
    T* _data;
};

// Copies the pixels of `src` into `dst` row by row; the two must have the same size (asserted,
// the overlap is copied otherwise).
template <class T, int N>
void copyPixels(const GenImageData<T, N>& src, GenImageData<T, N>& dst) {
    QOR_ASSERT(src.width() == dst.width() && src.height() == dst.height());
    const int w = src.width() < dst.width() ? src.width() : dst.width();
    const int h = src.height() < dst.height() ? src.height() : dst.height();
    for (int y = 0; y < h; ++y) std::memcpy(dst.row(y), src.row(y), std::size_t(w) * N * sizeof(T));
}

}  // namespace qor::imaging
