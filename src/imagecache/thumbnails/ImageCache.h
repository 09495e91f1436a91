#pragma once
// ImageCache: one link of the chain of thumbnail caches. Each link answers from what it holds and
// asks the next link for the rest, keeping the answer: memory (ImageCacheRAM, and LargeImageCache
// for screen previews) in front of disk (ImageCacheDHD) in front of the picture files
// (ImageCacheSource, through makeThumbnail). Items are ResourceIDs of the manager whose names
// locate their files (resourceManager()).
//
// Upkeep goes down the chain: each link forgets or carries over what it holds, then tells the
// next, so that a rewritten, moved, copied or erased picture never shows a wrong thumbnail.
//
// Thread contract for implementations: every member may be called from any thread at once; get
// blocks on the disk and the file.

#include <string>

#include "base/ResourceID.h"
#include "imageio/ImageIO.h"

namespace qor {
class ResourceManager;
}

namespace qor::imagecache {

struct Thumbnail {
    // Never null from get: a placeholder when the picture cannot be read.
    imageio::ConstImagePtr image;
    // True for the placeholder of a picture that could not be read. A placeholder is never kept by
    // a link, so that the picture is tried again next time.
    bool placeholder = false;
};

class ImageCache {
public:
    virtual ~ImageCache() = default;

    // The thumbnail of `id` in the size class `side` (kGridThumbnailSide or kScreenPreviewSide).
    virtual Thumbnail get(ResourceID id, int side) = 0;
    // Whether this link holds it, without asking further or reading anything. Not a use.
    virtual bool contains(ResourceID id, int side) = 0;

    // The item's file was rewritten: what is held of it goes.
    virtual void itemChanged(ResourceID id) = 0;
    // The item was erased or left the library; `path` is where its file was.
    virtual void itemRemoved(ResourceID id, const std::string& path) = 0;
    // The item's file moved from `oldPath` to the item's present name: what is held follows it.
    virtual void itemMoved(ResourceID id, const std::string& oldPath) = 0;
    // Item `dst` is a copy of item `src`: it may share src's thumbnails.
    virtual void itemCopied(ResourceID src, ResourceID dst) = 0;

    // The manager of the items' names; a link in front of another takes it from there.
    virtual ResourceManager& resourceManager() = 0;
};

}  // namespace qor::imagecache
