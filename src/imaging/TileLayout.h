#pragma once
// TileLayout: how an image is cut into tiles. Tile (0, 0) starts at `origin` (zero or negative:
// negative for a sub-image that starts inside a tile of its source); every tile is `tileSize`
// except where it is clipped by `sourceSize`, the size of the source the tiles are cut from. So
// the last tile of a sub-image may reach beyond `imageSize`, up to the edge of the source.
//
// A default-built layout is all zeros, has no tiles and must not be asked for tile indices.
// Misuse is reported by logged assertions (which return); nothing here throws.
//
// Thread contract: a plain value; copy it out of its owner before use.

#include <ostream>
#include <set>
#include <utility>
#include <vector>

#include "math/GenRect.h"
#include "math/GenVec.h"
#include "math/IntegerMath.h"

namespace qor::imaging {

struct TileLayout {
    GenVec<int, 2> imageSize;   // the image this layout describes, in pixels
    GenVec<int, 2> tileSize;    // the size of a full tile
    GenVec<int, 2> origin;      // where tile (0, 0) starts, relative to the image
    GenVec<int, 2> tileCount;   // columns and rows, from computeTileCount
    GenVec<int, 2> sourceSize;  // the source the tiles are cut from; tile rectangles clip to it

    TileLayout() = default;
    // Asserts that neither size is empty and that imagesize - origin_ fits inside sourcesize, then
    // derives tileCount. Construction goes on after a failed assertion.
    TileLayout(GenVec<int, 2> imagesize, GenVec<int, 2> tilesize, GenVec<int, 2> origin_,
               GenVec<int, 2> sourcesize);

    // Columns and rows needed to cover the image from origin; zero for an empty image.
    GenVec<int, 2> computeTileCount() const;

    // The rectangle of tile (x, y) in image coordinates, clipped to the source.
    Recti getTileRect(int x, int y) const;

    // The tile that holds an image coordinate, rounding towards minus infinity. An index outside
    // the layout logs an assertion and is returned all the same.
    GenVec<int, 2> getTileIndex(GenVec<int, 2> coord) const;
    // That tile and the coordinate inside it.
    std::pair<GenVec<int, 2>, GenVec<int, 2>> getTileIndexAndCoord(GenVec<int, 2> coord) const;

    // Removes the tiles that lie wholly before the image: afterwards origin lies in
    // (-tileSize, 0] on each axis.
    void cutNegativeTiles();

    // Appends every tile; the vector form goes row by row, x fastest.
    void tiles(std::vector<GenVec<int, 2>>& out) const;
    void tiles(std::set<GenVec<int, 2>>& out) const;

    // Appends the tiles under rect. With `mirrored`, rect may lie outside the image, which is
    // taken as continued by its own mirror images (cell (i, j) of the plane is flipped
    // horizontally for odd i and vertically for odd j); rect is folded into the image first.
    void tilesForRegion(Recti rect, std::vector<GenVec<int, 2>>& out, bool mirrored) const;
    void tilesForRegion(Recti rect, std::set<GenVec<int, 2>>& out, bool mirrored) const;

    friend bool operator==(const TileLayout& a, const TileLayout& b) {
        return a.imageSize == b.imageSize && a.tileSize == b.tileSize && a.origin == b.origin &&
               a.tileCount == b.tileCount && a.sourceSize == b.sourceSize;
    }
    friend bool operator!=(const TileLayout& a, const TileLayout& b) { return !(a == b); }

    friend std::ostream& operator<<(std::ostream& out, const TileLayout& l) {
        return out << "TileLayout(image " << l.imageSize << ", tile " << l.tileSize << ", origin "
                   << l.origin << ", count " << l.tileCount << ", source " << l.sourceSize << ')';
    }
};

}  // namespace qor::imaging
