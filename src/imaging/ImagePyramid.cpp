#include "imaging/ImagePyramid.h"

#include <algorithm>
#include <cmath>

#include "base/Exception.h"
#include "base/Log.h"
#include "imaging/ScaledImageSource.h"

namespace qor::imaging {

SharedPtr<ImagePyramid> ImagePyramid::create(const SharedPtr<Image>& image, int smallestSide) {
    if (!image) throw Exception("ImagePyramid: no image");
    if (smallestSide < 0)
        throw Exception(formatLog("ImagePyramid: the smallest side must not be negative, not %*",
                                  smallestSide));
    const GenVec<int, 2> limit = smallestSide > 0 ? GenVec<int, 2>(smallestSide, smallestSide)
                                                  : ImageSource::getCPUPreferredTileSize();
    std::vector<SharedPtr<Image>> levels{image};
    for (;;) {
        const GenVec<int, 2> size = levels.back()->size();
        const bool fits = size.x <= limit.x && size.y <= limit.y;
        if (fits || (size.x <= 1 && size.y <= 1)) break;
        levels.push_back(Image::create(ScaledImageSource::create(levels.back(), 0.5)));
    }
    return SharedPtr<ImagePyramid>(new ImagePyramid(std::move(levels)));
}

SharedPtr<Image> ImagePyramid::level(int i) const {
    const bool inside = i >= 0 && i < levelCount();
    QOR_ASSERT_TEXT(inside, "i >= 0 && i < levelCount()");
    return inside ? _levels[size_t(i)] : nullptr;
}

double ImagePyramid::levelScale(int i) { return std::ldexp(1.0, -i); }

int ImagePyramid::levelForZoom(double zoom) const {
    const int last = levelCount() - 1;
    if (!(zoom > 0)) return last;
    int i = 0;
    while (i < last && levelScale(i + 1) >= zoom) ++i;
    return i;
}

}  // namespace qor::imaging
