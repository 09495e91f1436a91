#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "base/Log.h"
#include "imaging/ColorProfile.h"
#include "imaging/ColorTransform.h"
#include "imaging/GenImageData.h"

using namespace qor;
using namespace qor::imaging;

namespace {

// The sRGB decoding curve (IEC 61966-2-1), to check conversions against the standard.
double srgbToLinear(double v) {
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}

// Every combination of the channel values in `steps`, with alpha counting up from 0.
template <class T, int N>
SharedPtr<GenImageData<T, N>> gridImage(const std::vector<T>& steps) {
    const int n = static_cast<int>(steps.size());
    auto image = GenImageData<T, N>::create(n * n, n);
    int alpha = 0;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n * n; ++x) {
            image->at(x, y, 0) = steps[x % n];
            image->at(x, y, 1) = steps[x / n];
            image->at(x, y, 2) = steps[y];
            if (N == 4) image->at(x, y, 3) = static_cast<T>(alpha++ % 251);
        }
    return image;
}

// The largest difference of any channel, over the pixels whose colour channels in `b` are all at
// least `floor`.
template <class T, int N>
double largestDifference(const GenImageData<T, N>& a, const GenImageData<T, N>& b,
                         double floor = 0) {
    double worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x) {
            if (std::min({double(b.at(x, y, 0)), double(b.at(x, y, 1)), double(b.at(x, y, 2))}) <
                floor)
                continue;
            for (int c = 0; c < N; ++c)
                worst = std::max(worst, std::abs(double(a.at(x, y, c)) - double(b.at(x, y, c))));
        }
    return worst;
}

template <class T, int N>
SharedPtr<GenImageData<T, N>> copyOf(const GenImageData<T, N>& image) {
    auto copy = GenImageData<T, N>::create(image.width(), image.height());
    copyPixels(image, *copy);
    return copy;
}

std::vector<uint8_t> steps8() {
    std::vector<uint8_t> s;
    for (int v = 0; v < 256; v += 15) s.push_back(uint8_t(v));
    return s;
}

}  // namespace

TEST(ColorProfile, BuiltInProfilesAreRgbAndEqualByContent) {
    auto srgb = ColorProfile::sRGB();
    auto adobe = ColorProfile::adobeRGB();
    auto linear = ColorProfile::linearSRGB();
    EXPECT_EQ(srgb->description(), "sRGB IEC61966-2.1");
    EXPECT_EQ(adobe->description(), "Adobe RGB (1998)");
    EXPECT_EQ(linear->description(), "Linear sRGB");
    for (const auto& p : {srgb, adobe, linear}) {
        EXPECT_EQ(p->colorSpace(), ColorProfile::CsRGB);
        EXPECT_EQ(p->channels(), 3);
    }
    EXPECT_FALSE(*srgb == *adobe);
    EXPECT_FALSE(*srgb == *linear);
    EXPECT_EQ(ColorProfile::builtIn("AdobeRGB"), adobe);
    EXPECT_EQ(ColorProfile::builtIn("sRGB"), srgb);
    EXPECT_EQ(ColorProfile::builtIn("linear-srgb"), linear);
    EXPECT_EQ(ColorProfile::builtIn("prophoto"), nullptr);

    // A copy read back from the bytes, with another creation time, is the same profile.
    std::vector<uint8_t> bytes = srgb->data();
    bytes[24] ^= 0x5;
    auto copy = ColorProfile::fromMemory(bytes.data(), bytes.size());
    EXPECT_NE(copy, srgb);
    EXPECT_TRUE(ColorProfile::same(copy, srgb));
    EXPECT_EQ(copy->description(), srgb->description());
    EXPECT_TRUE(ColorProfile::same(nullptr, nullptr));
    EXPECT_FALSE(ColorProfile::same(copy, nullptr));
}

TEST(ColorProfile, CorruptProfilesAreRejectedWithTheReason) {
    LogCapture log;
    const std::vector<uint8_t>& good = ColorProfile::sRGB()->data();
    auto message = [](const std::vector<uint8_t>& bytes) -> std::string {
        try {
            ColorProfile::fromMemory(bytes.data(), bytes.size());
        } catch (const ColorProfileException& e) {
            return e.message();
        }
        return "accepted";
    };
    EXPECT_NE(message({good.begin(), good.begin() + 100}).find("fewer than its header"),
              std::string::npos);
    std::vector<uint8_t> noise(600);
    for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 37 + 11);
    EXPECT_NE(message(noise).find("Not a valid ICC profile (600 bytes)"), std::string::npos);
    // A header and tag table that promise more data than there is.
    EXPECT_NE(message({good.begin(), good.begin() + good.size() / 2}), "accepted");
    // Tag data overwritten: the tone curves and colorants no longer read.
    std::vector<uint8_t> damaged = good;
    std::fill(damaged.begin() + 300, damaged.end(), uint8_t(0xEE));
    EXPECT_NE(message(damaged), "accepted");
    EXPECT_GE(log.count("ColorProfile: "), 4u);

    EXPECT_THROW(ColorProfile::fromFile("/nonexistent/qor/profile.icc"), ColorProfileException);
    EXPECT_TRUE(log.contains("/nonexistent/qor/profile.icc"));
}

TEST(ColorProfile, ReadsProfileFiles) {
    const std::string path = ::testing::TempDir() + "qor-adobe.icc";
    const auto& bytes = ColorProfile::adobeRGB()->data();
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    auto read = ColorProfile::fromFile(path);
    EXPECT_TRUE(*read == *ColorProfile::adobeRGB());
    std::remove(path.c_str());
}

TEST(ColorTransform, ConvertsKnownValues) {
    // sRGB 128 is 21.6 % linear light.
    auto toLinear = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::linearSRGB(), 0.0,
                                           -1, PfRGB8);
    auto rgb = GenImageData<uint8_t, 3>::create(1, 1);
    rgb->at(0, 0, 0) = 128, rgb->at(0, 0, 1) = 0, rgb->at(0, 0, 2) = 255;
    toLinear->apply(*rgb);
    EXPECT_NEAR(rgb->at(0, 0, 0), 255 * srgbToLinear(128 / 255.0), 1.0);
    EXPECT_EQ(rgb->at(0, 0, 1), 0);
    EXPECT_NEAR(rgb->at(0, 0, 2), 255, 1.0);

    auto toLinearF = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::linearSRGB(), 0.0,
                                            -1, PfRGBA32F);
    auto f = GenImageData<float, 4>::create(1, 1);
    f->at(0, 0, 0) = 0.5f, f->at(0, 0, 1) = 0.2f, f->at(0, 0, 2) = 0.9f, f->at(0, 0, 3) = 0.25f;
    toLinearF->apply(*f);
    EXPECT_NEAR(f->at(0, 0, 0), srgbToLinear(0.5), 1e-3);
    EXPECT_NEAR(f->at(0, 0, 1), srgbToLinear(0.2), 1e-3);
    EXPECT_NEAR(f->at(0, 0, 2), srgbToLinear(0.9), 1e-3);
    EXPECT_EQ(f->at(0, 0, 3), 0.25f);

    // sRGB's pure red lies inside Adobe RGB: 71.5 % linear red there (through XYZ with both
    // standards' matrices), gamma 563/256 encoded to 219 of 255.
    auto toAdobe = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::adobeRGB(), 0.0, 0,
                                          PfRGBA8);
    auto red = GenImageData<uint8_t, 4>::create(1, 1);
    red->at(0, 0, 0) = 255, red->at(0, 0, 1) = 0, red->at(0, 0, 2) = 0, red->at(0, 0, 3) = 7;
    toAdobe->apply(*red);
    EXPECT_NEAR(red->at(0, 0, 0), 219, 2);
    EXPECT_LE(red->at(0, 0, 1), 2);
    EXPECT_LE(red->at(0, 0, 2), 2);
    EXPECT_EQ(red->at(0, 0, 3), 7);
}

// sRGB to Adobe RGB and back: Adobe RGB holds all of sRGB, so only rounding is lost, but near
// black one 8-bit step of Adobe RGB spans many steps of sRGB's steep linear toe. Tolerances,
// measured on a dense grid and rounded up: 8-bit 12 levels anywhere and 2 where every colour
// channel is at least 90; 16-bit 32 of 65535 (0.05 %); float 1e-3. Alpha must come back exactly.
TEST(ColorTransform, RoundTripThroughAdobeRgbKeepsValuesAndAlpha) {
    auto src = ColorProfile::sRGB();
    auto wide = ColorProfile::adobeRGB();

    auto image8 = gridImage<uint8_t, 4>(steps8());
    auto original8 = copyOf(*image8);
    ColorTransform::create(src, wide, 0.0, -1, PfRGBA8)->apply(*image8);
    EXPECT_GT(largestDifference(*image8, *original8), 5.0);  // it did convert
    ColorTransform::create(wide, src, 0.0, -1, PfRGBA8)->apply(*image8);
    EXPECT_LE(largestDifference(*image8, *original8), 12.0);
    EXPECT_LE(largestDifference(*image8, *original8, 90), 2.0);
    for (int x = 0; x < image8->width(); ++x)
        ASSERT_EQ(image8->at(x, 3, 3), original8->at(x, 3, 3));

    std::vector<uint8_t> s8 = steps8();
    auto image3 = gridImage<uint8_t, 3>(s8);
    auto original3 = copyOf(*image3);
    ColorTransform::create(src, wide, 0.0, -1, PfRGB8)->apply(*image3);
    ColorTransform::create(wide, src, 0.0, -1, PfRGB8)->apply(*image3);
    EXPECT_LE(largestDifference(*image3, *original3), 12.0);
    EXPECT_LE(largestDifference(*image3, *original3, 90), 2.0);

    std::vector<uint16_t> s16;
    for (int v : s8) s16.push_back(uint16_t(v * 257));
    auto image16 = gridImage<uint16_t, 4>(s16);
    auto original16 = copyOf(*image16);
    ColorTransform::create(src, wide, 0.0, -1, PfRGBA16)->apply(*image16);
    ColorTransform::create(wide, src, 0.0, -1, PfRGBA16)->apply(*image16);
    EXPECT_LE(largestDifference(*image16, *original16), 32.0);

    auto image3x16 = gridImage<uint16_t, 3>(s16);
    auto original3x16 = copyOf(*image3x16);
    ColorTransform::create(src, wide, 0.0, -1, PfRGB16)->apply(*image3x16);
    ColorTransform::create(wide, src, 0.0, -1, PfRGB16)->apply(*image3x16);
    EXPECT_LE(largestDifference(*image3x16, *original3x16), 32.0);

    std::vector<float> sf;
    for (int v : s8) sf.push_back(v / 255.0f);
    auto imageF = gridImage<float, 4>(sf);
    auto originalF = copyOf(*imageF);
    ColorTransform::create(src, wide, 0.0, -1, PfRGBA32F)->apply(*imageF);
    ColorTransform::create(wide, src, 0.0, -1, PfRGBA32F)->apply(*imageF);
    EXPECT_LE(largestDifference(*imageF, *originalF), 1e-3);
}

TEST(ColorTransform, AppliesToARectangleOnly) {
    auto image = gridImage<uint8_t, 4>(steps8());
    auto original = copyOf(*image);
    const Recti rect(5, 3, 40, 6);
    ColorTransform::create(ColorProfile::sRGB(), ColorProfile::linearSRGB(), 0.0, -1, PfRGBA8)
        ->apply(*image, rect);
    auto whole = copyOf(*original);
    ColorTransform::create(ColorProfile::sRGB(), ColorProfile::linearSRGB(), 0.0, -1, PfRGBA8)
        ->apply(*whole);
    for (int y = 0; y < image->height(); ++y)
        for (int x = 0; x < image->width(); ++x) {
            const auto& expected = rect.contains(Vec2i(x, y)) ? *whole : *original;
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(image->at(x, y, c), expected.at(x, y, c)) << x << "," << y;
        }
}

TEST(ColorTransform, SameProfilesAreTheIdentityAndTransformsAreShared) {
    auto copy = ColorProfile::fromMemory(ColorProfile::adobeRGB()->data().data(),
                                         ColorProfile::adobeRGB()->size());
    auto identity = ColorTransform::create(ColorProfile::adobeRGB(), copy, 0.0, -1, PfRGBA16);
    EXPECT_TRUE(identity->isIdentity());
    std::vector<uint16_t> s16 = {0, 1, 300, 32768, 65534, 65535};
    auto image = gridImage<uint16_t, 4>(s16);
    auto original = copyOf(*image);
    identity->apply(*image);
    EXPECT_EQ(largestDifference(*image, *original), 0.0);

    auto a = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::adobeRGB(), 0.0, 1, PfRGB8);
    auto b = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::adobeRGB(), 0.0, 1, PfRGB8);
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a->isIdentity());
    EXPECT_EQ(a->intent(), 1);
    EXPECT_NE(a, ColorTransform::create(ColorProfile::sRGB(), ColorProfile::adobeRGB(), 0.0, 1,
                                        PfRGBA8));
}

TEST(ColorTransform, RefusesWhatItCannotConvert) {
    LogCapture log;
    auto srgb = ColorProfile::sRGB();
    EXPECT_THROW(ColorTransform::create(srgb, nullptr), ColorProfileException);
    EXPECT_THROW(ColorTransform::create(srgb, srgb, 0.0, -1, PfLum8), ColorProfileException);
    EXPECT_THROW(ColorTransform::create(srgb, srgb, 0.0, -1, PfRGBA32), ColorProfileException);
    EXPECT_THROW(ColorTransform::create(srgb, srgb, 0.0, 9, PfRGBA8), ColorProfileException);
    EXPECT_THROW(ColorTransform::create(srgb, srgb, 1.5, -1, PfRGBA8), ColorProfileException);
    EXPECT_TRUE(log.contains("does not fit pixels of format"));

    auto t = ColorTransform::create(srgb, ColorProfile::linearSRGB(), 0.0, -1, PfRGBA8);
    auto wide = GenImageData<uint16_t, 4>::create(2, 2);
    EXPECT_THROW(t->apply(*wide), ColorProfileException);
    EXPECT_EQ(log.assertions("image layout matches the transform's format"), 1u);
}

TEST(ColorTransform, LookupTableSamplesTheTransform) {
    auto t = ColorTransform::create(ColorProfile::sRGB(), ColorProfile::linearSRGB(), 0.0, -1,
                                    PfRGBA8);
    const int n = 5;
    std::vector<float> table = t->lookupTable3D(n);
    ASSERT_EQ(table.size(), size_t(n * n * n * 3));
    for (int b = 0; b < n; ++b)
        for (int g = 0; g < n; ++g)
            for (int r = 0; r < n; ++r) {
                const float* e = &table[((b * n + g) * n + r) * 3];
                EXPECT_NEAR(e[0], srgbToLinear(r / double(n - 1)), 1e-3);
                EXPECT_NEAR(e[1], srgbToLinear(g / double(n - 1)), 1e-3);
                EXPECT_NEAR(e[2], srgbToLinear(b / double(n - 1)), 1e-3);
            }
    LogCapture log;
    EXPECT_THROW(t->lookupTable3D(1), ColorProfileException);
}

// One shared transform applied on several threads at once gives what it gives on one thread.
TEST(ColorTransformThreads, SharedTransformAppliesOnManyThreads) {
    auto t = ColorTransform::create(ColorProfile::adobeRGB(), ColorProfile::sRGB(), 0.0, -1,
                                    PfRGBA8);
    auto expected = gridImage<uint8_t, 4>(steps8());
    t->apply(*expected);
    std::vector<SharedPtr<GenImageData<uint8_t, 4>>> images;
    for (int i = 0; i < 4; ++i) images.push_back(gridImage<uint8_t, 4>(steps8()));
    std::vector<std::thread> threads;
    for (auto& image : images)
        threads.emplace_back([&t, image] {
            for (int y = 0; y < image->height(); ++y)
                t->apply(*image, Recti(0, y, image->width(), 1));
        });
    for (auto& thread : threads) thread.join();
    for (auto& image : images) EXPECT_EQ(largestDifference(*image, *expected), 0.0);
}
