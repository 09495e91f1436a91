#pragma once
// Tiles for the GPU storage tests: processor storages filled with a pattern in any of the formats
// that have a texture form, and the largest difference between two of them in units of the
// format's range (1 for normalised integers, the value itself for floats).

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "imaging/RawImageStorage.h"

namespace qor::gpu::test {

using imaging::RawImageStorage;

// The formats with an upload and a read back: X(suffix).
#define QOR_TEST_TEXTURE_FORMATS(X) \
    X(RGB8) X(RGB16) X(RGB16F) X(RGB32F) X(RGBA8) X(RGBA16) X(RGBA16F) X(RGBA32F) X(BGRA8) \
    X(Red8) X(Red16) X(Red16F) X(Red32F)

// A value of the format's range, different in every pixel and channel; floats run a little
// outside [0, 1].
template <class T>
T patternValue(int x, int y, int c) {
    const int v = x * 37 + y * 11 + c * 71;
    if constexpr (std::is_same_v<T, unsigned char>) return T(v & 255);
    if constexpr (std::is_same_v<T, unsigned short>) return T((v * 263 + y) & 0xFFFF);
    if constexpr (std::is_same_v<T, imaging::half>) return T(float(v % 97) / 64.0f - 0.25f);
    if constexpr (std::is_same_v<T, float>) return float(v % 997) / 700.0f - 0.2f;
}

// A value as a fraction of the format's range.
template <class T>
double normalised(T v) {
    if constexpr (std::is_same_v<T, unsigned char>) return double(v) / 255.0;
    if constexpr (std::is_same_v<T, unsigned short>) return double(v) / 65535.0;
    if constexpr (!std::is_integral_v<T>) return double(float(v));
}

template <imaging::RawPixelFormat F>
void fillPattern(RawImageStorage& storage) {
    auto data = storage.getTarget<F>();
    using T = typename imaging::RawStorageFormat<F>::Element;
    constexpr int N = imaging::RawStorageFormat<F>::Channels;
    for (int y = 0; y < data->height(); ++y)
        for (int x = 0; x < data->width(); ++x)
            for (int c = 0; c < N; ++c) data->at(x, y, c) = patternValue<T>(x, y, c);
}

// The largest difference over `rect` of `a` and the same rectangle of `b` moved by `shift`.
template <imaging::RawPixelFormat F>
double maxDifference(RawImageStorage& a, RawImageStorage& b, const math::Recti& rect,
                     math::Vec2i shift = math::Vec2i(0, 0)) {
    auto da = a.getData<F>();
    auto db = b.getData<F>();
    constexpr int N = imaging::RawStorageFormat<F>::Channels;
    double worst = 0;
    for (int y = rect.ymin(); y < rect.ymax(); ++y)
        for (int x = rect.xmin(); x < rect.xmax(); ++x)
            for (int c = 0; c < N; ++c)
                worst = std::max(worst, std::fabs(normalised(da->at(x, y, c)) -
                                                  normalised(db->at(x + shift.x, y + shift.y, c))));
    return worst;
}

// What a texture of `format` can hold apart from the value computed in float: one step of a
// normalised integer, the rounding of a half.
inline double textureTolerance(imaging::RawPixelFormat format) {
    switch (format) {
        case imaging::PfRGB8: case imaging::PfRGBA8: case imaging::PfBGRA8: case imaging::PfRed8:
            return 1.01 / 255.0;
        case imaging::PfRGB16: case imaging::PfRGBA16: case imaging::PfRed16:
            return 2.0 / 65535.0;
        case imaging::PfRGB16F: case imaging::PfRGBA16F: case imaging::PfRed16F:
            return 2e-3;
        default:
            return 1e-5;
    }
}

}  // namespace qor::gpu::test
