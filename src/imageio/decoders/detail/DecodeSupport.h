#pragma once
// What every registry decoder does around its codec: the size checks made before any pixel
// memory is allocated, the region or fitted size that a caller asked for, and the metadata that a
// decode reports. See the contract in imageio/DecoderRegistry.h.
//
// Thread contract: pure functions over their arguments; safe on any thread.

#include <cstdint>

#include "base/time/Timestamp.h"
#include "imageio/DecoderRegistry.h"

namespace qor::imageio::detail {

using Rgba8Image = imaging::GenImageData<unsigned char, 4>;

// The most pixels a decoder allocates for one image; a file that claims more is refused before
// any allocation.
inline constexpr int64_t kMaxDecodedPixels = int64_t(1) << 28;

// True when the caller wants this output (a non-null pointer) and does not have it yet.
template <class T>
bool wanted(const SharedPtr<T>* out) {
    return out && !*out;
}

// Whether width x height is a size a decoder may allocate: both positive and at most
// kMaxDecodedPixels pixels in all.
bool plausibleSize(int64_t width, int64_t height);

// A new image of that size with every byte 0 (transparent black); null, with a log line naming
// `path`, when the size is not plausible or memory runs out. Never throws.
SharedPtr<Rgba8Image> allocateRgba(int width, int height, const FastString<char>& path);

// Whether a non-empty `roi` lies inside an image of `size`.
bool roiInside(const math::Recti& roi, math::GenVec<int, 2> size);

// The size the caller gets from an image of `source` pixels: the roi's size for a non-empty roi,
// otherwise `source` fitted inside `size` (a size with a zero side keeps `source`).
math::GenVec<int, 2> requestedSize(math::GenVec<int, 2> source, math::GenVec<int, 2> size,
                                   const math::Recti& roi);

// What the caller asked for, made from `full`, the whole image: the `roi` cut out of it (which
// must lie inside; otherwise null and a log line naming `path`), or `full` fitted inside `size`
// (reduced or enlarged; see ImageResize.h), or `full` itself. Destructive: `full` is handed over.
// Never throws; null when memory runs out.
SharedPtr<Rgba8Image> finishImage(SharedPtr<Rgba8Image> full, math::GenVec<int, 2> size,
                                  const math::Recti& roi, const FastString<char>& path);

// When metadata is wanted and empty: a new Metadata with Imagesize and, when not null,
// OriginalTime.
void provideMetadata(SharedPtr<Metadata>* metadata, math::GenVec<int, 2> imageSize,
                     const Timestamp& originalTime = Timestamp());

}  // namespace qor::imageio::detail
