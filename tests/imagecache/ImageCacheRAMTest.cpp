#include <gtest/gtest.h>

#include "ThumbnailTestSupport.h"
#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/LargeImageCache.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"

namespace qor::imagecache {
namespace {

using testing::FakeLink;
using testing::redOf;

// One 16 x 16 thumbnail: 16 rows of 64 bytes (the stride of 16 RGBA pixels).
constexpr uint64_t kSmall = 16 * 64;

struct ImageCacheRAMTest : ::testing::Test {
    ResourceManager manager;
    FakeLink next{&manager};
    ResourceID item(int i) { return manager.makeID(i); }
};

TEST_F(ImageCacheRAMTest, KeepsWhatTheNextLinkMadeAndAsksOnlyForWhatItLacks) {
    ImageCacheRAM ram(&next, 100 * kSmall);
    Thumbnail first = ram.get(item(1), 16);
    Thumbnail again = ram.get(item(1), 16);
    EXPECT_EQ(first.image, again.image);
    EXPECT_TRUE(ram.contains(item(1), 16));
    EXPECT_FALSE(ram.contains(item(1), 32));
    ram.get(item(1), 32);  // another size class is another entry
    EXPECT_EQ(next.gets, 2);
    EXPECT_EQ(ram.count(), 2u);
}

TEST_F(ImageCacheRAMTest, EvictionHoldsTheByteBudgetAndKeepsTheRecentlyUsed) {
    ImageCacheRAM ram(&next, 4 * kSmall);
    ASSERT_EQ(ImageCacheRAM::costOf(*ram.get(item(0), 16).image), kSmall);
    for (int i = 1; i < 10; ++i) {
        ram.get(item(i), 16);
        ram.get(item(0), 16);  // kept in use
        EXPECT_LE(ram.byteSize(), ram.byteLimit());
    }
    EXPECT_TRUE(ram.contains(item(0), 16));
    EXPECT_TRUE(ram.contains(item(9), 16));
    EXPECT_FALSE(ram.contains(item(1), 16));
    EXPECT_EQ(ram.count(), 4u);

    ram.setByteLimit(2 * kSmall);
    EXPECT_EQ(ram.byteSize(), 2 * kSmall);
    EXPECT_TRUE(ram.contains(item(0), 16));

    // An image above the whole budget is handed out, not kept, and evicts nothing.
    Thumbnail big = ram.get(item(50), 64);
    EXPECT_NE(big.image, nullptr);
    EXPECT_FALSE(ram.contains(item(50), 64));
    EXPECT_EQ(ram.count(), 2u);
}

TEST_F(ImageCacheRAMTest, APlaceholderIsNotKeptSoTheFixedFileIsTriedAgain) {
    ImageCacheRAM ram(&next, 100 * kSmall);
    next.setBroken(item(3), true);
    EXPECT_TRUE(ram.get(item(3), 16).placeholder);
    EXPECT_FALSE(ram.contains(item(3), 16));
    next.setBroken(item(3), false);
    Thumbnail fixed = ram.get(item(3), 16);
    EXPECT_FALSE(fixed.placeholder);
    EXPECT_EQ(fixed.image->width(), 16);
    EXPECT_EQ(next.getsOf(item(3)), 2);
}

TEST_F(ImageCacheRAMTest, UpkeepDropsChangedAndRemovedItemsKeepsMovedOnesAndSharesCopies) {
    ImageCacheRAM ram(&next, 100 * kSmall);
    ram.get(item(1), 16);
    ram.get(item(1), 32);
    ram.get(item(2), 16);

    next.setVersion(item(1), 7);
    ram.itemChanged(item(1));
    EXPECT_FALSE(ram.contains(item(1), 16));
    EXPECT_FALSE(ram.contains(item(1), 32));
    EXPECT_TRUE(ram.contains(item(2), 16));
    EXPECT_EQ(redOf(ram.get(item(1), 16).image), 7);

    ram.itemMoved(item(2), "/old/place.jpg");
    EXPECT_TRUE(ram.contains(item(2), 16));

    ram.itemCopied(item(2), item(5));
    EXPECT_EQ(ram.get(item(5), 16).image, ram.get(item(2), 16).image);

    ram.itemRemoved(item(2), "/new/place.jpg");
    EXPECT_FALSE(ram.contains(item(2), 16));
    EXPECT_TRUE(ram.contains(item(5), 16));
    EXPECT_EQ(next.changed, 1);
    EXPECT_EQ(next.moved, 1);
    EXPECT_EQ(next.copied, 1);
    EXPECT_EQ(next.removed, 1);
}

// A preview and a grid thumbnail each fill their own budget; upkeep reaches both memory links and
// the link behind them once.
TEST_F(ImageCacheRAMTest, LargeImageCacheKeepsPreviewsInTheirOwnBudget) {
    ImageCacheRAM grid(&next, 2 * kSmall);
    const uint64_t previewCost = uint64_t(kScreenPreviewSide) * kScreenPreviewSide * 4;
    LargeImageCache large(&grid, &next, 2 * previewCost);
    large.get(item(1), 16);
    large.preview(item(1));
    large.preview(item(2));
    EXPECT_TRUE(grid.contains(item(1), 16));
    EXPECT_FALSE(grid.contains(item(1), kScreenPreviewSide));
    EXPECT_TRUE(large.contains(item(1), kScreenPreviewSide));
    EXPECT_EQ(large.previews().byteSize(), 2 * previewCost);

    large.itemChanged(item(1));
    EXPECT_FALSE(large.contains(item(1), kScreenPreviewSide));
    EXPECT_FALSE(grid.contains(item(1), 16));
    EXPECT_EQ(next.changed, 1);
}

}  // namespace
}  // namespace qor::imagecache
