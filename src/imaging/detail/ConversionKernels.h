#pragma once
// Element and row kernels of ImageDataConversion. Internal to the imaging layer.
//
// Everything here is inline and templated on the element types and channel layouts of both sides,
// so that each of the 400 format pairs becomes one straight loop with no per-pixel branch on the
// format. The value rules are documented in imaging/ImageDataConversion.h.

#include <Imath/half.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

// The kernels are built without trapping floating-point semantics (no code here reads the
// exception flags), which lets GCC turn the clamps and selects into vector code, and with an AVX2
// clone chosen at load time, which the interleaving loops (RGB to RGBA) need to vectorise.
// Sanitizer builds go without the clones: their load-time resolvers run before ThreadSanitizer's
// runtime is set up and crash the process.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("no-trapping-math")
#if defined(__x86_64__) && !defined(__AVX2__) && !defined(QOR_SANITIZED)
#define QOR_CONVERSION_CLONES __attribute__((target_clones("avx2", "default")))
#endif
#endif
#ifndef QOR_CONVERSION_CLONES
#define QOR_CONVERSION_CLONES
#endif

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

// Defined here rather than taken from <bit> so that it carries the same options as the kernels
// and always inlines into them.
template <class To, class From>
inline To bitCast(const From& from) {
    return __builtin_bit_cast(To, from);
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
    const float sub = bitCast<float>(o + (1u << 23)) - bitCast<float>(113u << 23);
    const std::uint32_t subBits = bitCast<std::uint32_t>(sub);
    o = exp == 0x0f800000u ? infNan : o;
    o = exp == 0 ? subBits : o;
    return bitCast<float>(o | sign);
}

// The working form of a source element: halves are widened to float once, as read.
template <class S>
using Working = std::conditional_t<isHalf<S>, float, S>;

// How a source element is read from memory: halves as their raw bits, so that loops over them
// handle plain integers and vectorise.
template <class S>
using Stored = std::conditional_t<isHalf<S>, std::uint16_t, S>;

template <class S>
inline Working<S> load(Stored<S> v) {
    if constexpr (isHalf<S>) {
        return halfBitsToFloat(v);
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

// RGB8 to RGBA8 or BGRA8 with opaque alpha, four pixels a step by byte shuffles. Compilers
// vectorise this three-to-four interleave poorly, so it is written out. Returns the number of
// pixels done; the caller finishes the row.
#if defined(__x86_64__)
__attribute__((target("ssse3"))) inline std::size_t expandRgb8Ssse3(const unsigned char* s,
                                                                      unsigned char* d,
                                                                      std::size_t w, bool swap) {
    const __m128i order = swap ? _mm_setr_epi8(2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9, -1)
                               : _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m128i alpha = _mm_set1_epi32(int(0xFF000000u));
    std::size_t x = 0;
    // A step reads 16 source bytes and uses 12, so it stops while 16 bytes remain in the row.
    for (; x + 6 <= w; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 3 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x),
                         _mm_or_si128(_mm_shuffle_epi8(v, order), alpha));
    }
    return x;
}

inline bool haveSsse3() {
    static const bool have = __builtin_cpu_supports("ssse3");
    return have;
}

inline bool haveAvx2F16c() {
    // F16C is read from CPUID leaf 1 (ECX bit 29): not every compiler's __builtin_cpu_supports
    // knows its name. AVX2's check includes the operating system's support for the wide registers.
    static const bool have = [] {
        unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
        const bool f16c = __get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & (1u << 29)) != 0;
        return f16c && __builtin_cpu_supports("avx2");
    }();
    return have;
}

// Halves to 8-bit, eight at a time with the F16C widening; the same arithmetic as the scalar
// path (exact widening, clamp with NaN to 0, times 255, plus 0.5, truncation), so the results
// are identical. Returns the number of components done.
__attribute__((target("avx2,f16c"))) inline std::size_t halfToU8Avx2(const std::uint16_t* s,
                                                                      unsigned char* d,
                                                                      std::size_t n) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 scale = _mm256_set1_ps(255.0f);
    const __m256 round = _mm256_set1_ps(0.5f);
    std::size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        __m256i words[2];
        for (int k = 0; k < 2; ++k) {
            __m256 v = _mm256_cvtph_ps(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i + 8 * k)));
            // max first: it gives its second operand for NaN, so NaN becomes 0 as in clampUnit.
            v = _mm256_min_ps(_mm256_max_ps(v, zero), one);
            words[k] = _mm256_cvttps_epi32(_mm256_add_ps(_mm256_mul_ps(v, scale), round));
        }
        const __m128i lo = _mm_packus_epi32(_mm256_castsi256_si128(words[0]),
                                            _mm256_extracti128_si256(words[0], 1));
        const __m128i hi = _mm_packus_epi32(_mm256_castsi256_si128(words[1]),
                                            _mm256_extracti128_si256(words[1], 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packus_epi16(lo, hi));
    }
    return i;
}

// 8-bit to float, eight at a time: float(v) * (1 / 255), as the scalar path. With `stream` the
// results bypass the cache (for blocks far larger than it; the caller fences). Returns the number
// of components done.
__attribute__((target("avx2"))) inline std::size_t u8ToFloatAvx2(const unsigned char* s, float* d,
                                                                 std::size_t n, bool stream) {
    const __m256 scale = _mm256_set1_ps(1.0f / 255.0f);
    std::size_t i = 0;
    if (stream) {
        // Streaming stores need 32-byte aligned addresses: the head goes the ordinary way.
        while (i < n && (reinterpret_cast<std::uintptr_t>(d + i) & 31) != 0) {
            d[i] = float(s[i]) * (1.0f / 255.0f);
            ++i;
        }
    }
    for (; i + 8 <= n; i += 8) {
        const __m256i v =
            _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + i)));
        const __m256 f = _mm256_mul_ps(_mm256_cvtepi32_ps(v), scale);
        if (stream) {
            _mm256_stream_ps(d + i, f);
        } else {
            _mm256_storeu_ps(d + i, f);
        }
    }
    return i;
}
#endif

// Destination blocks from this size on are written past the cache where a kernel can.
constexpr std::size_t kStreamingBytes = std::size_t(8) << 20;

// Whether a pair converts component by component in memory order.
constexpr bool sameOrder(Layout s, Layout d) {
    return s == d || (channelsOf(s) == 1 && channelsOf(d) == 1);
}

// Converts `height` rows of `width` pixels. Strides are in components. Rows never overlap.
template <class S, Layout SL, class D, Layout DL>
QOR_CONVERSION_CLONES void convertRows(const S* __restrict srcElements, std::size_t srcStride, D* __restrict dst,
                 std::size_t dstStride, int width, int height) {
    const Stored<S>* __restrict src = reinterpret_cast<const Stored<S>*>(srcElements);
    constexpr int sc = channelsOf(SL);
    constexpr int dc = channelsOf(DL);
    const std::size_t w = std::size_t(width);
    [[maybe_unused]] const bool stream =
        dstStride * std::size_t(height) * sizeof(D) >= kStreamingBytes;
    for (int y = 0; y < height; ++y) {
        const Stored<S>* __restrict s = src + std::size_t(y) * srcStride;
        D* __restrict d = dst + std::size_t(y) * dstStride;
        if constexpr (sameOrder(SL, DL) && std::is_same_v<S, D>) {
            std::memcpy(static_cast<void*>(d), s, w * sc * sizeof(S));
        } else if constexpr (sameOrder(SL, DL)) {
            std::size_t i = 0;
#if defined(__x86_64__)
            if constexpr (isHalf<S> && std::is_same_v<D, unsigned char>) {
                if (haveAvx2F16c()) i = halfToU8Avx2(s, d, w * sc);
            } else if constexpr (std::is_same_v<S, unsigned char> && std::is_same_v<D, float>) {
                if (haveAvx2F16c()) i = u8ToFloatAvx2(s, d, w * sc, stream);
            }
#endif
            for (; i < w * sc; ++i) d[i] = convertValue<D>(load<S>(s[i]));
        } else {
            using W = Working<S>;
            std::size_t x = 0;
#if defined(__x86_64__)
            if constexpr (std::is_same_v<S, unsigned char> && std::is_same_v<D, unsigned char> &&
                          SL == Layout::RGB && (DL == Layout::RGBA || DL == Layout::BGRA)) {
                if (haveSsse3()) x = expandRgb8Ssse3(s, d, w, DL == Layout::BGRA);
            }
#endif
            for (; x < w; ++x) {
                const Stored<S>* __restrict p = s + x * sc;
                D* __restrict q = d + x * dc;
                W r, g, b;
                if constexpr (sc == 1) {
                    r = g = b = load<S>(p[0]);
                } else if constexpr (SL == Layout::BGRA) {
                    b = load<S>(p[0]);
                    g = load<S>(p[1]);
                    r = load<S>(p[2]);
                } else {
                    r = load<S>(p[0]);
                    g = load<S>(p[1]);
                    b = load<S>(p[2]);
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
                            q[3] = convertValue<D>(load<S>(p[3]));
                        } else {
                            q[3] = opaque<D>();
                        }
                    }
                }
            }
        }
    }
#if defined(__x86_64__)
    if constexpr (std::is_same_v<S, unsigned char> && std::is_same_v<D, float>) {
        if (stream) _mm_sfence();
    }
#endif
}

}  // namespace qor::imaging::detail

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC pop_options
#endif
