// ImageSource: any rectangle of a source as one tile, assembled from the tiles under it, with the
// image continued by its mirror images beyond its edges.

#include <cstdlib>

#include "base/Log.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/TileCache.h"
#include "math/IntegerMath.h"

namespace qor::imaging {

namespace {

// The first and last tile (inclusive) under `rect`, relative to the layout's origin.
void tileRange(const TileLayout& layout, const Recti& rect, GenVec<int, 2>& first,
               GenVec<int, 2>& last) {
    first = floor_div(rect.mins - layout.origin, layout.tileSize);
    last = floor_div(rect.maxs - GenVec<int, 2>(1, 1) - layout.origin, layout.tileSize);
}

CopyFlippedMode flipMode(bool hflip, bool vflip) {
    return CopyFlippedMode((hflip ? unsigned(COPY_FLIP_H) : 0u) | (vflip ? unsigned(COPY_FLIP_V) : 0u));
}

}  // namespace

Recti ImageSource::mapBorderRect(const Recti& rect, GenVec<int, 2> imageSize, int mode,
                                 bool* hflip, bool* vflip) {
    const Recti image(imageSize);
    QOR_ASSERT_TEXT(image.contains(rect) || (rect & image).empty(),
                    "Recti(sourceImageSize).contains(rect) || (rect & Recti(sourceImageSize)).empty()");
    *hflip = *vflip = false;
    Recti r = rect;
    switch (mode) {
        case 0: {
            bool* flips[2] = {hflip, vflip};
            for (int axis = 0; axis < 2; ++axis) {
                const int n = imageSize[axis];
                if (n <= 0) continue;
                // The plane repeats every two images; odd images are mirrored.
                while (r.mins[axis] < -n) {
                    r.mins[axis] += 2 * n;
                    r.maxs[axis] += 2 * n;
                }
                while (r.mins[axis] >= 2 * n) {
                    r.mins[axis] -= 2 * n;
                    r.maxs[axis] -= 2 * n;
                }
                if (r.mins[axis] < 0) {
                    const int a = r.mins[axis], b = r.maxs[axis];
                    r.mins[axis] = -b;
                    r.maxs[axis] = -a;
                    *flips[axis] = true;
                } else if (r.mins[axis] >= n) {
                    const int a = r.mins[axis], b = r.maxs[axis];
                    r.mins[axis] = 2 * n - b;
                    r.maxs[axis] = 2 * n - a;
                    *flips[axis] = true;
                }
            }
            r.moveIntoRect(image);
            break;
        }
        case 1:
            QOR_ASSERT_TEXT(false, "false");
            for (int axis = 0; axis < 2; ++axis) {
                const int n = imageSize[axis];
                if (n <= 0) continue;
                const int shift = floor_div(r.mins[axis], n) * n;
                r.mins[axis] -= shift;
                r.maxs[axis] -= shift;
            }
            break;
        default:
            QOR_ASSERT_TEXT(false, "false");
            break;
    }
    return r;
}

void ImageSource::assemblePiece(const TileLayout& layout, const Recti& rect, const TileArray& tiles,
                                TileIndex startTile, const SharedPtr<ImageTile>& dst, Vec2i offset,
                                bool hflip, bool vflip) {
    GenVec<int, 2> first, last;
    tileRange(layout, rect, first, last);
    const GenVec<int, 2> end = last + GenVec<int, 2>(1, 1);
    QOR_ASSERT_TEXT(first.x >= startTile.x && end.x <= startTile.x + tiles.columns(),
                    "start.x >= sourceTilesOffset.x && "
                    "end.x <= sourceTilesOffset.x+(int)sourceTiles.columns()");
    QOR_ASSERT_TEXT(first.y >= startTile.y && end.y <= startTile.y + tiles.rows(),
                    "start.y >= sourceTilesOffset.y && "
                    "end.y <= sourceTilesOffset.y+(int)sourceTiles.rows()");
    const CopyFlippedMode mode = flipMode(hflip, vflip);
    for (int ty = first.y; ty <= last.y; ++ty) {
        for (int tx = first.x; tx <= last.x; ++tx) {
            const int ix = tx - startTile.x, iy = ty - startTile.y;
            if (ix < 0 || iy < 0 || ix >= tiles.columns() || iy >= tiles.rows()) continue;
            const SharedPtr<const ImageTile>& tile = tiles(ix, iy);
            if (!tile) continue;
            const Recti tileRect = layout.getTileRect(tx, ty);
            const Recti part = tileRect & rect;
            if (part.empty()) continue;
            const Recti srcRect(part.mins - tileRect.mins, part.maxs - tileRect.mins);
            Vec2i at;
            at.x = offset.x + (hflip ? rect.xmax() - part.xmax() : part.xmin() - rect.xmin());
            at.y = offset.y + (vflip ? rect.ymax() - part.ymax() : part.ymin() - rect.ymin());
            dst->writeSubRect(tile, srcRect, at, mode);
        }
    }
}

SharedPtr<const ImageTile> ImageSource::createTileFromRegion(const ImageSource* source,
                                                             const TileLayout& layout,
                                                             RawPixelFormat format,
                                                             const DrawParameters& params,
                                                             const Recti& rect,
                                                             const TileArray& tiles,
                                                             TileIndex startTile) {
    GenVec<int, 2> first, last;
    tileRange(layout, rect, first, last);
    if (first == last && rect == layout.getTileRect(first.x, first.y)) {
        const TileIndex idx = first - startTile;
        SharedPtr<const ImageTile> tile;
        if (idx.x >= 0 && idx.y >= 0 && idx.x < tiles.columns() && idx.y < tiles.rows())
            tile = tiles(idx.x, idx.y);
        QOR_ASSERT_TEXT(tile && tile->valid(), "tile && tile->valid()");
        return tile;
    }
    SharedPtr<ImageTile> dst = ImageTile::create(rect.size(), format, params);
    const GenVec<int, 2> imageSize = source ? source->size() : layout.imageSize;
    const Recti image(imageSize);
    if (image.contains(rect)) {
        assemblePiece(layout, rect, tiles, startTile, dst, Vec2i(0, 0), false, false);
    } else {
        // Cells of the image's size; cell (i, j) is the image mirrored when i or j is odd.
        const int i0 = floor_div(rect.xmin(), imageSize.x);
        const int i1 = floor_div(rect.xmax() - 1, imageSize.x);
        const int j0 = floor_div(rect.ymin(), imageSize.y);
        const int j1 = floor_div(rect.ymax() - 1, imageSize.y);
        for (int j = j0; j <= j1; ++j) {
            for (int i = i0; i <= i1; ++i) {
                const Recti cell(i * imageSize.x, j * imageSize.y, imageSize.x, imageSize.y);
                const Recti part = rect & cell;
                if (part.empty()) continue;
                bool hflip = false, vflip = false;
                const Recti mapped = mapBorderRect(part, imageSize, 0, &hflip, &vflip);
                QOR_ASSERT_TEXT(hflip == (std::abs(i % 2) == 1) && vflip == (std::abs(j % 2) == 1),
                                "hflip == (abs(x % 2) == 1) && vflip == (abs(y % 2) == 1)");
                assemblePiece(layout, mapped, tiles, startTile, dst, part.mins - rect.mins, hflip,
                              vflip);
            }
        }
    }
    QOR_ASSERT_TEXT(dst->valid(), "tile->valid()");
    return dst;
}

SharedPtr<const ImageTile> ImageSource::createTileFromRegion(const Recti& rect, bool mirrored,
                                                             const OnRequest& onRequest) {
    const bool caching = isCaching();
    if (caching) {
        if (SharedPtr<const ImageTile> hit = TileCache::getLifeTile(this, rect, version()))
            return hit;
    }
    const TileLayout layout = tileLayout();
    GenVec<int, 2> first, last;
    tileRange(layout, rect, first, last);
    if (first == last && rect == layout.getTileRect(first.x, first.y)) {
        SharedPtr<const ImageTile> tile = getTile(first.x, first.y, false, nullptr, onRequest);
        QOR_ASSERT_TEXT(tile && tile->valid(), "tile && tile->valid()");
        return tile;
    }
    TileSet indices;
    layout.tilesForRegion(rect, indices, mirrored);
    const unsigned int requestVersion = version();
    TileArray imageTiles = getTiles(indices, false, nullptr, onRequest);
    for (const TileIndex& idx : indices) {
        const bool inside = idx.x < imageTiles.columns() && idx.y < imageTiles.rows();
        QOR_ASSERT_TEXT(inside, "it->x < (int)imageTiles.columns() && it->y < (int)imageTiles.rows()");
        if (!inside || !imageTiles(idx.x, idx.y)) {
            QOR_LOG(LogInfo, "ImageSource::createTileFromRegion() was cancelled!, return NULL tile!");
            return nullptr;
        }
    }
    SharedPtr<const ImageTile> tile = createTileFromRegion(
        this, layout, pixelFormat(), getDrawParameters(), rect, imageTiles, TileIndex(0, 0));
    QOR_ASSERT_TEXT(tile && tile->valid(), "dstTile->valid()");
    if (caching && tile) TileCache::cacheLifeTileIfNewer(tile, this, rect, requestVersion);
    return tile;
}

}  // namespace qor::imaging
