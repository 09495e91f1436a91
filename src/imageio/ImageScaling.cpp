#include "imageio/ImageScaling.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "imageio/DecoderRegistry.h"

namespace qor::imageio {

namespace {

// Halves the image in place: target pixel (x, y) is the rounded mean of source pixels (2x, 2y) to
// (2x + 1, 2y + 1). Target row y lies at or before source row 2y and every target pixel at or
// before the source pixels still to be read, so the pass may overwrite its own input. The result
// is a view on the same memory that keeps the original alive.
SharedPtr<Image4ub> halveInPlace(const SharedPtr<Image4ub>& image) {
    const int w = image->width() / 2;
    const int h = image->height() / 2;
    for (int y = 0; y < h; ++y) {
        const unsigned char* r0 = image->row(2 * y);
        const unsigned char* r1 = image->row(2 * y + 1);
        unsigned char* d = image->row(y);
        for (int x = 0; x < w; ++x) {
            unsigned char pixel[4];
            for (int c = 0; c < 4; ++c)
                pixel[c] = static_cast<unsigned char>(
                    (r0[8 * x + c] + r0[8 * x + 4 + c] + r1[8 * x + c] + r1[8 * x + 4 + c] + 2) >>
                    2);
            std::copy(pixel, pixel + 4, d + 4 * x);
        }
    }
    return std::make_shared<Image4ub>(w, h, image->stride(), image->data(), [keep = image] {});
}

// The source pixels that one target pixel covers along one axis, with their coverage.
struct Span {
    int first = 0;
    int count = 0;
    size_t weights = 0;  // index of the first weight in the axis' weight list
};

// The spans of `target` pixels over `source` pixels (target <= source). Weights of a span sum
// to 1.
void buildSpans(int source, int target, std::vector<Span>& spans, std::vector<float>& weights) {
    const double scale = double(source) / target;
    spans.resize(target);
    weights.clear();
    for (int i = 0; i < target; ++i) {
        const double a = i * scale;
        const double b = std::min<double>(source, (i + 1) * scale);
        const int first = std::min(source - 1, int(std::floor(a)));
        const int last = std::max(first, std::min(source - 1, int(std::ceil(b)) - 1));
        spans[i] = Span{first, last - first + 1, weights.size()};
        for (int j = first; j <= last; ++j) {
            const double cover = std::min<double>(b, j + 1) - std::max<double>(a, j);
            weights.push_back(float(std::max(0.0, cover) / scale));
        }
    }
}

SharedPtr<Image4ub> areaAverage(const Image4ub& src, int tw, int th) {
    std::vector<Span> xs, ys;
    std::vector<float> xw, yw;
    buildSpans(src.width(), tw, xs, xw);
    buildSpans(src.height(), th, ys, yw);

    SharedPtr<Image4ub> out = Image4ub::create(tw, th);
    std::vector<float> acc(size_t(tw) * 4);
    for (int oy = 0; oy < th; ++oy) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        const Span& sy = ys[oy];
        for (int k = 0; k < sy.count; ++k) {
            const float wy = yw[sy.weights + k];
            const unsigned char* row = src.row(sy.first + k);
            for (int ox = 0; ox < tw; ++ox) {
                const Span& sx = xs[ox];
                float sum[4] = {0, 0, 0, 0};
                const unsigned char* p = row + 4 * sx.first;
                for (int j = 0; j < sx.count; ++j, p += 4) {
                    const float wx = xw[sx.weights + j];
                    for (int c = 0; c < 4; ++c) sum[c] += wx * p[c];
                }
                for (int c = 0; c < 4; ++c) acc[4 * ox + c] += wy * sum[c];
            }
        }
        // A mean of samples from 0 to 255 with weights that sum to 1: never negative, so adding
        // a half and truncating rounds it (and, unlike lround, vectorises).
        unsigned char* d = out->row(oy);
        for (size_t i = 0; i < acc.size(); ++i)
            d[i] = static_cast<unsigned char>(int(std::min(acc[i] + 0.5f, 255.0f)));
    }
    return out;
}

}  // namespace

SharedPtr<Image4ub> scaleTrilinear_destructive(SharedPtr<Image4ub> image, int width, int height,
                                               int fit) {
    if (!image) return image;
    const int sw = image->width();
    const int sh = image->height();
    int tw, th;
    if (fit == ScaleFitInside) {
        const math::GenVec<int, 2> fitted = fitInside({sw, sh}, {width, height});
        tw = std::min(sw, fitted.x);
        th = std::min(sh, fitted.y);
    } else {
        tw = std::clamp(width, 1, sw);
        th = std::clamp(height, 1, sh);
    }
    if (tw == sw && th == sh) return image;

    while (image->width() >= 2 * tw && image->height() >= 2 * th) image = halveInPlace(image);
    if (image->width() != tw || image->height() != th) return areaAverage(*image, tw, th);
    // The halvings met the target: copy out, so that the large block is not kept for a small view.
    SharedPtr<Image4ub> out = Image4ub::create(tw, th);
    imaging::copyPixels(*image, *out);
    return out;
}

void swapRB(Image4ub& image) {
    for (int y = 0; y < image.height(); ++y) {
        unsigned char* p = image.row(y);
        for (int x = 0; x < image.width(); ++x, p += 4) std::swap(p[0], p[2]);
    }
}

}  // namespace qor::imageio
