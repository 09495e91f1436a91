#pragma once
// ILibraryCacheConnector: what a Library tells the caches in front of its images (thumbnails and
// metadata) about changes of image files, and what the bags ask of them.
//
// Images are named by their ResourceID in the library's ImageManager. The library calls the
// notices after the change is done on disk and in the ImageManager: for a move, the id already
// has its new name. The metadata cache follows renames and removals of the ImageManager by
// itself; the notices are for the caches that key by path or keep derived data (thumbnails,
// checksums).
//
// The application supplies an implementation; LibraryCacheConnector is the one over this
// system's metadata cache. Every member may be called from any thread at once; the library calls
// them with no lock of its own held, possibly while path locks of bags are held, so an
// implementation must not call back into Library operations that lock bags. Queries may block on
// the image file. Failures are thrown as CacheConnectorException.

#include <cstdint>
#include <string>
#include <vector>

#include "base/ResourceID.h"
#include "base/time/Timestamp.h"
#include "util/Digest.h"

namespace qor::mediadb {

class ILibraryCacheConnector {
public:
    virtual ~ILibraryCacheConnector() = default;

    // ---- Notices: files changed ----

    // An image file moved from oldPath to the id's present path.
    virtual void imageMoved(ResourceID id, const std::string& oldPath) = 0;
    // A new image `dst` is a copy of the file of `src`: cached values of src may be given to it.
    virtual void imageCopied(ResourceID src, ResourceID dst) = 0;
    // An image is about to leave the library (removed from the ImageManager right after); its
    // file may stay (removeImages) or go (eraseImages).
    virtual void imageRemoved(ResourceID id, const std::string& path) = 0;
    // A bag folder with all its images moved; each image has been renamed already.
    virtual void folderMoved(const std::string& oldFolder, const std::string& newFolder) = 0;
    // A bag folder went to the recycle bin; every cached entry below it is obsolete.
    virtual void folderRemoved(const std::string& folder) = 0;
    // The contents of an image file changed in place (edited, rotated): drop derived data.
    virtual void imageChanged(ResourceID id) = 0;
    // New images were added to the library: the caches may read them in the background.
    virtual void imagesAdded(const std::vector<ResourceID>& ids) = 0;

    // ---- Queries: metadata of one image ----

    // Whether the image's metadata can be had (cached, or its file read). Blocks on the file.
    virtual bool hasMetadata(ResourceID id) = 0;
    // The star rating, 0 to 5 (0 also when the file has none). Blocks on the file.
    virtual int rating(ResourceID id) = 0;
    // When the picture was taken (capture time, else the digitising time); null when unknown.
    virtual time::Timestamp captureTime(ResourceID id) = 0;
    // The checksum of the image (MD5 of the first 20480 bytes); the null digest when the file
    // cannot be read.
    virtual Digest checksum(ResourceID id) = 0;
    // The file's size in bytes; 0 when it cannot be read.
    virtual uint64_t fileSize(ResourceID id) = 0;
    // The last write time of the file; null when it cannot be read.
    virtual time::Timestamp fileLastWriteTime(ResourceID id) = 0;
    // Whether the cached values are known to be in step with the file (no file access).
    virtual bool isCached(ResourceID id) = 0;

    // ---- Changes ----

    // Sets the star rating of an image in the caches.
    virtual void setRating(ResourceID id, int stars) = 0;
    // Writes what the caches hold in memory to disk. Blocks until done.
    virtual void flush() = 0;
};

}  // namespace qor::mediadb
