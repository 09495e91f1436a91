#include "imaging/ImageDataConversion.h"

#include <array>
#include <cstddef>
#include <utility>

#include "base/Log.h"
#include "imaging/detail/ConversionKernels.h"

namespace qor::imaging {

namespace {

using detail::half;
using detail::Layout;

constexpr std::array<RawPixelFormat, 20> kFormats = {
    PfLum8,  PfLum16,  PfLum32,  PfLum16F,  PfLum32F,  PfRGB8,  PfRGB16, PfRGB32, PfRGB16F, PfRGB32F,
    PfRGBA8, PfRGBA16, PfRGBA32, PfRGBA16F, PfRGBA32F, PfBGRA8, PfRed8,  PfRed16, PfRed16F, PfRed32F,
};

constexpr int formatIndex(RawPixelFormat pf) {
    for (std::size_t i = 0; i < kFormats.size(); ++i) {
        if (kFormats[i] == pf) return int(i);
    }
    return -1;
}

template <RawPixelFormat F>
struct FormatTraits {
    static constexpr unsigned kBits = getBitsPerChannel(F);
    using Element = std::conditional_t<
        isFloatFormat(F), std::conditional_t<kBits == 16, half, float>,
        std::conditional_t<kBits == 8, unsigned char,
                           std::conditional_t<kBits == 16, unsigned short, unsigned int>>>;
    static constexpr Layout kLayout = (std::uint32_t(F) & PfChannelL) ? Layout::Lum
                                      : getChannelCount(F) == 1 ? Layout::Red
                                      : getChannelCount(F) == 3 ? Layout::RGB
                                      : isReversed(F)           ? Layout::BGRA
                                                                : Layout::RGBA;
    static_assert(sizeof(Element) * 8 == kBits);
    static_assert(detail::channelsOf(kLayout) == int(getChannelCount(F)));
};

using Kernel = void (*)(const void* src, std::size_t srcStride, void* dst, std::size_t dstStride,
                        int width, int height);

template <RawPixelFormat SF, RawPixelFormat DF>
void runKernel(const void* src, std::size_t srcStride, void* dst, std::size_t dstStride, int width,
               int height) {
    using S = FormatTraits<SF>;
    using D = FormatTraits<DF>;
    // A Red source reads as a Lum source: both are one plain channel.
    constexpr Layout sl = S::kLayout == Layout::Red ? Layout::Lum : S::kLayout;
    detail::convertRows<typename S::Element, sl, typename D::Element, D::kLayout>(
        static_cast<const typename S::Element*>(src), srcStride,
        static_cast<typename D::Element*>(dst), dstStride, width, height);
}

template <std::size_t... I>
constexpr std::array<Kernel, sizeof...(I)> makeKernels(std::index_sequence<I...>) {
    return {&runKernel<kFormats[I / 20], kFormats[I % 20]>...};
}

constexpr std::array<Kernel, 400> kKernels = makeKernels(std::make_index_sequence<400>());

}  // namespace

ImageDataFeature::ImageDataFeature(int width_, int height_, unsigned stride_,
                                   RawPixelFormat format_)
    : width(width_), height(height_), stride(stride_), format(format_) {
    if (stride == 0 && width > 0 && getChannelCount(format) > 0) {
        stride = computeStride(width, getBytesPerChannel(format), getChannelCount(format), 32);
    }
}

bool ImageDataConversion::convert(ImageDataFeature& dst, void* dstPixels,
                                  const ImageDataFeature& src, const void* srcPixels) {
    const int si = formatIndex(src.format);
    const int di = formatIndex(dst.format);
    if (si < 0 || di < 0) {
        QOR_LOG(LogError, "ImageDataConversion: unsupported pixel format: %*",
                pixelFormatString(si < 0 ? src.format : dst.format));
        return false;
    }
    if (dst.stride == 0 && dst.width > 0) {
        dst.stride =
            computeStride(dst.width, getBytesPerChannel(dst.format), getChannelCount(dst.format), 32);
    }
    const bool sameSize = src.width == dst.width && src.height == dst.height;
    QOR_ASSERT_TEXT(sameSize, "src.width == dst.width && src.height == dst.height");
    if (!sameSize) return false;
    const bool valid = src.width > 0 && src.height > 0 && srcPixels && dstPixels;
    QOR_ASSERT_TEXT(valid, "src.width > 0 && src.height > 0 && srcPixels && dstPixels");
    if (!valid) return false;
    const std::size_t w = std::size_t(src.width);
    const bool rowsFit = src.stride >= w * getChannelCount(src.format) &&
                         dst.stride >= w * getChannelCount(dst.format);
    QOR_ASSERT_TEXT(rowsFit, "stride >= width * channels");
    if (!rowsFit) return false;
    kKernels[std::size_t(si) * 20 + std::size_t(di)](srcPixels, src.stride, dstPixels, dst.stride,
                                                     src.width, src.height);
    return true;
}

}  // namespace qor::imaging
