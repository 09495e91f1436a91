#pragma once
// ImageCacheSource: the last link of the thumbnail chain. It makes each thumbnail from the item's
// file with makeThumbnail; a picture that cannot be read gives the placeholder (a small neutral
// grey image, flagged), with no log line beyond makeThumbnail's own. It holds nothing, so upkeep
// notices end here.
//
// Ownership: the manager is not owned and must outlive the link.
// Thread contract: every member may be called from any thread at once; get blocks on the file.

#include "imagecache/thumbnails/ImageCache.h"

namespace qor::imagecache {

class ImageCacheSource : public ImageCache {
public:
    explicit ImageCacheSource(ResourceManager* manager);

    Thumbnail get(ResourceID id, int side) override;
    bool contains(ResourceID, int) override { return false; }
    void itemChanged(ResourceID) override {}
    void itemRemoved(ResourceID, const std::string&) override {}
    void itemMoved(ResourceID, const std::string&) override {}
    void itemCopied(ResourceID, ResourceID) override {}
    ResourceManager& resourceManager() override { return *_manager; }

    // The placeholder: 16 x 16 of opaque middle grey, one image shared by every caller.
    static Thumbnail placeholder();

private:
    ResourceManager* const _manager;  // not owned
};

}  // namespace qor::imagecache
