#pragma once
// Resizing of decoded 8-bit RGBA images to the size a caller asked for, in both directions, with
// colour weighted by alpha so that transparent pixels lend no colour to their neighbours.
//
// Thread contract: plain functions on the images they are given; safe on any thread for images
// that no other thread touches.

#include "imaging/GenImageData.h"
#include "util/SharedPtr.h"

namespace qor::imageio::detail {

// `image` at width x height (both positive). A reduction in both directions is the engine's own
// area average (scaleTrilinear_destructive). Where either side grows, libswscale does the work:
// an area average along a side that shrinks and bilinear interpolation along one that grows,
// with pixel centres lined up; the first enlargement opens libswscale. Destructive: the caller
// hands `image` over, and its pixels may be overwritten. Throws std::bad_alloc, also for an
// enlargement when libswscale cannot be loaded.
SharedPtr<imaging::GenImageData<unsigned char, 4>> resizeRgba(
    SharedPtr<imaging::GenImageData<unsigned char, 4>> image, int width, int height);

}  // namespace qor::imageio::detail
