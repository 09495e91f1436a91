#include <gtest/gtest.h>

#include <vector>

#include "base/Log.h"
#include "imaging/ImageTile.h"
#include "imaging/SmallImageAllocator.h"

namespace qor::imaging {
namespace {

SharedPtr<GenImageData<unsigned char, 4>> filled(int w, int h, unsigned char value) {
    auto data = GenImageData<unsigned char, 4>::create(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c) data->at(x, y, c) = (unsigned char)(value + x + 3 * y + c);
    return data;
}

// The pixels of a small image, read through its big image.
void expectPixels(const SharedPtr<Image>& image, unsigned char value) {
    auto tile = image->getAsTile();
    ASSERT_TRUE(tile);
    auto px = tile->getDataRGBA8();
    for (int y = 0; y < image->height(); ++y)
        for (int x = 0; x < image->width(); ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(px->at(x, y, c), (unsigned char)(value + x + 3 * y + c)) << x << "," << y;
}

TEST(PackerImageRow, FirstFitAfterABlockAndHeightTracking) {
    PackerImageRow row(10, 20, 100);
    Recti a, b, c, d;
    EXPECT_FALSE(row.alloc(10, 21, &a));  // taller than the row may be
    ASSERT_TRUE(row.alloc(40, 5, &a));
    EXPECT_EQ(a, Recti(0, 10, 40, 5));
    ASSERT_TRUE(row.alloc(30, 12, &b));
    EXPECT_EQ(b, Recti(40, 10, 30, 12));
    EXPECT_EQ(row.usedHeight(), 12);
    EXPECT_FALSE(row.alloc(31, 5, &c));  // 30 left at the right edge
    ASSERT_TRUE(row.free(a));
    // The gap before the first block is not considered; the one at the right edge is.
    ASSERT_TRUE(row.alloc(30, 5, &c));
    EXPECT_EQ(c, Recti(70, 10, 30, 5));
    EXPECT_FALSE(row.alloc(1, 1, &d));
    EXPECT_FALSE(row.free(a));
}

TEST(SmallImageAllocator, PacksImagesIntoSharedBigImagesAndReusesFreedBlocks) {
    SmallImageAllocator allocator(GenVec<int, 2>(64, 32));
    std::vector<SharedPtr<Image>> images;
    for (int i = 0; i < 6; ++i) images.push_back(allocator.createRGBA(filled(20, 10, i * 10)));
    // Three a row, two rows of 10 in 32: all six in one big image, each its own rectangle.
    EXPECT_EQ(allocator.bigImageCount(), 1u);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(images[i]);
        EXPECT_EQ(images[i]->source(), images[0]->source());
        EXPECT_EQ(images[i]->size(), (GenVec<int, 2>(20, 10)));
        expectPixels(images[i], (unsigned char)(i * 10));
    }
    // A 13-high image does not fit under the two rows (20 used of 32): a new big image.
    auto tall = allocator.createRGBA(filled(8, 13, 99));
    EXPECT_EQ(allocator.bigImageCount(), 2u);
    EXPECT_NE(tall->source(), images[0]->source());
    expectPixels(tall, 99);

    // A freed block takes the next image of its size; the others keep their pixels.
    const Recti freed = images[4]->subrect();
    images[4].reset();
    auto again = allocator.createRGBA(filled(20, 10, 7));
    EXPECT_EQ(again->subrect(), freed);
    expectPixels(again, 7);
    expectPixels(images[5], 50);
}

TEST(SmallImageAllocator, DropsEmptyBigImagesAndRefusesOversizedData) {
    LogCapture log;
    auto allocator = std::make_unique<SmallImageAllocator>(GenVec<int, 2>(16, 16));
    EXPECT_FALSE(allocator->createRGBA(filled(17, 4, 0)));
    EXPECT_EQ(log.assertions("data->width() <= _imageSize.x && data->height() <= _imageSize.y"), 1u);
    auto first = allocator->createRGBA(filled(16, 16, 1));
    auto second = allocator->createRGBA(filled(16, 16, 2));
    EXPECT_EQ(allocator->bigImageCount(), 2u);
    first.reset();  // the first big image is empty now and is not the last: it goes
    EXPECT_EQ(allocator->bigImageCount(), 1u);
    // A small image may outlive its allocator.
    allocator.reset();
    EXPECT_EQ(log.assertions("_images.empty()"), 1u);
    expectPixels(second, 2);
    second.reset();
    EXPECT_EQ(log.assertions("empty()"), 0u);
}

}  // namespace
}  // namespace qor::imaging
