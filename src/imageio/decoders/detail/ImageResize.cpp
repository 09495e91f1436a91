#include "imageio/decoders/detail/ImageResize.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "imageio/ImageScaling.h"

namespace qor::imageio::detail {

namespace {

using Rgba8 = imaging::GenImageData<unsigned char, 4>;

bool opaque(const Rgba8& image) {
    for (int y = 0; y < image.height(); ++y) {
        const unsigned char* p = image.row(y);
        for (int x = 0; x < image.width(); ++x)
            if (p[x * 4 + 3] != 255) return false;
    }
    return true;
}

void premultiply(Rgba8& image) {
    for (int y = 0; y < image.height(); ++y) {
        unsigned char* p = image.row(y);
        for (int x = 0; x < image.width(); ++x, p += 4)
            for (int c = 0; c < 3; ++c)
                p[c] = static_cast<unsigned char>((p[c] * p[3] + 127) / 255);
    }
}

void unpremultiply(Rgba8& image) {
    for (int y = 0; y < image.height(); ++y) {
        unsigned char* p = image.row(y);
        for (int x = 0; x < image.width(); ++x, p += 4) {
            const int a = p[3];
            for (int c = 0; c < 3; ++c)
                p[c] = a ? static_cast<unsigned char>(std::min(255, (p[c] * 255 + a / 2) / a)) : 0;
        }
    }
}

// One axis of a bilinear enlargement: for target index t, the two source indices and the weight
// of the second. Pixel centres line up: target t samples source (t + 0.5) * source / target - 0.5.
struct Axis {
    std::vector<int> first, second;
    std::vector<float> weight;

    Axis(int source, int target) : first(target), second(target), weight(target) {
        const double scale = double(source) / target;
        for (int t = 0; t < target; ++t) {
            const double s = std::clamp((t + 0.5) * scale - 0.5, 0.0, double(source - 1));
            first[t] = int(s);
            second[t] = std::min(source - 1, first[t] + 1);
            weight[t] = float(s - first[t]);
        }
    }
};

SharedPtr<Rgba8> enlargeBilinear(const Rgba8& source, int width, int height) {
    const Axis xs(source.width(), width);
    const Axis ys(source.height(), height);
    SharedPtr<Rgba8> result = Rgba8::create(width, height);
    for (int y = 0; y < height; ++y) {
        const unsigned char* rows[2] = {source.row(ys.first[y]), source.row(ys.second[y])};
        const float wy[2] = {1 - ys.weight[y], ys.weight[y]};
        unsigned char* out = result->row(y);
        for (int x = 0; x < width; ++x) {
            const int columns[2] = {xs.first[x] * 4, xs.second[x] * 4};
            const float wx[2] = {1 - xs.weight[x], xs.weight[x]};
            float acc[4] = {0, 0, 0, 0};
            for (int j = 0; j < 2; ++j)
                for (int i = 0; i < 2; ++i) {
                    const unsigned char* p = rows[j] + columns[i];
                    const float w = wy[j] * wx[i] * p[3];
                    acc[0] += w * p[0];
                    acc[1] += w * p[1];
                    acc[2] += w * p[2];
                    acc[3] += w;
                }
            const float unpremultiply = acc[3] > 0 ? 1.0f / acc[3] : 0.0f;
            for (int c = 0; c < 3; ++c)
                out[x * 4 + c] = static_cast<unsigned char>(
                    std::clamp(std::lround(acc[c] * unpremultiply), 0L, 255L));
            out[x * 4 + 3] = static_cast<unsigned char>(std::clamp(std::lround(acc[3]), 0L, 255L));
        }
    }
    return result;
}

}  // namespace

SharedPtr<Rgba8> resizeRgba(SharedPtr<Rgba8> image, int width, int height) {
    if (width > image->width() || height > image->height())
        return enlargeBilinear(*image, width, height);
    const bool translucent = !opaque(*image);
    if (translucent) premultiply(*image);
    SharedPtr<Rgba8> result =
        scaleTrilinear_destructive(std::move(image), width, height, ScaleExact);
    if (translucent) unpremultiply(*result);
    return result;
}

}  // namespace qor::imageio::detail
