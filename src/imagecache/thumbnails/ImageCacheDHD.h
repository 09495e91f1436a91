#pragma once
// ImageCacheDHD: the disk link of the thumbnail chain, over a DynamicHDCache. It stores what the
// next link makes, as encodeThumbnail's bytes, under "<persistent name>\n<side>\n<last write time
// of the file in microseconds>", so that a rewritten file never finds its old thumbnail; storing a
// new one drops the item's other entries of the same side. Placeholders are not stored.
//
// Upkeep: a move carries the item's entries over to its new name (renamePrefix), so the moved
// picture is not decoded again; a change or a removal drops them; a copy stores the source's
// entries of both size classes under the copy's name.
//
// Failures: a file that is gone or unreadable, or a stored entry that does not decode, is asked of
// the next link (which gives the placeholder and its one log line). A put that fails (a full disk)
// is logged by the store and is no error here.
//
// Ownership: the next link and the store are not owned and must outlive this link.
// Thread contract: every member may be called from any thread at once; the store serialises its
// calls inside, and this link keeps no state of its own. get blocks on the disk and the file.

#include <string>

#include "imagecache/thumbnails/ImageCache.h"

namespace qor {
class DynamicHDCache;
}

namespace qor::imagecache {

class ImageCacheDHD : public ImageCache {
public:
    ImageCacheDHD(ImageCache* next, DynamicHDCache* store);

    Thumbnail get(ResourceID id, int side) override;
    bool contains(ResourceID id, int side) override;
    void itemChanged(ResourceID id) override;
    void itemRemoved(ResourceID id, const std::string& path) override;
    void itemMoved(ResourceID id, const std::string& oldPath) override;
    void itemCopied(ResourceID src, ResourceID dst) override;
    ResourceManager& resourceManager() override { return _next->resourceManager(); }

    DynamicHDCache& store() { return *_store; }

    // The key of one thumbnail, and the prefix of all the entries of one persistent name.
    static std::string key(const std::string& persistentName, int side, int64_t lastWriteTimeUs);
    static std::string itemPrefix(const std::string& persistentName);

private:
    // The item's persistent name and the key of its file as it is now; false when the item is
    // unknown or its file cannot be seen.
    bool currentKey(ResourceID id, int side, std::string& name, std::string& key);

    ImageCache* const _next;       // not owned
    DynamicHDCache* const _store;  // not owned
};

}  // namespace qor::imagecache
