#include "imagecache/thumbnails/LargeImageCache.h"

namespace qor::imagecache {

LargeImageCache::LargeImageCache(ImageCache* gridFront, ImageCache* disk, uint64_t byteLimit)
    : _grid(gridFront), _previews(disk, byteLimit) {}

Thumbnail LargeImageCache::get(ResourceID id, int side) {
    return side == kScreenPreviewSide ? _previews.get(id, side) : _grid->get(id, side);
}

bool LargeImageCache::contains(ResourceID id, int side) {
    return side == kScreenPreviewSide ? _previews.contains(id, side) : _grid->contains(id, side);
}

void LargeImageCache::itemChanged(ResourceID id) {
    _previews.forget(id);
    _grid->itemChanged(id);
}

void LargeImageCache::itemRemoved(ResourceID id, const std::string& path) {
    _previews.forget(id);
    _grid->itemRemoved(id, path);
}

void LargeImageCache::itemMoved(ResourceID id, const std::string& oldPath) {
    _grid->itemMoved(id, oldPath);
}

void LargeImageCache::itemCopied(ResourceID src, ResourceID dst) {
    _previews.share(src, dst);
    _grid->itemCopied(src, dst);
}

}  // namespace qor::imagecache
