#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <vector>

#include "base/Log.h"
#include "container/Array2D.h"
#include "imaging/DrawParameters.h"
#include "imaging/TileLayout.h"
#include "math/GenRect.h"
#include "math/GenVec.h"

namespace qor::imaging {
namespace {

using Tiles = std::vector<Vec2i>;

Tiles tilesUnder(const TileLayout& layout, Recti rect, bool mirrored) {
    Tiles out;
    layout.tilesForRegion(rect, out, mirrored);
    return out;
}

TEST(GenVec, ArithmeticOrderAndPrinting) {
    Vec2i a(3, -4), b(2, 5);
    EXPECT_EQ(a + b, Vec2i(5, 1));
    EXPECT_EQ(a - b, Vec2i(1, -9));
    EXPECT_EQ(a * b, Vec2i(6, -20));
    EXPECT_EQ(a / b, Vec2i(1, 0));  // truncating, like int division
    EXPECT_EQ(a * 2, Vec2i(6, -8));
    EXPECT_EQ(-a, Vec2i(-3, 4));
    EXPECT_EQ(Vec2i(), Vec2i(0, 0));
    EXPECT_EQ(Vec4f(), Vec4f(0, 0, 0, 0));
    Vec3f v(1, 2, 3);
    v[2] = 7;
    EXPECT_EQ(v.z, 7.0f);

    // Lexicographic order keeps distinct tiles apart in a set, including ones that a
    // component-wise "less" would call equivalent.
    std::set<Vec2i> set{{1, 0}, {0, 1}, {0, 0}, {1, 0}, {-1, 5}};
    EXPECT_EQ(set.size(), 4u);
    EXPECT_EQ(*set.begin(), Vec2i(-1, 5));

    std::ostringstream out;
    out << Vec2i(3, -4);
    EXPECT_EQ(out.str(), "(3, -4)");
    EXPECT_EQ(Vec2f(Vec2i(3, 4)), Vec2f(3.0f, 4.0f));
}

TEST(GenRect, ConstructionSizesAndEmptiness) {
    Recti r(10, 20, 30, 40);  // extents, not a corner
    EXPECT_EQ(r.mins, Vec2i(10, 20));
    EXPECT_EQ(r.maxs, Vec2i(40, 60));
    EXPECT_EQ(r.size(), Vec2i(30, 40));
    EXPECT_EQ(r.extents(), r.size());
    EXPECT_EQ(Recti(Vec2i(5, 6)), Recti(Vec2i(0, 0), Vec2i(5, 6)));
    EXPECT_TRUE(Recti(0, 0, 0, 5).empty());
    EXPECT_TRUE(Recti(0, 0, 5, -1).isEmpty());
    EXPECT_FALSE(Recti(0, 0, 1, 1).empty());
}

TEST(GenRect, CenterTruncatesTowardsZero) {
    EXPECT_EQ(Recti(Vec2i(0, 0), Vec2i(5, 5)).center(), Vec2i(2, 2));
    // (-5 + 0) / 2 is -2 with truncation, not -3 as rounding down would give.
    EXPECT_EQ(Recti(Vec2i(-5, -7), Vec2i(0, 0)).center(), Vec2i(-2, -3));
    EXPECT_EQ(Rectd(Vec2d(-5, 0), Vec2d(0, 1)).center(), Vec2d(-2.5, 0.5));
}

TEST(GenRect, IntersectionIsNotClampedAndMayInvert) {
    Recti a(0, 0, 10, 10), b(20, 5, 10, 10);
    Recti i = a & b;
    EXPECT_EQ(i, Recti(Vec2i(20, 5), Vec2i(10, 10)));
    EXPECT_EQ(i.width(), -10);
    EXPECT_TRUE(i.empty());
    i.clamp();
    EXPECT_EQ(i, Recti(Vec2i(10, 5), Vec2i(10, 10)));  // empty at its maxs
    Recti c = a;
    c &= Recti(5, -5, 10, 10);
    EXPECT_EQ(c, Recti(Vec2i(5, 0), Vec2i(10, 5)));
}

TEST(GenRect, ContainsUsesHalfOpenBounds) {
    Recti r(0, 0, 10, 10);
    EXPECT_TRUE(r.contains(Vec2i(0, 0)));
    EXPECT_TRUE(r.contains(Vec2i(9, 9)));
    EXPECT_FALSE(r.contains(Vec2i(10, 5)));
    EXPECT_FALSE(r.contains(Vec2i(-1, 5)));
    EXPECT_TRUE(r.contains(Recti(0, 0, 10, 10)));
    EXPECT_FALSE(r.contains(Recti(1, 1, 10, 1)));
    // An empty rectangle is compared by its corners alone.
    EXPECT_FALSE(r.contains(Recti(Vec2i(11, 11), Vec2i(11, 11))));
    EXPECT_EQ(r + Vec2i(-3, 2), Recti(-3, 2, 10, 10));
}

TEST(GenRect, MoveIntoRectKeepsSizeAndPrefersTheNearSide) {
    Recti bounds(0, 0, 100, 50);
    Recti r(90, -10, 20, 20);
    r.moveIntoRect(bounds);
    EXPECT_EQ(r, Recti(80, 0, 20, 20));
    Recti wide(-30, 40, 150, 20);  // wider than the bounds, and below them
    wide.moveIntoRect(bounds);
    EXPECT_EQ(wide, Recti(0, 30, 150, 20));  // flush left, sticking out on the right
}

TEST(Array2D, RowMajorLayout) {
    container::Array2D<unsigned int> a;
    EXPECT_TRUE(a.empty());
    a.resize(3, 2, 7u);
    EXPECT_EQ(a.columns(), 3);
    EXPECT_EQ(a.rows(), 2);
    EXPECT_EQ(a.size(), 6u);
    a(2, 1) = 42;
    a.at(0, 1) = 5;
    EXPECT_EQ(a.data()[1 * 3 + 2], 42u);
    EXPECT_EQ(a.data()[3], 5u);
    EXPECT_EQ(a(1, 0), 7u);
}

TEST(DrawParameters, ValidityAndGlFilters) {
    DrawParameters zero;
    EXPECT_EQ(zero, DrawParameters(MM_OFF, IM_NEAREST, IM_NEAREST));
    EXPECT_TRUE(zero.isValid());
    EXPECT_FALSE(zero.isMipmapped());
    EXPECT_FALSE(DrawParameters(MipmapMode(3), IM_LINEAR, IM_LINEAR).isValid());
    EXPECT_FALSE(DrawParameters(MM_OFF, InterpolationMode(2), IM_LINEAR).isValid());
    EXPECT_FALSE(DrawParameters(MM_OFF, IM_LINEAR, InterpolationMode(2)).isValid());

    EXPECT_EQ(glMagFilter(DrawParameters(MM_LINEAR, IM_NEAREST, IM_LINEAR)), 0x2601);
    EXPECT_EQ(glMagFilter(DrawParameters(MM_LINEAR, IM_LINEAR, IM_NEAREST)), 0x2600);
    EXPECT_EQ(glMinFilter(DrawParameters(MM_OFF, IM_LINEAR, IM_NEAREST)), 0x2601);
    EXPECT_EQ(glMinFilter(DrawParameters(MM_OFF, IM_NEAREST, IM_NEAREST)), 0x2600);
    // mipmap picks the filter inside a level, min the one between levels.
    EXPECT_EQ(glMinFilter(DrawParameters(MM_LINEAR, IM_LINEAR, IM_NEAREST)), 0x2703);
    EXPECT_EQ(glMinFilter(DrawParameters(MM_LINEAR, IM_NEAREST, IM_NEAREST)), 0x2701);
    EXPECT_EQ(glMinFilter(DrawParameters(MM_NEAREST, IM_LINEAR, IM_NEAREST)), 0x2702);
    EXPECT_EQ(glMinFilter(DrawParameters(MM_NEAREST, IM_NEAREST, IM_NEAREST)), 0x2700);
    EXPECT_EQ(COPY_FLIP_H | COPY_FLIP_V, COPY_FLIP_HV);
}

TEST(TileLayout, FullImageTilesClipToTheSource) {
    LogCapture log;
    TileLayout layout(Vec2i(1000, 700), Vec2i(256, 256), Vec2i(0, 0), Vec2i(1000, 700));
    EXPECT_EQ(layout.tileCount, Vec2i(4, 3));
    EXPECT_EQ(layout.getTileRect(0, 0), Recti(0, 0, 256, 256));
    EXPECT_EQ(layout.getTileRect(3, 2), Recti(Vec2i(768, 512), Vec2i(1000, 700)));
    EXPECT_EQ(layout.getTileIndex(Vec2i(999, 699)), Vec2i(3, 2));
    EXPECT_EQ(layout.getTileIndex(Vec2i(256, 255)), Vec2i(1, 0));
    auto [tile, inside] = layout.getTileIndexAndCoord(Vec2i(600, 300));
    EXPECT_EQ(tile, Vec2i(2, 1));
    EXPECT_EQ(inside, Vec2i(88, 44));

    Tiles all;
    layout.tiles(all);
    ASSERT_EQ(all.size(), 12u);
    EXPECT_EQ(all[1], Vec2i(1, 0));  // x fastest
    EXPECT_EQ(all[4], Vec2i(0, 1));
    std::set<Vec2i> set;
    layout.tiles(set);
    EXPECT_EQ(set.size(), 12u);
    EXPECT_EQ(log.assertions(), 0u);

    EXPECT_EQ(layout, TileLayout(Vec2i(1000, 700), Vec2i(256, 256), Vec2i(), Vec2i(1000, 700)));
    EXPECT_NE(layout, TileLayout(Vec2i(1000, 700), Vec2i(256, 256), Vec2i(), Vec2i(1000, 701)));
    EXPECT_EQ(TileLayout().tileCount, Vec2i(0, 0));
}

TEST(TileLayout, NegativeCoordinatesRoundDown) {
    LogCapture log;
    TileLayout layout(Vec2i(1000, 700), Vec2i(256, 256), Vec2i(0, 0), Vec2i(1000, 700));
    // -1 is in tile -1, not tile 0: truncating division would get this wrong.
    EXPECT_EQ(layout.getTileIndex(Vec2i(-1, -256)), Vec2i(-1, -1));
    EXPECT_EQ(log.assertions("-1 < coord.x && -1 < coord.y"), 1u);
    EXPECT_EQ(layout.getTileIndex(Vec2i(-257, 5)), Vec2i(-2, 0));
    EXPECT_EQ(layout.getTileIndex(Vec2i(1024, 0)), Vec2i(4, 0));
    EXPECT_EQ(log.assertions("coord.x < tileCount.x && coord.y < tileCount.y"), 1u);

    auto [tile, inside] = layout.getTileIndexAndCoord(Vec2i(-1, 10));
    EXPECT_EQ(tile, Vec2i(-1, 0));
    EXPECT_EQ(inside, Vec2i(255, 10));
    EXPECT_EQ(log.assertions("-1 < index.x && -1 < index.y"), 1u);
}

TEST(TileLayout, SubImageTilesReachPastTheImageSize) {
    LogCapture log;
    TileLayout layout(Vec2i(300, 300), Vec2i(256, 256), Vec2i(-100, -100), Vec2i(1000, 1000));
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_EQ(layout.tileCount, Vec2i(2, 2));
    EXPECT_EQ(layout.getTileRect(0, 0), Recti(Vec2i(-100, -100), Vec2i(156, 156)));
    EXPECT_EQ(layout.getTileRect(1, 1), Recti(Vec2i(156, 156), Vec2i(412, 412)));
    // Image coordinate -50 lies inside the first tile of the source.
    auto [tile, inside] = layout.getTileIndexAndCoord(Vec2i(-50, 200));
    EXPECT_EQ(tile, Vec2i(0, 1));
    EXPECT_EQ(inside, Vec2i(50, 44));
    EXPECT_EQ(tilesUnder(layout, Recti(0, 0, 100, 300), false), (Tiles{{0, 0}, {0, 1}}));
    EXPECT_EQ(log.assertions(), 0u);
}

TEST(TileLayout, ConstructorReportsEmptyAndOutsideImages) {
    LogCapture log;
    TileLayout empty(Vec2i(0, 10), Vec2i(256, 256), Vec2i(), Vec2i(0, 10));
    ASSERT_EQ(log.assertions("!Recti(imagesize).empty() && !Recti(sourcesize).empty()"), 1u);
    EXPECT_EQ(log.count("Can't create a tile layout for an empty image!"), 1u);
    EXPECT_NE(log.entries().at(0).file.find("imaging/TileLayout"), std::string::npos);
    EXPECT_EQ(empty.tileCount, Vec2i(0, 0));

    log.clear();
    TileLayout outside(Vec2i(300, 300), Vec2i(256, 256), Vec2i(-800, 0), Vec2i(1000, 1000));
    EXPECT_EQ(log.assertions("(Recti(imagesize - origin_) & Recti(sourcesize)) == "
                             "Recti(imagesize - origin_)"),
              1u);
    EXPECT_EQ(log.count("Can't create a tile layout for an image that lays outside of its source!"),
              1u);
    EXPECT_EQ(outside.tileCount, Vec2i(5, 2));  // construction goes on
}

TEST(TileLayout, CutNegativeTilesDropsWholeLeadingTiles) {
    LogCapture log;
    TileLayout layout(Vec2i(1000, 500), Vec2i(256, 256), Vec2i(-300, 0), Vec2i(1300, 500));
    EXPECT_EQ(layout.tileCount, Vec2i(6, 2));
    layout.cutNegativeTiles();
    EXPECT_EQ(layout.origin, Vec2i(-44, 0));
    EXPECT_EQ(layout.tileCount, Vec2i(5, 2));
    EXPECT_EQ(layout.tileCount, layout.computeTileCount());
    EXPECT_EQ(log.assertions(), 0u);

    TileLayout positive = layout;
    positive.origin = Vec2i(300, 0);
    positive.cutNegativeTiles();
    EXPECT_EQ(log.assertions("ntiles.x <= 0 && ntiles.y <= 0"), 1u);
}

TEST(TileLayout, TilesForRegionClampsAndReports) {
    LogCapture log;
    TileLayout layout(Vec2i(1000, 700), Vec2i(256, 256), Vec2i(0, 0), Vec2i(1000, 700));
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(255, 0), Vec2i(513, 256)), false),
              (Tiles{{0, 0}, {1, 0}, {2, 0}}));
    EXPECT_EQ(log.assertions(), 0u);
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(900, 600), Vec2i(1100, 800)), false),
              (Tiles{{3, 2}}));
    EXPECT_EQ(log.assertions("lasttile.x < tileCount.x && lasttile.y < tileCount.y"), 1u);
    std::set<Vec2i> set{{0, 0}};
    layout.tilesForRegion(Recti(0, 0, 300, 10), set, false);
    EXPECT_EQ(set, (std::set<Vec2i>{{0, 0}, {1, 0}}));
}

TEST(TileLayout, MirroredRegionsFoldBackIntoTheImage) {
    LogCapture log;
    TileLayout layout(Vec2i(100, 100), Vec2i(10, 10), Vec2i(0, 0), Vec2i(100, 100));
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(-10, 0), Vec2i(0, 10)), true), (Tiles{{0, 0}}));
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(100, 0), Vec2i(110, 10)), true), (Tiles{{9, 0}}));
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(20, 195), Vec2i(30, 200)), true), (Tiles{{2, 0}}));
    // A rectangle across the left edge covers its own part and the mirror of the rest.
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(-15, 0), Vec2i(5, 10)), true),
              (Tiles{{0, 0}, {1, 0}}));
    // Two cells away the image is unflipped again.
    EXPECT_EQ(tilesUnder(layout, Recti(Vec2i(230, 0), Vec2i(240, 10)), true), (Tiles{{3, 0}}));
    EXPECT_EQ(log.assertions(), 0u);
}

}  // namespace
}  // namespace qor::imaging
