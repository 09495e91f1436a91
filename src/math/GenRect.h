#pragma once
// GenRect<T>: an axis-aligned rectangle of two corners, mins and maxs, over a half-open interval:
// maxs is one past the last pixel. Width and height are maxs - mins and may be negative; an
// intersection may leave the rectangle inverted, which `empty` reports and `clamp` repairs.
//
// Thread contract: a plain value; distinct objects may be used on any threads.

#include <algorithm>
#include <ostream>

#include "math/GenVec.h"

namespace qor::math {

template <class T>
struct GenRect {
    using Vec = GenVec<T, 2>;

    Vec mins;
    Vec maxs;

    constexpr GenRect() = default;
    // mins (0, 0), maxs = size.
    constexpr explicit GenRect(const Vec& size) : maxs(size) {}
    constexpr GenRect(const Vec& mins_, const Vec& maxs_) : mins(mins_), maxs(maxs_) {}
    // mins (x, y); the last two are extents, not a corner.
    constexpr GenRect(T x, T y, T width, T height) : mins(x, y), maxs(x + width, y + height) {}

    constexpr T xmin() const { return mins.x; }
    constexpr T ymin() const { return mins.y; }
    constexpr T xmax() const { return maxs.x; }
    constexpr T ymax() const { return maxs.y; }
    constexpr T width() const { return maxs.x - mins.x; }
    constexpr T height() const { return maxs.y - mins.y; }
    constexpr Vec size() const { return maxs - mins; }
    constexpr Vec extents() const { return size(); }

    // True when the rectangle holds no point, inverted ones included.
    constexpr bool empty() const { return mins.x >= maxs.x || mins.y >= maxs.y; }
    constexpr bool isEmpty() const { return empty(); }

    // The middle point; the int form divides with truncation towards zero.
    constexpr Vec center() const { return Vec((maxs.x + mins.x) / 2, (maxs.y + mins.y) / 2); }

    // Turns an inverted rectangle into an empty one at its maxs, axis by axis.
    constexpr GenRect& clamp() {
        if (maxs.x < mins.x) mins.x = maxs.x;
        if (maxs.y < mins.y) mins.y = maxs.y;
        return *this;
    }

    constexpr bool contains(const Vec& p) const {
        return mins.x <= p.x && p.x < maxs.x && mins.y <= p.y && p.y < maxs.y;
    }
    // Corner comparison only: an empty r gets no special treatment.
    constexpr bool contains(const GenRect& r) const {
        return r.maxs.x <= maxs.x && mins.x <= r.mins.x && r.maxs.y <= maxs.y &&
               mins.y <= r.mins.y;
    }

    // Intersection; the result is not clamped and may be inverted (test it with `empty`).
    constexpr GenRect& operator&=(const GenRect& o) {
        mins = Vec(std::max(mins.x, o.mins.x), std::max(mins.y, o.mins.y));
        maxs = Vec(std::min(maxs.x, o.maxs.x), std::min(maxs.y, o.maxs.y));
        return *this;
    }
    friend constexpr GenRect operator&(GenRect a, const GenRect& b) { return a &= b; }

    // Moves both corners.
    constexpr GenRect& operator+=(const Vec& offset) {
        mins += offset;
        maxs += offset;
        return *this;
    }
    friend constexpr GenRect operator+(GenRect r, const Vec& offset) { return r += offset; }

    friend constexpr bool operator==(const GenRect& a, const GenRect& b) {
        return a.mins == b.mins && a.maxs == b.maxs;
    }
    friend constexpr bool operator!=(const GenRect& a, const GenRect& b) { return !(a == b); }

    // Moves the rectangle, keeping its size, inside bounds: first each far side back to
    // bounds.maxs, then each near side up to bounds.mins. A rectangle larger than bounds ends flush
    // with the near side and still sticks out at the far side.
    constexpr GenRect& moveIntoRect(const GenRect& bounds) {
        for (int axis = 0; axis < 2; ++axis) {
            if (maxs[axis] > bounds.maxs[axis]) {
                T shift = bounds.maxs[axis] - maxs[axis];
                mins[axis] += shift;
                maxs[axis] += shift;
            }
        }
        for (int axis = 0; axis < 2; ++axis) {
            if (mins[axis] < bounds.mins[axis]) {
                T shift = bounds.mins[axis] - mins[axis];
                mins[axis] += shift;
                maxs[axis] += shift;
            }
        }
        return *this;
    }

    // Writes "[(xmin, ymin) - (xmax, ymax))".
    friend std::ostream& operator<<(std::ostream& out, const GenRect& r) {
        return out << '[' << r.mins << " - " << r.maxs << ')';
    }
};

using Recti = GenRect<int>;
using Rectf = GenRect<float>;
using Rectd = GenRect<double>;

}  // namespace qor::math

namespace qor::imaging {
using math::GenRect;
using math::Rectd;
using math::Rectf;
using math::Recti;
}  // namespace qor::imaging
