#pragma once
// LibraryCacheConnector: the ILibraryCacheConnector of this system, over its metadata cache chain
// (a MetadataCacheRDB in front of a FileMetadataCache, both over the library's ImageManager).
//
// The metadata cache follows renames and removals of the ImageManager's resources by itself, so
// moves and removals need nothing more there; copies hand the cached values on, edits make the
// cache check the file again, new images are read into the cache in the background.
//
// With a thumbnail chain (its front, usually a LargeImageCache) moves, copies, removals and edits
// go down that chain as well, a moved folder as a move of each image now below it; a check of the
// metadata cache that finds a file written since drops the item's thumbnails.
//
// Ownership: the caches and the manager are not owned and must outlive the connector. Background
// reads run on the connector's own task group, which the destructor cancels and waits for.
//
// Thread contract: every member may be called from any thread at once (the cache is thread-safe);
// queries block on the image file when the cache lacks the item.

#include "base/thread/TaskGroup.h"
#include "imagecache/thumbnails/ImageCache.h"
#include "imageio/MetadataCache.h"
#include "mediadb/library/ILibraryCacheConnector.h"

namespace qor::mediadb {

class LibraryCacheConnector : public ILibraryCacheConnector {
public:
    // `cache` is the front of the chain; its resourceManager() names the images (the library's
    // ImageManager).
    // `thumbnails`, when given, is the front of the thumbnail chain over the same manager.
    explicit LibraryCacheConnector(imageio::MetadataCache* cache,
                                   imagecache::ImageCache* thumbnails = nullptr);
    ~LibraryCacheConnector() override;

    void imageMoved(ResourceID id, const std::string& oldPath) override;
    void imageCopied(ResourceID src, ResourceID dst) override;
    void imageRemoved(ResourceID id, const std::string& path) override;
    void folderMoved(const std::string& oldFolder, const std::string& newFolder) override;
    void folderRemoved(const std::string& folder) override;
    void imageChanged(ResourceID id) override;
    void imagesAdded(const std::vector<ResourceID>& ids) override;

    bool hasMetadata(ResourceID id) override;
    int rating(ResourceID id) override;
    time::Timestamp captureTime(ResourceID id) override;
    Digest checksum(ResourceID id) override;
    uint64_t fileSize(ResourceID id) override;
    time::Timestamp fileLastWriteTime(ResourceID id) override;
    bool isCached(ResourceID id) override;

    void setRating(ResourceID id, int stars) override;
    // Writes the metadata cache's dirty records and waits for them.
    void flush() override;

private:
    imageio::MetadataCache* const _cache;       // not owned
    imagecache::ImageCache* const _thumbnails;  // not owned, may be null
    thread::TaskGroup _background;              // reads of newly added images
};

}  // namespace qor::mediadb
