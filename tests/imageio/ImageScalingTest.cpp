#include <gtest/gtest.h>

#include <cmath>

#include "CodecTestSupport.h"

namespace qor::imageio {
namespace {

using namespace testing;
using Vec2i = math::GenVec<int, 2>;

Vec2i sizeOf(const ImagePtr& image) { return Vec2i(image->width(), image->height()); }

// The mean of each channel over the whole image.
std::array<double, 4> mean(const Image4ub& image) {
    std::array<double, 4> sum{};
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            for (int c = 0; c < 4; ++c) sum[c] += image.at(x, y, c);
    for (double& s : sum) s /= double(image.width()) * image.height();
    return sum;
}

TEST(ImageScaling, TargetSizesExactOrFittedAndNeverLarger) {
    struct Case {
        Vec2i source, target;
        int fit;
        Vec2i expected;
    } cases[] = {
        {{100, 50}, {25, 25}, ScaleFitInside, {25, 13}},  // 12.5 rounds up
        {{100, 50}, {25, 25}, ScaleExact, {25, 25}},
        {{100, 50}, {400, 400}, ScaleFitInside, {100, 50}},
        {{100, 50}, {400, 10}, ScaleExact, {100, 10}},    // the larger side is clamped
        {{100, 50}, {0, 20}, ScaleFitInside, {100, 50}},  // a box with a zero side
        {{100, 50}, {0, 0}, ScaleExact, {1, 1}},
        {{1024, 768}, {256, 192}, ScaleFitInside, {256, 192}},  // halvings only
        {{1000, 3}, {10, 10}, ScaleFitInside, {10, 1}},
    };
    for (const Case& c : cases) {
        ImagePtr result = scaleTrilinear_destructive(gradientImage(c.source.x, c.source.y),
                                                     c.target.x, c.target.y, c.fit);
        ASSERT_TRUE(result);
        EXPECT_EQ(sizeOf(result), c.expected) << c.source << " -> " << c.target << " fit " << c.fit;
    }
    EXPECT_FALSE(scaleTrilinear_destructive(nullptr, 10, 10, 1));
}

TEST(ImageScaling, ImageNotReducedIsReturnedItself) {
    ImagePtr image = gradientImage(30, 20);
    EXPECT_EQ(scaleTrilinear_destructive(image, 30, 20, ScaleExact), image);
    EXPECT_EQ(scaleTrilinear_destructive(image, 60, 60, ScaleFitInside), image);
}

TEST(ImageScaling, IntegerFactorsAreCloseToBoxAverages) {
    // Factor 2 (one halving) and 4 (two halvings) are box averages up to rounding. Factor 3 is a
    // halving and then an area average over the halved pixels, which blends the two source
    // pixels of a halved pixel that a target boundary cuts: on these gradients (about 7 levels a
    // pixel) that costs up to 2 levels.
    ImagePtr source = gradientImage(36, 24);
    for (int factor : {2, 3, 4}) {
        ImagePtr copy = Image4ub::create(36, 24);
        imaging::copyPixels(*source, *copy);
        ImagePtr result = scaleTrilinear_destructive(copy, 36 / factor, 24 / factor, ScaleExact);
        ASSERT_EQ(sizeOf(result), Vec2i(36 / factor, 24 / factor));
        int worst = 0;
        for (int y = 0; y < result->height(); ++y)
            for (int x = 0; x < result->width(); ++x)
                for (int c = 0; c < 4; ++c) {
                    double sum = 0;
                    for (int j = 0; j < factor; ++j)
                        for (int i = 0; i < factor; ++i)
                            sum += source->at(x * factor + i, y * factor + j, c);
                    worst = std::max(
                        worst,
                        int(std::lround(std::abs(sum / (factor * factor) - result->at(x, y, c)))));
                }
        EXPECT_LE(worst, factor == 3 ? 2 : 1) << factor;
    }
}

TEST(ImageScaling, AreaAverageKeepsTheMeanAndThinLines) {
    // One-pixel lines every 7 pixels: an area average keeps their weight in the mean, where point
    // sampling would drop or double them.
    ImagePtr lines = solidImage(140, 70, 0, 0, 0);
    for (int y = 0; y < 70; ++y)
        for (int x = 0; x < 140; x += 7) lines->at(x, y, 0) = 255;
    const std::array<double, 4> before = mean(*lines);
    ImagePtr result = scaleTrilinear_destructive(lines, 23, 11, ScaleExact);
    ASSERT_EQ(sizeOf(result), Vec2i(23, 11));
    const std::array<double, 4> after = mean(*result);
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(before[c], after[c], 1.0) << c;
    for (int y = 0; y < 11; ++y)
        for (int x = 0; x < 23; ++x) ASSERT_GT(result->at(x, y, 0), 0) << x << "," << y;

    ImagePtr solid =
        scaleTrilinear_destructive(solidImage(99, 37, 10, 20, 30, 40), 17, 5, ScaleExact);
    EXPECT_EQ(maxDifference(*solidImage(17, 5, 10, 20, 30, 40), *solid), 0);
}

TEST(ImageScaling, SwapRBExchangesTheFirstAndThirdChannel) {
    ImagePtr image = gradientImage(9, 4);
    ImagePtr original = Image4ub::create(9, 4);
    imaging::copyPixels(*image, *original);
    swapRB(*image);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 9; ++x) {
            EXPECT_EQ(image->at(x, y, 0), original->at(x, y, 2));
            EXPECT_EQ(image->at(x, y, 1), original->at(x, y, 1));
            EXPECT_EQ(image->at(x, y, 2), original->at(x, y, 0));
            EXPECT_EQ(image->at(x, y, 3), original->at(x, y, 3));
        }
}

}  // namespace
}  // namespace qor::imageio
