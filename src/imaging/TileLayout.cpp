#include "imaging/TileLayout.h"

#include <algorithm>

#include "base/Log.h"

namespace qor::imaging {

TileLayout::TileLayout(GenVec<int, 2> imagesize, GenVec<int, 2> tilesize, GenVec<int, 2> origin_,
                       GenVec<int, 2> sourcesize)
    : imageSize(imagesize), tileSize(tilesize), origin(origin_), sourceSize(sourcesize) {
    if (!(!Recti(imagesize).empty() && !Recti(sourcesize).empty()))
        assertionFailed(__FILE__, __LINE__,
                        "!Recti(imagesize).empty() && !Recti(sourcesize).empty()",
                        "Can't create a tile layout for an empty image!");
    if (!((Recti(imagesize - origin_) & Recti(sourcesize)) == Recti(imagesize - origin_)))
        assertionFailed(__FILE__, __LINE__,
                        "(Recti(imagesize - origin_) & Recti(sourcesize)) == "
                        "Recti(imagesize - origin_)",
                        "Can't create a tile layout for an image that lays outside of its source!");
    tileCount = computeTileCount();
}

GenVec<int, 2> TileLayout::computeTileCount() const {
    if (imageSize.x <= 0 || imageSize.y <= 0) return GenVec<int, 2>();
    return (imageSize - origin - GenVec<int, 2>(1, 1)) / tileSize + GenVec<int, 2>(1, 1);
}

Recti TileLayout::getTileRect(int x, int y) const {
    GenVec<int, 2> start = origin + tileSize * GenVec<int, 2>(x, y);
    GenVec<int, 2> end = start + tileSize;
    GenVec<int, 2> limit = origin + sourceSize;
    return Recti(GenVec<int, 2>(std::max(start.x, origin.x), std::max(start.y, origin.y)),
                 GenVec<int, 2>(std::min(end.x, limit.x), std::min(end.y, limit.y)));
}

GenVec<int, 2> TileLayout::getTileIndex(GenVec<int, 2> coord) const {
    GenVec<int, 2> index = floor_div(coord - origin, tileSize);
    QOR_ASSERT_TEXT(-1 < index.x && -1 < index.y, "-1 < coord.x && -1 < coord.y");
    QOR_ASSERT_TEXT(index.x < tileCount.x && index.y < tileCount.y,
                    "coord.x < tileCount.x && coord.y < tileCount.y");
    return index;
}

std::pair<GenVec<int, 2>, GenVec<int, 2>> TileLayout::getTileIndexAndCoord(
    GenVec<int, 2> coord) const {
    GenVec<int, 2> index = floor_div(coord - origin, tileSize);
    QOR_ASSERT_TEXT(-1 < index.x && -1 < index.y, "-1 < index.x && -1 < index.y");
    QOR_ASSERT_TEXT(index.x < tileCount.x && index.y < tileCount.y,
                    "index.x < tileCount.x && index.y < tileCount.y");
    return {index, (coord - origin) - tileSize * index};
}

void TileLayout::cutNegativeTiles() {
    GenVec<int, 2> ntiles = origin / tileSize;
    QOR_ASSERT_TEXT(ntiles.x <= 0 && ntiles.y <= 0, "ntiles.x <= 0 && ntiles.y <= 0");
    origin -= tileSize * ntiles;
    tileCount += ntiles;
    tileCount.x = std::max(tileCount.x, 0);
    tileCount.y = std::max(tileCount.y, 0);
    QOR_ASSERT_TEXT(tileCount == computeTileCount(), "tileCount == computeTileCount()");
}

void TileLayout::tiles(std::vector<GenVec<int, 2>>& out) const {
    out.reserve(out.size() + size_t(std::max(tileCount.x, 0)) * size_t(std::max(tileCount.y, 0)));
    for (int y = 0; y < tileCount.y; ++y)
        for (int x = 0; x < tileCount.x; ++x) out.emplace_back(x, y);
}

void TileLayout::tiles(std::set<GenVec<int, 2>>& out) const {
    for (int y = 0; y < tileCount.y; ++y)
        for (int x = 0; x < tileCount.x; ++x) out.emplace(x, y);
}

namespace {

// Folds one axis of a rectangle that lies within one mirror cell of size n into [0, n).
void foldAxis(int& mins, int& maxs, int n) {
    int c = floor_div(mins, n);
    int newmin;
    if (c % 2 == 0) {
        newmin = (mins - n * c) % n;
    } else {
        int c2 = floor_div(maxs - 1, n);
        newmin = n - ((maxs - n * c2 - 1) % n) - 1;
    }
    int newmax = maxs - mins + newmin;
    mins = newmin;
    maxs = newmax;
}

}  // namespace

void TileLayout::tilesForRegion(Recti rect, std::vector<GenVec<int, 2>>& out,
                                bool mirrored) const {
    if (mirrored) {
        GenVec<int, 2> rel_origin(floor_div(rect.mins.x, imageSize.x) * imageSize.x,
                                  floor_div(rect.mins.y, imageSize.y) * imageSize.y);
        // The part beyond the near corner's cell mirrors back into it.
        for (int axis = 0; axis < 2; ++axis) {
            int cellEnd = rel_origin[axis] + imageSize[axis];
            int over = std::min(rect.maxs[axis] - cellEnd, imageSize[axis]);
            if (over > 0) {
                rect.maxs[axis] = cellEnd;
                rect.mins[axis] = std::min(rect.mins[axis], cellEnd - over);
            }
        }
        QOR_ASSERT_TEXT(Recti(rel_origin.x, rel_origin.y, imageSize.x, imageSize.y).contains(rect),
                        "Recti(rel_origin.x, rel_origin.y, imageSize.x, imageSize.y)."
                        "contains(rect)");
        QOR_ASSERT_TEXT(floor_div(rect.mins.x, imageSize.x) ==
                                floor_div((rect.maxs.x - 1), imageSize.x) ||
                            rect.maxs.x == 0,
                        "floor_div(rect.mins.x, imageSize.x) == "
                        "floor_div((rect.maxs.x-1), imageSize.x) || rect.maxs.x == 0");
        QOR_ASSERT_TEXT(floor_div(rect.mins.y, imageSize.y) ==
                                floor_div((rect.maxs.y - 1), imageSize.y) ||
                            rect.maxs.y == 0,
                        "floor_div(rect.mins.y, imageSize.y) == "
                        "floor_div((rect.maxs.y-1), imageSize.y) || rect.maxs.y == 0");
        foldAxis(rect.mins.x, rect.maxs.x, imageSize.x);
        foldAxis(rect.mins.y, rect.maxs.y, imageSize.y);
        QOR_ASSERT_TEXT(Recti(0, 0, imageSize.x, imageSize.y).contains(rect),
                        "Recti(0, 0, imageSize.x, imageSize.y).contains(rect)");
        tilesForRegion(rect, out, false);
        return;
    }

    GenVec<int, 2> firsttile = (rect.mins - origin) / tileSize;
    GenVec<int, 2> lasttile = (rect.maxs - origin - GenVec<int, 2>(1, 1)) / tileSize;
    QOR_ASSERT_TEXT(firsttile.x >= 0 && firsttile.y >= 0, "firsttile.x >= 0 && firsttile.y >= 0");
    QOR_ASSERT_TEXT(lasttile.x < tileCount.x && lasttile.y < tileCount.y,
                    "lasttile.x < tileCount.x && lasttile.y < tileCount.y");
    firsttile.x = std::max(firsttile.x, 0);
    firsttile.y = std::max(firsttile.y, 0);
    lasttile.x = std::min(lasttile.x, tileCount.x - 1);
    lasttile.y = std::min(lasttile.y, tileCount.y - 1);
    for (int y = firsttile.y; y <= lasttile.y; ++y)
        for (int x = firsttile.x; x <= lasttile.x; ++x)
            out.emplace_back(x % tileCount.x, y % tileCount.y);
}

void TileLayout::tilesForRegion(Recti rect, std::set<GenVec<int, 2>>& out, bool mirrored) const {
    std::vector<GenVec<int, 2>> found;
    tilesForRegion(rect, found, mirrored);
    out.insert(found.begin(), found.end());
}

}  // namespace qor::imaging
