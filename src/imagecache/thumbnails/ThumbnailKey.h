#pragma once
// ThumbnailKey: one thumbnail of one item in memory, (item id, size class), ordered by item first
// so that all of an item's thumbnails lie together (a range to drop at once).

#include <cstdint>

#include "base/ResourceID.h"

namespace qor::imagecache {

struct ThumbnailKey {
    int32_t id;
    int side;

    ThumbnailKey(int32_t itemId, int sideClass) : id(itemId), side(sideClass) {}
    ThumbnailKey(ResourceID item, int sideClass) : id(item.id()), side(sideClass) {}

    friend bool operator<(const ThumbnailKey& a, const ThumbnailKey& b) {
        return a.id != b.id ? a.id < b.id : a.side < b.side;
    }
};

}  // namespace qor::imagecache
