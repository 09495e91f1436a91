// JPEG files read reduced by libjpeg's DCT scaling: a loader's source at a reduced size, whose
// band reader decodes scaled bands, and a file picture scaled through it against the full-size
// road.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "CodecTestSupport.h"
#include "imageio/ImageIOImageSource.h"
#include "imageio/ImageLoader.h"
#include "imageio/detail/LoaderImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/ScaledImageSource.h"
#include "imaging/TileCache.h"

namespace qor::imageio {
namespace {

using math::Recti;
using testing::TempFolder;
using Vec2i = math::GenVec<int, 2>;
using String = FastString<char>;

// What photographs have: smooth shading, a fine texture and hard-edged shapes, in colour.
testing::Bytes photoLikeJpeg(int width, int height, bool progressive = false) {
    return testing::encodeJpeg(
        width, height, 3, JCS_RGB, 90,
        [width](int y, unsigned char* row) {
            for (int x = 0; x < width; ++x) {
                const double shade = 110 + 60 * std::sin(x * 0.013 + y * 0.007) +
                                     40 * std::cos(y * 0.021 - x * 0.004);
                const int texture =
                    int((uint32_t(x) * 2654435761u ^ uint32_t(y) * 40503u) >> 27) - 16;
                const int shape = ((x / 97 + y / 61) % 5 == 0) ? 70 : 0;
                const auto clamp = [](double v) {
                    return static_cast<unsigned char>(std::clamp(v, 0.0, 255.0));
                };
                row[3 * x] = clamp(shade + texture + shape);
                row[3 * x + 1] = clamp(0.8 * shade + texture / 2 + shape / 2);
                row[3 * x + 2] = clamp(255 - shade + texture - shape);
            }
        },
        progressive);
}

// The whole picture of `path` as plain libjpeg decodes it reduced by `denominator`, with the
// settings of the band reader at best quality.
ImagePtr wholeScaledDecode(const std::string& path, int denominator) {
    const testing::Bytes file = testing::readFile(path);
    jpeg_decompress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_decompress(&c);
    jpeg_mem_src(&c, file.data(), file.size());
    jpeg_read_header(&c, TRUE);
    c.scale_num = 1;
    c.scale_denom = unsigned(denominator);
    c.out_color_space = JCS_EXT_RGBA;
    c.dct_method = JDCT_FLOAT;
    c.do_fancy_upsampling = FALSE;
    jpeg_start_decompress(&c);
    ImagePtr image = Image4ub::create(int(c.output_width), int(c.output_height));
    while (c.output_scanline < c.output_height) {
        JSAMPROW row = image->row(int(c.output_scanline));
        jpeg_read_scanlines(&c, &row, 1);
    }
    jpeg_finish_decompress(&c);
    jpeg_destroy_decompress(&c);
    return image;
}

ImagePtr pixelsOf(const imaging::Image& image) {
    const SharedPtr<const imaging::ImageTile> tile = image.getAsTile();
    if (!tile) return nullptr;
    const auto data = tile->getDataRGBA8();
    return testing::crop(*data, Recti(0, 0, data->width(), data->height()));
}

// A loader's source at a size the file decodes to: its tiles, asked in line order and then at
// random (bands decoded again from the top), are those of the whole scaled decode, and the line
// order decodes each reduced line once.
TEST(LoaderImageSource, JpegAtAReducedSizeCutsItsTilesFromScaledBands) {
    TempFolder folder;
    const std::string path = folder.write("p.jpg", photoLikeJpeg(301, 203));
    const ImageLoader loader{String(path)};
    const ImagePtr whole = wholeScaledDecode(path, 4);
    const auto source = std::dynamic_pointer_cast<detail::LoaderSourceBase>(loader.getImageSource(
        imaging::PfRGBA8, ImageLoader::ImageTypeFull, Vec2i(16, 16), {}, Vec2i(76, 51)));
    ASSERT_TRUE(source);
    const Vec2i count = source->tileLayout().tileCount;
    std::vector<Vec2i> order;
    for (int y = 0; y < count.y; ++y)
        for (int x = 0; x < count.x; ++x) order.emplace_back(x, y);
    std::vector<Vec2i> shuffled = order;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    order.insert(order.end(), shuffled.begin(), shuffled.end());
    for (size_t i = 0; i < order.size(); ++i) {
        const Vec2i t = order[i];
        const auto tile = source->readTileNow(unsigned(t.x), unsigned(t.y));
        ASSERT_TRUE(tile);
        const Recti rect = source->tileLayout().getTileRect(t.x, t.y);
        EXPECT_EQ(testing::maxDifference(*tile->getDataRGBA8(), *testing::crop(*whole, rect)), 0)
            << t.x << "," << t.y;
        if (i + 1 == size_t(count.x * count.y)) {
            EXPECT_EQ(source->linesDecoded(), 51);
        }
    }
}

// The file source under a scaled image: the image's own, or the input of its scaled source.
imaging::ImageSource* fileSourceOf(const imaging::Image& image) {
    if (auto* scaled = dynamic_cast<imaging::ScaledImageSource*>(image.source().get()))
        return scaled->input()->source().get();
    return image.source().get();
}

// Mean and largest difference of the colour channels of two pictures of one size.
std::pair<double, int> differences(const Image4ub& a, const Image4ub& b) {
    double sum = 0;
    int worst = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            for (int c = 0; c < 3; ++c) {
                const int d = std::abs(int(a.at(x, y, c)) - int(b.at(x, y, c)));
                sum += d;
                worst = std::max(worst, d);
            }
    return {sum / (3.0 * a.width() * a.height()), worst};
}

// The reduced road against the full one: file source at full size, scaled by area means. DCT
// scaling keeps the low frequencies of each 8 x 8 block where the area mean is a box filter, and
// a scale between the halvings is then two box filters on the rounded reduction instead of one:
// on shading and texture they agree to a level or two, and differ most at hard edges (the box
// blurs them, the truncated DCT rings a little). Both are sound anti-aliasing filters; on this
// picture the mean difference stays under 1.5 levels of 255 and no sample is off by more than 15.
// The bounds below (a mean of 2, a sample 32) leave room for that and still fail for a picture
// shifted by a pixel or reduced by a wrong factor (a mean of 5 and more on this texture).
TEST(ImageIOImageSource, ScaledJpegDecodesReducedAndStaysCloseToTheFullRoad) {
    TempFolder folder;
    imaging::TileCache::enable();
    // 643 x 483 at 0.3: the half-size decode (322 x 242) scaled by 0.6 gives one pixel more on
    // each side than 643 x 483 at 0.3, which the scaled image leaves out.
    const std::string path = folder.write("p.jpg", photoLikeJpeg(643, 483));
    auto full = ImageIOImageSource::create(String(path), imaging::PfRGBA8, nullptr, false);
    ASSERT_TRUE(full);
    ImageIOImageSourceBase::ConstructionParam param;
    param.tileSize = Vec2i(64, 64);
    const struct {
        double scale;
        int reduction;
    } cases[] = {{0.5, 2}, {0.3, 2}, {0.25, 4}, {0.2, 4}, {0.125, 8}, {0.6, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scale);
        const SharedPtr<imaging::Image> reduced =
            ImageIOImageSource::createScaled(String(path), param, c.scale);
        ASSERT_TRUE(reduced);
        EXPECT_EQ(fileSourceOf(*reduced)->size(), Vec2i((643 + c.reduction - 1) / c.reduction,
                                                        (483 + c.reduction - 1) / c.reduction));
        const SharedPtr<imaging::Image> reference = imaging::Image::create(
            imaging::ScaledImageSource::create(imaging::Image::create(full), c.scale));
        ASSERT_EQ(reduced->size(), reference->size());
        const ImagePtr got = pixelsOf(*reduced), expected = pixelsOf(*reference);
        ASSERT_TRUE(got && expected);
        const auto [mean, worst] = differences(*got, *expected);
        EXPECT_LT(mean, 2.0);
        EXPECT_LE(worst, 32);
        if (c.reduction == 1) {
            EXPECT_EQ(worst, 0) << "no reduction: the full road itself";
        }
    }
}

// Files that the band reader does not read keep the full road; a loader's source made at a
// reduced size of one all the same reads it through area means.
TEST(ImageIOImageSource, ProgressiveJpegIsScaledFromFullSize) {
    TempFolder folder;
    imaging::TileCache::enable();
    const std::string path = folder.write("p.jpg", photoLikeJpeg(200, 120, true));
    ImageIOImageSourceBase::ConstructionParam param;
    param.tileSize = Vec2i(64, 64);
    const SharedPtr<imaging::Image> scaled =
        ImageIOImageSource::createScaled(String(path), param, 0.5);
    ASSERT_TRUE(scaled);
    EXPECT_EQ(fileSourceOf(*scaled)->size(), Vec2i(200, 120));
    EXPECT_EQ(scaled->size(), Vec2i(100, 60));

    const ImageLoader loader{String(path)};
    const auto source = std::dynamic_pointer_cast<detail::LoaderSourceBase>(loader.getImageSource(
        imaging::PfRGBA8, ImageLoader::ImageTypeFull, Vec2i(64, 64), {}, Vec2i(100, 60)));
    ASSERT_TRUE(source);
    const auto tile = source->readTileNow(1, 0);
    ASSERT_TRUE(tile);
    const ImagePtr reference = testing::crop(*pixelsOf(*scaled), Recti(64, 0, 36, 60));
    EXPECT_LT(differences(*tile->getDataRGBA8(), *reference).first, 2.0);
}

}  // namespace
}  // namespace qor::imageio
