#pragma once
// Reduction and channel swap of 8-bit RGBA images, as the codecs need them after decoding.
//
// Thread contract: plain functions on the images they are given; the caller makes sure no other
// thread touches those pixels meanwhile.

#include "imaging/GenImageData.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

using Image4ub = imaging::GenImageData<unsigned char, 4>;

// How scaleTrilinear_destructive reads its target size.
enum ScaleFit : int {
    ScaleExact = 0,      // the result is exactly width x height (the proportions may change)
    ScaleFitInside = 1,  // the image scaled uniformly to fit inside width x height (each side
                         // rounded, at least 1), never larger than the image
};

// Reduces `image` to the target size with a box filter. The work is done in two stages: while the
// image is at least twice the target in both directions it is halved in place (each pixel the
// average of a 2 x 2 block, with the last column or row of an odd side left out); the remaining
// factor, below 2 in at least one direction, is an area average, in which each target pixel is
// the mean of the source area it covers, with partly covered pixels weighted by their coverage.
// The halvings keep the cost near that of reading the image once, and the area average keeps
// every source pixel in the result, so thin lines neither vanish nor alias.
//
// Destructive: the pixels of `image` are overwritten by the halvings, so the caller must hand in
// an image that nobody else reads afterwards. A target at least as large as the image in both
// directions (after fitting) returns `image` itself: the image is never enlarged; a target side
// larger than the image with ScaleExact is clamped to the image's side. A target side below 1 is
// taken as 1 (ScaleExact), or, with ScaleFitInside, a box with a side of 0 leaves the image as it
// is. A null image gives null. Throws std::bad_alloc when the result cannot be allocated.
SharedPtr<Image4ub> scaleTrilinear_destructive(SharedPtr<Image4ub> image, int width, int height,
                                               int fit);

// Swaps the first and third channel of every pixel in place (R, G, B, A <-> B, G, R, A).
void swapRB(Image4ub& image);

}  // namespace qor::imageio
