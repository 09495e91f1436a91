#pragma once
// ImagePyramid: an image and its chain of halvings. Level 0 is the image itself; level n is a
// ScaledImageSource of level n - 1 at 0.5, so level n has the resolution 0.5^n of level 0 and its
// pixel (x, y) covers pixels [x * 2^n, (x + 1) * 2^n) of level 0 on each axis (clipped at the far
// edges, where sizes are rounded up). The chain ends at the first level that fits the limit given
// at creation: within one CPU preferred tile by default, or within a square of a given side.
//
// Level selection (levelForZoom): for a zoom z (the size on screen over the size of level 0), the
// smallest level whose resolution is still at least z, i.e. the largest n with 0.5^n >= z, bounded
// by the last level. So 0.3 gives level 1 (0.5), 0.5 gives level 1, 0.51 gives level 0, any zoom of
// 1 or more gives level 0, and a zoom of 0 or less (or NaN) gives the last level.
//
// Ownership: holds its levels; every level holds the one before it through its source.
// Thread contract: immutable after creation; every member from any thread.

#include <vector>

#include "imaging/Image.h"

namespace qor::imaging {

class ImagePyramid {
public:
    // The pyramid of `image`. With `smallestSide` 0 the last level fits within one tile of
    // ImageSource::getCPUPreferredTileSize(); otherwise its larger side is at most `smallestSide`
    // (a level of 1 by 1 pixels ends the chain in any case). Throws Exception for a null image or a
    // negative `smallestSide`, and what ScaledImageSource::create throws.
    static SharedPtr<ImagePyramid> create(const SharedPtr<Image>& image, int smallestSide = 0);

    int levelCount() const { return int(_levels.size()); }
    // Level `i`; null after a logged assertion when `i` is out of range.
    SharedPtr<Image> level(int i) const;
    // The resolution of level `i` relative to level 0: 0.5^i.
    static double levelScale(int i);
    // See the class comment.
    int levelForZoom(double zoom) const;

    ImagePyramid(const ImagePyramid&) = delete;
    ImagePyramid& operator=(const ImagePyramid&) = delete;

private:
    explicit ImagePyramid(std::vector<SharedPtr<Image>> levels) : _levels(std::move(levels)) {}

    const std::vector<SharedPtr<Image>> _levels;
};

}  // namespace qor::imaging
