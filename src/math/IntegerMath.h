#pragma once
// Integer helpers for tile arithmetic.

#include "math/GenVec.h"

namespace qor::math {

// Division rounding towards minus infinity, for a positive divisor: (a + 1) / b - 1 for negative
// a, a / b otherwise. floor_div(-1, 256) is -1, where a / b would give 0.
constexpr int floor_div(int a, int b) { return a < 0 ? (a + 1) / b - 1 : a / b; }

// floor_div on each component.
constexpr GenVec<int, 2> floor_div(const GenVec<int, 2>& a, const GenVec<int, 2>& b) {
    return GenVec<int, 2>(floor_div(a.x, b.x), floor_div(a.y, b.y));
}

}  // namespace qor::math

namespace qor::imaging {
using math::floor_div;
}  // namespace qor::imaging
