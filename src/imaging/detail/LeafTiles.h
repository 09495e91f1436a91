#pragma once
// The getTiles of sources that hold their tiles (no request, no job, no blocking): `out` and
// `versions` sized to the layout's tile count, each requested index inside it filled from
// `tileAt`, with the source's version.

#include <algorithm>

#include "imaging/ImageSource.h"

namespace qor::imaging::detail {

template <class TileAt>
void fillLeafTiles(ImageSource::TileArray& out, ImageSource::VersionArray* versions,
                   const ImageSource::TileSet& tiles, GenVec<int, 2> count, unsigned int version,
                   TileAt&& tileAt) {
    out.assign(std::max(count.x, 0), std::max(count.y, 0), nullptr);
    if (versions) versions->assign(std::max(count.x, 0), std::max(count.y, 0), 0);
    for (const ImageSource::TileIndex& idx : tiles) {
        if (idx.x < 0 || idx.y < 0 || idx.x >= out.columns() || idx.y >= out.rows()) continue;
        out(idx.x, idx.y) = tileAt(unsigned(idx.x), unsigned(idx.y));
        if (versions) (*versions)(idx.x, idx.y) = version;
    }
}

}  // namespace qor::imaging::detail
