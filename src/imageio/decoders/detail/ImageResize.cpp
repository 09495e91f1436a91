#include "imageio/decoders/detail/ImageResize.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "imageio/ImageScaling.h"
#include "imageio/detail/FfmpegCalls.h"

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

struct ScalerDeleter {
    const ScalerCalls* calls;
    void operator()(SwsContext* scaler) const { calls->sws_freeContext(scaler); }
};

// Four 16-bit planes of one image: colour times alpha for R, G and B, and alpha times 255, each
// at most 255 * 255, so that premultiplying loses nothing. Rows are padded to 64 bytes, which
// libswscale's vector code wants.
struct Planes {
    int width, height;
    ptrdiff_t stride;  // in samples
    std::vector<uint16_t> samples;

    Planes(int w, int h)
        : width(w), height(h), stride((w + 31) / 32 * 32), samples(size_t(stride) * h * 4) {}
    uint16_t* row(int plane, int y) {
        return samples.data() + (size_t(plane) * height + y) * stride;
    }
};

SharedPtr<Rgba8> scaleWithSwscale(const Rgba8& source, int width, int height) {
    // SWS_AREA: an area average where a side shrinks, bilinear where it grows. Grey planes are
    // scaled as they are, with no conversion through another colour space. Without libswscale on
    // the machine (its loader has said why, once) the enlargement fails as when no scaler is made.
    const ScalerCalls* calls = scalerCalls();
    if (!calls) throw std::bad_alloc();
    std::unique_ptr<SwsContext, ScalerDeleter> scaler(
        calls->sws_getContext(source.width(), source.height(), AV_PIX_FMT_GRAY16, width, height,
                              AV_PIX_FMT_GRAY16, SWS_AREA, nullptr, nullptr, nullptr),
        ScalerDeleter{calls});
    if (!scaler) throw std::bad_alloc();

    Planes in(source.width(), source.height());
    for (int y = 0; y < in.height; ++y) {
        const unsigned char* p = source.row(y);
        uint16_t* rows[4] = {in.row(0, y), in.row(1, y), in.row(2, y), in.row(3, y)};
        for (int x = 0; x < in.width; ++x, p += 4) {
            for (int c = 0; c < 3; ++c) rows[c][x] = uint16_t(p[c] * p[3]);
            rows[3][x] = uint16_t(p[3] * 255);
        }
    }
    Planes out(width, height);
    for (int plane = 0; plane < 4; ++plane) {
        const uint8_t* const from[1] = {reinterpret_cast<const uint8_t*>(in.row(plane, 0))};
        uint8_t* const to[1] = {reinterpret_cast<uint8_t*>(out.row(plane, 0))};
        const int fromStride[1] = {int(in.stride * 2)}, toStride[1] = {int(out.stride * 2)};
        calls->sws_scale(scaler.get(), from, fromStride, 0, in.height, to, toStride);
    }

    SharedPtr<Rgba8> result = Rgba8::create(width, height);
    for (int y = 0; y < height; ++y) {
        unsigned char* p = result->row(y);
        const uint16_t* rows[4] = {out.row(0, y), out.row(1, y), out.row(2, y), out.row(3, y)};
        for (int x = 0; x < width; ++x, p += 4) {
            const int alpha = rows[3][x];
            for (int c = 0; c < 3; ++c)
                p[c] = alpha ? uint8_t(std::min(255, (rows[c][x] * 255 + alpha / 2) / alpha)) : 0;
            p[3] = uint8_t(std::min(255, (alpha + 127) / 255));
        }
    }
    return result;
}

}  // namespace

SharedPtr<Rgba8> resizeRgba(SharedPtr<Rgba8> image, int width, int height) {
    if (width > image->width() || height > image->height())
        return scaleWithSwscale(*image, width, height);
    const bool translucent = !opaque(*image);
    if (translucent) premultiply(*image);
    SharedPtr<Rgba8> result =
        scaleTrilinear_destructive(std::move(image), width, height, ScaleExact);
    if (translucent) unpremultiply(*result);
    return result;
}

}  // namespace qor::imageio::detail
