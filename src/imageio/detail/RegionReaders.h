#pragma once
// The region readers of ImageLoader for the formats that can read part of a picture: TIFF (tiles
// or strips through libtiff, only those under the region) and OpenEXR (the scanlines of the
// region). Each gives the stored pixels of `rect` (inside the picture) as four channels of T
// (unsigned char, unsigned short or float): grey is repeated into R, G and B, a missing alpha is
// opaque.
//
// Throw ImageLoaderException naming the path and the reason when the file cannot be read. Take no
// lock; the caller holds the file's. Re-entrant: every call opens the file for itself.

#include <string>

#include "imaging/GenImageData.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "util/SharedPtr.h"

namespace qor::imageio::detail {

struct TiffInfo {
    math::GenVec<int, 2> size{0, 0};
    int orientation = 1;
};
// The size and orientation of the first directory. Throws ImageLoaderException.
TiffInfo readTiffInfo(const std::string& path);

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> readTiffRegion(const std::string& path,
                                                      const math::Recti& rect);

// The data window's size. Throws ImageLoaderException.
math::GenVec<int, 2> readExrSize(const std::string& path);

template <class T>
SharedPtr<imaging::GenImageData<T, 4>> readExrRegion(const std::string& path,
                                                     const math::Recti& rect);

}  // namespace qor::imageio::detail
