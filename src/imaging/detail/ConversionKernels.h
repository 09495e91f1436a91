#pragma once
// Element and row kernels of ImageDataConversion. Internal to the imaging layer.
//
// Everything here is inline and templated on the element types and channel layouts of both sides,
// so that each of the 400 format pairs becomes one straight loop with no per-pixel branch on the
// format. The value rules are documented in imaging/ImageDataConversion.h.

#include <Imath/half.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace qor::imaging::detail {

using Imath::half;

// Channel layout of a format. Lum and Red both hold one channel; they differ only as a
// destination of a colour source (Lum weighs R, G and B; Red takes R).
enum class Layout { Lum, Red, RGB, RGBA, BGRA };

constexpr int channelsOf(Layout l) {
    return l == Layout::Lum || l == Layout::Red ? 1 : l == Layout::RGB ? 3 : 4;
}

template <class T>
inline constexpr bool isHalf = std::is_same_v<T, half>;
template <class T>
inline constexpr bool isFloating = std::is_same_v<T, float> || isHalf<T>;

// Largest value of an unsigned element type.
template <class T>
inline constexpr T unsignedMax = T(~T(0));

// The value of a fully opaque alpha channel.
template <class T>
inline T opaque() {
    if constexpr (isFloating<T>) {
        return T(1.0f);
    } else {
        return unsignedMax<T>;
    }
}

// Half to float by bit operations (exact for every half, NaN payloads kept). Branch-free, so loops
// over it vectorise, unlike the table lookup of Imath::half's own conversion.
inline float halfBitsToFloat(std::uint16_t h) {
    const std::uint32_t sign = std::uint32_t(h & 0x8000u) << 16;
    std::uint32_t o = std::uint32_t(h & 0x7fffu) << 13;
    const std::uint32_t exp = o & 0x0f800000u;
    o += (127u - 15u) << 23;
    // Infinity and NaN: move the exponent up to 255.
    const std::uint32_t infNan = o + ((128u - 16u) << 23);
    // Zero and subnormals: let the FPU normalise by subtracting 2^-14.
    const float sub = std::bit_cast<float>(o + (1u << 23)) - std::bit_cast<float>(113u << 23);
    const std::uint32_t subBits = std::bit_cast<std::uint32_t>(sub);
    o = exp == 0x0f800000u ? infNan : o;
    o = exp == 0 ? subBits : o;
    return std::bit_cast<float>(o | sign);
}

// The working form of a source element: halves are widened to float once, as read.
template <class S>
using Working = std::conditional_t<isHalf<S>, float, S>;

template <class S>
inline Working<S> load(S v) {
    if constexpr (isHalf<S>) {
        return halfBitsToFloat(v.bits());
    } else {
        return v;
    }
}

// Clamps to [0, 1]; NaN gives 0.
inline float clampUnit(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }

// One component from working type S (never half) to element type D.
template <class D, class S>
inline D convertValue(S v) {
    static_assert(!isHalf<S>);
    if constexpr (std::is_same_v<S, D>) {
        return v;
    } else if constexpr (isHalf<D>) {
        return half(convertValue<float>(v));
    } else if constexpr (std::is_same_v<D, float>) {
        if constexpr (std::is_same_v<S, unsigned char>) {
            return float(v) * (1.0f / 255.0f);
        } else if constexpr (std::is_same_v<S, unsigned short>) {
            return float(v) * (1.0f / 65535.0f);
        } else {
            return float(double(v) * 0x1p-32);
        }
    } else if constexpr (std::is_same_v<S, float>) {
        const float c = clampUnit(v);
        if constexpr (std::is_same_v<D, unsigned char>) {
            return (unsigned char)(c * 255.0f + 0.5f);
        } else if constexpr (std::is_same_v<D, unsigned short>) {
            return (unsigned short)(c * 65535.0f + 0.5f);
        } else {
            return (unsigned int)(double(c) * 4294967295.0 + 0.5);
        }
    } else if constexpr (sizeof(D) > sizeof(S)) {
        // Widening: 0xFF -> 0xFFFF, exactly (factor 257, 16843009 or 65537).
        return D(D(v) * D(unsignedMax<D> / unsignedMax<S>));
    } else {
        // Narrowing: floor(v * maxD / maxS), i.e. division by 257, 16843009 or 65537. For 16 to 8
        // bits this equals (v * (1 / 65535.0)) * 255 truncated, for every value.
        if constexpr (std::is_same_v<S, unsigned short>) {
            return D((std::uint32_t(v) * 65281u) >> 24);  // == v / 257 for every 16-bit v
        } else {
            return D(v / (unsignedMax<S> / unsignedMax<D>));
        }
    }
}

// Luminance of a colour by Rec. 709 weights, in the source's working type: unsigned results are
// rounded to nearest (and clamped to the maximum); floats stay unrounded.
template <class W>
inline W luma(W r, W g, W b) {
    if constexpr (std::is_same_v<W, float>) {
        return 0.2126f * r + 0.7152f * g + 0.0722f * b;
    } else if constexpr (std::is_same_v<W, unsigned int>) {
        const double y = 0.2126 * double(r) + 0.7152 * double(g) + 0.0722 * double(b) + 0.5;
        return y >= 4294967295.0 ? unsignedMax<W> : W(y);
    } else {
        const float y = 0.2126f * float(r) + 0.7152f * float(g) + 0.0722f * float(b) + 0.5f;
        return y >= float(unsignedMax<W>) ? unsignedMax<W> : W(y);
    }
}

// Whether a pair converts component by component in memory order.
constexpr bool sameOrder(Layout s, Layout d) {
    return s == d || (channelsOf(s) == 1 && channelsOf(d) == 1);
}

// Converts `height` rows of `width` pixels. Strides are in components. Rows never overlap.
template <class S, Layout SL, class D, Layout DL>
void convertRows(const S* __restrict src, std::size_t srcStride, D* __restrict dst,
                 std::size_t dstStride, int width, int height) {
    constexpr int sc = channelsOf(SL);
    constexpr int dc = channelsOf(DL);
    const std::size_t w = std::size_t(width);
    for (int y = 0; y < height; ++y) {
        const S* __restrict s = src + std::size_t(y) * srcStride;
        D* __restrict d = dst + std::size_t(y) * dstStride;
        if constexpr (sameOrder(SL, DL) && std::is_same_v<S, D>) {
            std::memcpy(d, s, w * sc * sizeof(S));
        } else if constexpr (sameOrder(SL, DL)) {
            for (std::size_t i = 0; i < w * sc; ++i) d[i] = convertValue<D>(load(s[i]));
        } else {
            using W = Working<S>;
            for (std::size_t x = 0; x < w; ++x) {
                const S* __restrict p = s + x * sc;
                D* __restrict q = d + x * dc;
                W r, g, b;
                if constexpr (sc == 1) {
                    r = g = b = load(p[0]);
                } else if constexpr (SL == Layout::BGRA) {
                    b = load(p[0]);
                    g = load(p[1]);
                    r = load(p[2]);
                } else {
                    r = load(p[0]);
                    g = load(p[1]);
                    b = load(p[2]);
                }
                if constexpr (DL == Layout::Lum) {
                    q[0] = convertValue<D>(sc == 1 ? r : luma<W>(r, g, b));
                } else if constexpr (DL == Layout::Red) {
                    q[0] = convertValue<D>(r);
                } else {
                    constexpr int ri = DL == Layout::BGRA ? 2 : 0;
                    constexpr int bi = DL == Layout::BGRA ? 0 : 2;
                    q[ri] = convertValue<D>(r);
                    q[1] = convertValue<D>(g);
                    q[bi] = convertValue<D>(b);
                    if constexpr (dc == 4) {
                        if constexpr (sc == 4) {
                            q[3] = convertValue<D>(load(p[3]));
                        } else {
                            q[3] = opaque<D>();
                        }
                    }
                }
            }
        }
    }
}

}  // namespace qor::imaging::detail
