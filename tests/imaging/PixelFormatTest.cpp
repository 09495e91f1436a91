#include <gtest/gtest.h>

#include "base/Log.h"
#include "imaging/PixelFormat.h"

namespace qor::imaging {
namespace {

TEST(PixelFormat, BytesPerPixelFromTheFormatWord) {
    EXPECT_EQ(getBytesPerPixel(PfRGB8), 3u);
    EXPECT_EQ(getBytesPerPixel(PfRGBA16F), 8u);
    EXPECT_EQ(getBytesPerPixel(PfLum32F), 4u);
    EXPECT_EQ(getBytesPerPixel(PfBGRA8), 4u);
    EXPECT_EQ(getBytesPerPixel(PfInvalid), 0u);
}

TEST(PixelFormat, NamesWalkLettersBackwardsForReversedFormats) {
    EXPECT_EQ(pixelFormatString(PfBGRA8), "ABGR8u");
    EXPECT_EQ(pixelFormatString(PfRGB16F), "RGB16f");
    EXPECT_EQ(pixelFormatString(PfLum8), "L8u");
    EXPECT_EQ(pixelFormatString(PfInvalid), "0?");
}

TEST(PixelFormat, LosslessConversionKeepsItsFixedRules) {
    EXPECT_FALSE(losslessConversionPossible(PfRGBA8, PfRGB8));     // fewer channels
    EXPECT_FALSE(losslessConversionPossible(PfRGB8, PfRGB16F));    // unsigned to float
    EXPECT_FALSE(losslessConversionPossible(PfRGB16, PfRGB8));     // fewer bits
    EXPECT_TRUE(losslessConversionPossible(PfRGB16F, PfRGB8));     // 16f <= 2 * 8
    EXPECT_FALSE(losslessConversionPossible(PfRGB32F, PfRGB8));    // 32f > 2 * 8
    EXPECT_TRUE(losslessConversionPossible(PfRGB8, PfRGBA16));
    LogCapture capture;
    losslessConversionPossible(PfInvalid, PfRGB8);
    EXPECT_EQ(capture.assertions("source != PfInvalid && dest != PfInvalid"), 1u);
}

TEST(PixelFormat, StrideAlignsRowsToWholeGroups) {
    EXPECT_EQ(computeStride(100, 1, 3, 32), 384u);
    EXPECT_EQ(computeStride(100, 1, 4, 32), 416u);
    EXPECT_EQ(computeStride(1, 1, 3, 32), 96u);
    EXPECT_EQ(computeStride(1, 1, 4, 32), 32u);  // one pixel still takes a 32-byte row
    EXPECT_EQ(computeStride(0, 1, 4, 32), 0u);
    EXPECT_EQ(computeStride(1, 4, 4, 32), 8u);   // 32 bytes of float RGBA
    EXPECT_EQ(computeStride(9, 2, 1, 32), 16u);  // 16-bit samples, 32-byte rows
}

}  // namespace
}  // namespace qor::imaging
