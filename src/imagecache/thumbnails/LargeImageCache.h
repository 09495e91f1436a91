#pragma once
// LargeImageCache: the front of the thumbnail chain for both size classes. Screen previews
// (kScreenPreviewSide, up to 2048 px, 16 MB each in memory) go through a memory link of their own
// with its own budget, in front of the same disk link as the grid thumbnails; every other size goes
// to the grid chain's front. A separate budget keeps a few full-screen views from evicting the
// thousands of grid thumbnails a grid shows.
//
// Upkeep: every notice drops or shares what the preview memory holds and then goes down the grid
// chain once, so that both memory links, the disk link and the source each hear it exactly once.
// Give this object, not the grid chain's front, to whoever reports moves and changes.
//
// Ownership: the grid front and the disk link are not owned and must outlive this object.
// Thread contract: as ImageCache; the preview memory link is thread-safe on its own.

#include <cstdint>

#include "imagecache/thumbnails/ImageCacheRAM.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"

namespace qor::imagecache {

class LargeImageCache : public ImageCache {
public:
    // The budget of screen previews in memory by default: eight of them at 2048 x 2048.
    static constexpr uint64_t kDefaultByteLimit =
        uint64_t(8) * kScreenPreviewSide * kScreenPreviewSide * 4;

    // `gridFront`: the chain the grid thumbnails come from (its memory link); `disk`: the link the
    // previews' memory link asks, usually the grid chain's disk link.
    LargeImageCache(ImageCache* gridFront, ImageCache* disk,
                    uint64_t byteLimit = kDefaultByteLimit);

    // The screen preview of `id`.
    Thumbnail preview(ResourceID id) { return _previews.get(id, kScreenPreviewSide); }

    Thumbnail get(ResourceID id, int side) override;
    bool contains(ResourceID id, int side) override;
    void itemChanged(ResourceID id) override;
    void itemRemoved(ResourceID id, const std::string& path) override;
    void itemMoved(ResourceID id, const std::string& oldPath) override;
    void itemCopied(ResourceID src, ResourceID dst) override;
    ResourceManager& resourceManager() override { return _grid->resourceManager(); }

    ImageCacheRAM& previews() { return _previews; }

private:
    ImageCache* const _grid;  // not owned
    ImageCacheRAM _previews;
};

}  // namespace qor::imagecache
