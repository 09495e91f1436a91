#pragma once
// Pixel helpers of ImageLoader: sample conversion between the element types the loader hands out
// (8 and 16-bit unsigned, float), the EXIF orientations, and the copy of a stored region into its
// upright place.
//
// Floating point samples are taken as 0 to 1 for the unsigned types (clamped, rounded to nearest),
// without any change of tone curve: what a float TIFF or OpenEXR file holds is mapped as it is.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "imaging/GenImageData.h"
#include "math/GenRect.h"
#include "math/GenVec.h"

namespace qor::imageio::detail {

using Vec2i = math::GenVec<int, 2>;

template <class T>
constexpr T opaqueValue() {
    if constexpr (std::is_floating_point_v<T>)
        return T(1);
    else
        return T(~T(0));
}

template <class Out, class In>
inline Out convertSample(In v) {
    if constexpr (std::is_same_v<Out, In>) {
        return v;
    } else if constexpr (std::is_floating_point_v<In>) {
        // NaN, which a float file may hold, counts as 0 (clamp would let it through).
        const float f = std::isnan(v) ? 0.0f : std::clamp(float(v), 0.0f, 1.0f);
        if constexpr (std::is_floating_point_v<Out>)
            return Out(v);
        else
            return Out(f * float(opaqueValue<Out>()) + 0.5f);
    } else if constexpr (std::is_floating_point_v<Out>) {
        return Out(float(v) / float(opaqueValue<In>()));
    } else if constexpr (sizeof(Out) > sizeof(In)) {
        return Out(uint32_t(v) * 257u);  // 8 to 16 bits
    } else {
        return Out((uint32_t(v) + 128u) / 257u);  // 16 to 8 bits, rounded
    }
}

// Copies and converts a whole image to another element type.
template <class Out, class In>
SharedPtr<imaging::GenImageData<Out, 4>> convertImage(const imaging::GenImageData<In, 4>& in) {
    auto out = imaging::GenImageData<Out, 4>::create(in.width(), in.height());
    for (int y = 0; y < in.height(); ++y) {
        const In* s = in.row(y);
        Out* d = out->row(y);
        for (int i = 0; i < in.width() * 4; ++i) d[i] = convertSample<Out>(s[i]);
    }
    return out;
}

// EXIF orientation (1 to 8; any other value counts as 1): whether the upright picture has width
// and height exchanged against the stored one.
inline bool swapsAxes(int orientation) { return orientation >= 5 && orientation <= 8; }

inline Vec2i uprightSize(Vec2i stored, int orientation) {
    return swapsAxes(orientation) ? Vec2i(stored.y, stored.x) : stored;
}

// The stored pixel shown at upright pixel (u, v) of a picture stored `stored` large.
inline Vec2i storedPoint(int orientation, Vec2i stored, int u, int v) {
    const int w = stored.x, h = stored.y;
    switch (orientation) {
        case 2: return Vec2i(w - 1 - u, v);
        case 3: return Vec2i(w - 1 - u, h - 1 - v);
        case 4: return Vec2i(u, h - 1 - v);
        case 5: return Vec2i(v, u);
        case 6: return Vec2i(v, h - 1 - u);
        case 7: return Vec2i(w - 1 - v, h - 1 - u);
        case 8: return Vec2i(w - 1 - v, u);
        default: return Vec2i(u, v);
    }
}

// The stored rectangle whose pixels make up the upright rectangle `rect`.
inline math::Recti storedRect(int orientation, Vec2i stored, const math::Recti& rect) {
    const Vec2i a = storedPoint(orientation, stored, rect.mins.x, rect.mins.y);
    const Vec2i b = storedPoint(orientation, stored, rect.maxs.x - 1, rect.maxs.y - 1);
    return math::Recti(Vec2i(std::min(a.x, b.x), std::min(a.y, b.y)),
                       Vec2i(std::max(a.x, b.x) + 1, std::max(a.y, b.y) + 1));
}

// The upright rectangle `rect` from `region`, the stored pixels of storedRect(rect) placed at
// `regionRect`. Null when `region` is not of regionRect's size or does not hold those pixels (a
// decoder that disagreed with the header about the picture's size).
template <class T>
SharedPtr<imaging::GenImageData<T, 4>> orientRegion(const imaging::GenImageData<T, 4>& region,
                                                     const math::Recti& regionRect,
                                                     int orientation, Vec2i stored,
                                                     const math::Recti& rect) {
    if (region.width() != regionRect.width() || region.height() != regionRect.height() ||
        !regionRect.contains(storedRect(orientation, stored, rect)))
        return nullptr;
    auto out = imaging::GenImageData<T, 4>::create(rect.width(), rect.height());
    for (int v = 0; v < rect.height(); ++v) {
        T* d = out->row(v);
        for (int u = 0; u < rect.width(); ++u, d += 4) {
            const Vec2i p = storedPoint(orientation, stored, rect.mins.x + u, rect.mins.y + v);
            const T* s = region.row(p.y - regionRect.mins.y) + size_t(p.x - regionRect.mins.x) * 4;
            std::copy_n(s, 4, d);
        }
    }
    return out;
}

}  // namespace qor::imageio::detail
