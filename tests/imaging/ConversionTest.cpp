#include <gtest/gtest.h>

#include <Imath/half.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "base/Log.h"
#include "imaging/ImageDataConversion.h"

namespace qor::imaging {
namespace {

using Imath::half;

const RawPixelFormat kStorageFormats[] = {
    PfLum8,  PfLum16,  PfLum32,  PfLum16F,  PfLum32F,  PfRGB8,  PfRGB16, PfRGB32, PfRGB16F, PfRGB32F,
    PfRGBA8, PfRGBA16, PfRGBA32, PfRGBA16F, PfRGBA32F, PfBGRA8, PfRed8,  PfRed16, PfRed16F, PfRed32F,
};

// Converts a tightly packed block of `width` x `height` pixels and returns the destination.
template <class D, class S>
std::vector<D> convertPacked(RawPixelFormat sf, const std::vector<S>& src, RawPixelFormat df,
                             int width, int height = 1) {
    ImageDataFeature s(width, height, width * getChannelCount(sf), sf);
    ImageDataFeature d(width, height, width * getChannelCount(df), df);
    std::vector<D> out(std::size_t(width) * height * getChannelCount(df));
    EXPECT_TRUE(ImageDataConversion::convert(d, out.data(), s, src.data()));
    return out;
}

// One Lum component through the element rules.
template <class D, class S>
D one(RawPixelFormat sf, S v, RawPixelFormat df) {
    return convertPacked<D>(sf, std::vector<S>{v}, df, 1)[0];
}

TEST(ImageDataConversion, UnsignedToFloatScalesBySinglePrecisionReciprocal) {
    std::vector<unsigned char> all8(256);
    for (int v = 0; v < 256; ++v) all8[v] = (unsigned char)v;
    std::vector<float> f = convertPacked<float>(PfLum8, all8, PfLum32F, 256);
    for (int v = 0; v < 256; ++v) EXPECT_EQ(f[v], float(v) * (1.0f / 255.0f)) << v;
    EXPECT_EQ(f[255], 1.0f);
    EXPECT_EQ(one<float>(PfLum16, (unsigned short)65535, PfLum32F), 1.0f);
    EXPECT_EQ(one<float>(PfLum16, (unsigned short)1000, PfLum32F), 1000.0f * (1.0f / 65535.0f));
    EXPECT_EQ(float(one<half>(PfLum8, (unsigned char)255, PfLum16F)), 1.0f);
}

TEST(ImageDataConversion, ThirtyTwoBitToFloatScalesByTwoToTheMinus32) {
    EXPECT_EQ(one<float>(PfLum32, 0x80000000u, PfLum32F), 0.5f);
    EXPECT_EQ(one<float>(PfLum32, 0u, PfLum32F), 0.0f);
    // 2^24 + 1 times 2^-32 lies exactly between two floats and rounds to even; the factor
    // 1 / 4294967295 would put it above the midpoint and round up.
    EXPECT_EQ(one<float>(PfLum32, (1u << 24) + 1u, PfLum32F), 0x1p-8f);
    // 1 - 2^-32 has no float of its own: the nearest is 1.0.
    EXPECT_EQ(one<float>(PfLum32, 0xFFFFFFFFu, PfLum32F), 1.0f);
    EXPECT_EQ(float(one<half>(PfRed32F, 0.25f, PfRed16F)), 0.25f);
    EXPECT_EQ(float(one<half>(PfLum32, 0x40000000u, PfLum16F)), 0.25f);
}

TEST(ImageDataConversion, FloatToUnsignedClampsScalesAndRoundsHalfUp) {
    const std::vector<float> in = {-1.0f,         0.0f, 2.0f, NAN, 127.5f / 255.0f,
                                   127.49f / 255.0f, 1.0f, 0.5f};
    EXPECT_EQ(convertPacked<unsigned char>(PfLum32F, in, PfLum8, 8),
              (std::vector<unsigned char>{0, 0, 255, 0, 128, 127, 255, 128}));
    EXPECT_EQ(convertPacked<unsigned short>(PfLum32F, in, PfLum16, 8),
              (std::vector<unsigned short>{0, 0, 65535, 0, 32768, 32765, 65535, 32768}));
    EXPECT_EQ(convertPacked<unsigned int>(PfLum32F, in, PfLum32, 8)[6], 0xFFFFFFFFu);
    EXPECT_EQ(convertPacked<unsigned int>(PfLum32F, in, PfLum32, 8)[7], 0x80000000u);
    EXPECT_EQ(convertPacked<unsigned int>(PfLum32F, in, PfLum32, 8)[2], 0xFFFFFFFFu);
    EXPECT_EQ(one<unsigned char>(PfLum16F, half(0.5f), PfLum8), 128);
    EXPECT_EQ(one<unsigned char>(PfLum16F, half(-3.0f), PfLum8), 0);
    EXPECT_EQ(one<unsigned short>(PfLum16F, half(1.0f), PfLum16), 65535);
}

TEST(ImageDataConversion, SixteenToEightBitTruncatesLikeTheDoubleFormula) {
    std::vector<unsigned short> all(65536);
    for (int v = 0; v < 65536; ++v) all[v] = (unsigned short)v;
    std::vector<unsigned char> out = convertPacked<unsigned char>(PfLum16, all, PfLum8, 256, 256);
    for (int v = 0; v < 65536; ++v) {
        ASSERT_EQ(out[v], (unsigned char)(double(v) * (1.0 / 65535.0) * 255.0)) << v;
    }
    EXPECT_EQ(out[65535], 255);
    EXPECT_EQ(out[257], 1);
    EXPECT_EQ(out[256], 0);
    EXPECT_EQ(out[32895], 127);
    EXPECT_EQ(out[32896], 128);  // 128 * 257: the double product lands on 128 exactly
}

TEST(ImageDataConversion, UnsignedWideningReplicatesAndNarrowingTruncates) {
    EXPECT_EQ(one<unsigned short>(PfLum8, (unsigned char)0x12, PfLum16), 0x1212);
    EXPECT_EQ(one<unsigned int>(PfLum8, (unsigned char)0xAB, PfLum32), 0xABABABABu);
    EXPECT_EQ(one<unsigned int>(PfLum16, (unsigned short)0x1234, PfLum32), 0x12341234u);
    EXPECT_EQ(one<unsigned short>(PfLum32, 0xFFFFFFFFu, PfLum16), 0xFFFF);
    EXPECT_EQ(one<unsigned short>(PfLum32, 0x12341234u, PfLum16), 0x1234);
    EXPECT_EQ(one<unsigned short>(PfLum32, 0x12341233u, PfLum16), 0x1233);
    EXPECT_EQ(one<unsigned char>(PfLum32, 0xFEFEFEFEu, PfLum8), 254);
    EXPECT_EQ(one<unsigned char>(PfLum32, 0xFEFEFEFDu, PfLum8), 253);
    EXPECT_EQ(one<unsigned char>(PfLum32, 0xFFFFFFFFu, PfLum8), 255);
}

TEST(ImageDataConversion, HalfWidensExactlyForEveryBitPattern) {
    std::vector<half> all(65536);
    for (int v = 0; v < 65536; ++v) all[v].setBits((std::uint16_t)v);
    std::vector<float> out = convertPacked<float>(PfLum16F, all, PfLum32F, 256, 256);
    for (int v = 0; v < 65536; ++v) {
        const float want = float(all[v]);
        if (std::isnan(want)) {
            ASSERT_TRUE(std::isnan(out[v])) << v;
        } else {
            ASSERT_EQ(std::bit_cast<std::uint32_t>(out[v]), std::bit_cast<std::uint32_t>(want))
                << v;
        }
    }
    EXPECT_EQ(one<half>(PfLum32F, 1.0f / 3.0f, PfLum16F).bits(), half(1.0f / 3.0f).bits());

    // To 8 bits, every pattern (NaN, infinities, negatives, subnormals) in rows long enough for
    // the vector path, and in an RGBA block whose row ends in a scalar tail.
    std::vector<unsigned char> bytes = convertPacked<unsigned char>(PfLum16F, all, PfLum8, 256, 256);
    std::vector<unsigned char> rgba =
        convertPacked<unsigned char>(PfRGBA16F, all, PfRGBA8, 4096 / 4 + 3, 65536 / (4096 + 12));
    for (int v = 0; v < 65536; ++v) {
        const float f = float(all[v]);
        const float c = f > 0.0f ? (f < 1.0f ? f : 1.0f) : 0.0f;  // NaN fails both tests: 0
        const auto want = (unsigned char)(c * 255.0f + 0.5f);
        ASSERT_EQ(bytes[v], want) << v;
        if (std::size_t(v) < rgba.size()) {
            ASSERT_EQ(rgba[v], want) << v;
        }
    }
}

TEST(ImageDataConversion, LargeEightBitToFloatBlocksMatchTheSmallOnes) {
    // A destination of more than 8 MiB is written past the cache, from a misaligned row start.
    const int width = 1536 + 5, height = 1400;
    std::vector<unsigned char> src(std::size_t(width) * height);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = (unsigned char)(i * 7 + i / 4099);
    ImageDataFeature s(width, height, width, PfLum8);
    ImageDataFeature d(width, height, width + 1, PfLum32F);
    std::vector<float> out(std::size_t(width + 1) * height + 1, -1.0f);
    ASSERT_TRUE(ImageDataConversion::convert(d, out.data() + 1, s, src.data()));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const unsigned char v = src[std::size_t(y) * width + x];
            ASSERT_EQ(out[1 + std::size_t(y) * (width + 1) + x], float(v) * (1.0f / 255.0f))
                << x << "," << y;
        }
        ASSERT_EQ(out[1 + std::size_t(y) * (width + 1) + width], -1.0f) << "padding of row " << y;
    }
}

TEST(ImageDataConversion, OneChannelReplicatesIntoColourWithOpaqueAlpha) {
    const std::vector<unsigned char> lum = {10, 200};
    EXPECT_EQ(convertPacked<unsigned char>(PfLum8, lum, PfRGBA8, 2),
              (std::vector<unsigned char>{10, 10, 10, 255, 200, 200, 200, 255}));
    EXPECT_EQ(convertPacked<unsigned char>(PfRed8, lum, PfBGRA8, 2),
              (std::vector<unsigned char>{10, 10, 10, 255, 200, 200, 200, 255}));
    EXPECT_EQ(convertPacked<float>(PfLum8, lum, PfRGBA32F, 2)[3], 1.0f);
    EXPECT_EQ(float(convertPacked<half>(PfRed8, lum, PfRGBA16F, 2)[7]), 1.0f);
    EXPECT_EQ(convertPacked<unsigned short>(PfLum8, lum, PfRGBA16, 2)[3], 65535);
    EXPECT_EQ(convertPacked<unsigned char>(PfLum8, lum, PfRed8, 2), lum);
    EXPECT_EQ(convertPacked<unsigned short>(PfRed8, lum, PfLum16, 2),
              (std::vector<unsigned short>{10 * 257, 200 * 257}));
}

TEST(ImageDataConversion, ColourToLumWeighsByRec709AndToRedTakesRed) {
    const std::vector<unsigned char> rgb = {255, 0, 0, 0, 255, 0, 0, 0, 255, 90, 90, 90};
    // 0.2126 * 255 = 54.2, 0.7152 * 255 = 182.4, 0.0722 * 255 = 18.4, rounded to nearest.
    EXPECT_EQ(convertPacked<unsigned char>(PfRGB8, rgb, PfLum8, 4),
              (std::vector<unsigned char>{54, 182, 18, 90}));
    EXPECT_EQ(convertPacked<unsigned char>(PfRGB8, rgb, PfRed8, 4),
              (std::vector<unsigned char>{255, 0, 0, 90}));
    const std::vector<float> rgbaF = {1.0f, 0.0f, 0.0f, 0.5f, 0.0f, 0.5f, 1.0f, 0.0f};
    std::vector<float> lum = convertPacked<float>(PfRGBA32F, rgbaF, PfLum32F, 2);
    EXPECT_FLOAT_EQ(lum[0], 0.2126f);
    EXPECT_FLOAT_EQ(lum[1], 0.7152f * 0.5f + 0.0722f);
    // Weighed in the 16-bit scale, then narrowed: 0.7152 * 65535 = 46870.6 -> 46871 -> 182.
    EXPECT_EQ(convertPacked<unsigned char>(PfRGB16, std::vector<unsigned short>{0, 65535, 0},
                                           PfLum8, 1)[0],
              182);
}

TEST(ImageDataConversion, BgraSwapsRedAndBlueAndDroppedAlphaVanishes) {
    const std::vector<unsigned char> bgra = {1, 2, 3, 4};
    EXPECT_EQ(convertPacked<unsigned char>(PfBGRA8, bgra, PfRGBA8, 1),
              (std::vector<unsigned char>{3, 2, 1, 4}));
    EXPECT_EQ(convertPacked<unsigned char>(PfRGBA8, bgra, PfBGRA8, 1),
              (std::vector<unsigned char>{3, 2, 1, 4}));
    EXPECT_EQ(convertPacked<unsigned char>(PfRGB8, std::vector<unsigned char>{1, 2, 3}, PfBGRA8,
                                           1),
              (std::vector<unsigned char>{3, 2, 1, 255}));
    EXPECT_EQ(convertPacked<unsigned char>(PfBGRA8, bgra, PfRGB8, 1),
              (std::vector<unsigned char>{3, 2, 1}));
    EXPECT_EQ(convertPacked<unsigned short>(PfBGRA8, bgra, PfRGBA16, 1),
              (std::vector<unsigned short>{3 * 257, 2 * 257, 1 * 257, 4 * 257}));
    EXPECT_EQ(convertPacked<unsigned char>(PfBGRA8, bgra, PfRed8, 1)[0], 3);
}

TEST(ImageDataConversion, StridesLeaveRowPaddingUntouched) {
    const int w = 5, h = 3;
    ImageDataFeature s(w, h, 17, PfRGB8);      // 2 bytes of padding a row
    ImageDataFeature d(w, h, 23, PfRGBA16);    // 3 samples of padding a row
    std::vector<unsigned char> src(std::size_t(17) * h, 0xEE);
    for (int y = 0; y < h; ++y) {
        for (int i = 0; i < w * 3; ++i) src[y * 17 + i] = (unsigned char)(y * 16 + i);
    }
    std::vector<unsigned short> dst(std::size_t(23) * h, 0xABCD);
    ASSERT_TRUE(ImageDataConversion::convert(d, dst.data(), s, src.data()));
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            for (int c = 0; c < 3; ++c) {
                EXPECT_EQ(dst[y * 23 + x * 4 + c], src[y * 17 + x * 3 + c] * 257);
            }
            EXPECT_EQ(dst[y * 23 + x * 4 + 3], 65535);
        }
        for (int i = w * 4; i < 23; ++i) EXPECT_EQ(dst[y * 23 + i], 0xABCD);
    }
    ImageDataFeature compact(w, h, 0, PfRGBA8);
    EXPECT_EQ(compact.stride, 32u);
}

// Pixel i, channel c of an 8-bit pattern that gives every channel all 256 values.
unsigned char pattern(int i, int c, bool grey) { return (unsigned char)(i + (grey ? 0 : 85 * c)); }

TEST(ImageDataConversion, EveryPairConvertsAndEightBitValuesSurviveARoundTrip) {
    LogCapture capture;
    const int w = 64, h = 4;  // 256 pixels
    for (RawPixelFormat mid : kStorageFormats) {
        const unsigned mc = getChannelCount(mid);
        const bool grey = mc == 1;
        std::vector<unsigned char> rgba(std::size_t(w) * h * 4);
        for (int i = 0; i < w * h; ++i) {
            for (int c = 0; c < 4; ++c) rgba[i * 4 + c] = pattern(i, c, grey && c < 3);
        }
        // Into `mid` with a padded stride, then to every format, then back to RGBA8.
        const unsigned midStride = w * mc + 5;
        std::vector<unsigned char> midPixels(std::size_t(midStride) * h * 4, 0x5A);
        ImageDataFeature in(w, h, w * 4, PfRGBA8);
        ImageDataFeature midF(w, h, midStride, mid);
        ASSERT_TRUE(ImageDataConversion::convert(midF, midPixels.data(), in, rgba.data()));
        for (RawPixelFormat out : kStorageFormats) {
            const unsigned oc = getChannelCount(out), ob = getBytesPerChannel(out);
            const unsigned outStride = w * oc + 3;
            std::vector<unsigned char> outPixels(std::size_t(outStride) * h * ob + 1, 0x77);
            ImageDataFeature outF(w, h, outStride, out);
            ASSERT_TRUE(ImageDataConversion::convert(outF, outPixels.data(), midF,
                                                     midPixels.data()));
            for (int y = 0; y < h; ++y) {
                const unsigned char* pad = outPixels.data() + (y * outStride + w * oc) * ob;
                for (unsigned i = 0; i < 3 * ob; ++i) ASSERT_EQ(pad[i], 0x77);
            }
        }
        std::vector<unsigned char> back(std::size_t(w) * h * 4);
        ImageDataFeature backF(w, h, w * 4, PfRGBA8);
        ASSERT_TRUE(ImageDataConversion::convert(backF, back.data(), midF, midPixels.data()));
        const unsigned kept = mc == 1 && !(std::uint32_t(mid) & PfChannelL) ? 1 : 3;  // Lum comes back as grey
        for (int i = 0; i < w * h; ++i) {
            for (unsigned c = 0; c < kept; ++c) {
                ASSERT_EQ(back[i * 4 + c], rgba[i * 4 + c])
                    << pixelFormatString(mid) << " pixel " << i << " channel " << c;
            }
            ASSERT_EQ(back[i * 4 + 3], hasAlpha(mid) ? rgba[i * 4 + 3] : 255)
                << pixelFormatString(mid) << " pixel " << i;
        }
    }
    EXPECT_EQ(capture.assertions(), 0u);
}

TEST(ImageDataConversion, RefusesMismatchedSizesAndForeignFormats) {
    std::vector<unsigned char> a(64), b(64);
    ImageDataFeature s(4, 2, 0, PfRGBA8);
    ImageDataFeature d(4, 3, 0, PfRGBA8);
    LogCapture capture;
    EXPECT_FALSE(ImageDataConversion::convert(d, b.data(), s, a.data()));
    EXPECT_EQ(capture.assertions("src.width == dst.width && src.height == dst.height"), 1u);
    ImageDataFeature alpha(4, 2, 0, PfAlpha8);
    ImageDataFeature d2(4, 2, 0, PfRGBA8);
    EXPECT_FALSE(ImageDataConversion::convert(d2, b.data(), alpha, a.data()));
    EXPECT_TRUE(capture.contains("unsupported pixel format: A8u"));
    ImageDataFeature narrow(4, 2, 8, PfRGBA8);
    EXPECT_FALSE(ImageDataConversion::convert(narrow, b.data(), s, a.data()));
    EXPECT_EQ(capture.assertions("stride >= width * channels"), 1u);
}

}  // namespace
}  // namespace qor::imaging
