// A program outside the project: it includes public headers of the installed library, makes a
// half-float tile through it and reads a pixel back (the half conversion needs libImath).
#include <cstdio>

#include "base/Version.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"

int main() {
    using namespace qor;
    auto tile = imaging::ImageTile::create(math::GenVec<int, 2>(4, 2), imaging::PfRGBA16F);
    tile->getRawDataTarget<imaging::PfRGBA16F>()->at(3, 1, 2) = Imath::half(0.375f);
    const float back = tile->getRawData<imaging::PfRGBA16F>()->at(3, 1, 2);
    std::printf("qor %s: %dx%d tile, pixel %.3f\n", version(), tile->width(), tile->height(), back);
    return 0;
}
