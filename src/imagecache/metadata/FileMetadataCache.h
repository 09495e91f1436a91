#pragma once
// FileMetadataCache: the last link of the metadata cache chain, which reads the item's file. With
// nothing in front of it, get of any field of any picture works: each answer comes from the file.
//
// What it gives of an item (loadMetadata): the file's metadata as the metadata reader gives it
// (Exiv2: EXIF, IPTC, XMP, Imagesize), plus what the caches add: Orientation and Rating from the
// raw map ("tiff:Orientation", "xmp:Rating"), MD5 (the item checksum), FileLastWriteTime,
// FileCreationTime (where the file system records it), ItemType (by the extension, or image for a
// picture with an unknown extension) and ItemState (ItemStateOk, or ItemStateUnreadable when the
// file is no picture the reader knows). AverageColor is not computed here: it needs the pixels.
//
// The path comes from the ResourceManager, under a shared ResourceFSScopedLock of the item while
// the file is read. The last item read is kept, and given again while the file's last write time
// and size stay the same, so reading several fields of one item reads its file once.
//
// set: files are not written here; a value given is dropped with a debug line. isCached is always
// false.
//
// Thread contract: every member from any thread at once; file reads run in parallel. `_mutex`
// guards only the kept item and is never held during file work.

#include "base/resource/ResourceManager.h"
#include "base/thread/Mutex.h"
#include "imageio/MetadataCache.h"

namespace qor::imagecache {

using imageio::Metadata;
using imageio::MetadataField;
using imageio::Vec2i;
using imageio::Vec3d;

class FileMetadataCache : public imageio::MetadataCache {
public:
    // `manager` names the items' files; it must outlive this object.
    explicit FileMetadataCache(ResourceManager* manager);

    // The field from the item's file. False, with one line at level 3, when the file cannot be
    // read; false when it lacks the field. Blocks on the file.
    bool get(ResourceID id, MetadataField field, int& out) override;
    bool get(ResourceID id, MetadataField field, Vec2i& out) override;
    bool get(ResourceID id, MetadataField field, double& out) override;
    bool get(ResourceID id, MetadataField field, Vec3d& out) override;
    bool get(ResourceID id, MetadataField field, FastString<char>& out) override;
    bool get(ResourceID id, MetadataField field, Timestamp& out) override;
    bool get(ResourceID id, MetadataField field, Digest& out) override;

    void set(ResourceID id, MetadataField field, int value) override;
    void set(ResourceID id, MetadataField field, const Vec2i& value) override;
    void set(ResourceID id, MetadataField field, double value) override;
    void set(ResourceID id, MetadataField field, const Vec3d& value) override;
    void set(ResourceID id, MetadataField field, const FastString<char>& value) override;
    void set(ResourceID id, MetadataField field, const Timestamp& value) override;
    void set(ResourceID id, MetadataField field, const Digest& value) override;

    bool isCached(ResourceID) override { return false; }
    // Reads the file (blocks). Throws ResourceDeletedException for an id the manager does not
    // know and RAFException when the file cannot be opened or read; never answers null.
    SharedPtr<const Metadata> loadMetadata(ResourceID id) override;
    // Forgets the kept item if it is this one.
    void check(ResourceID id) override;
    void copyImage(ResourceID, ResourceID) override {}
    ResourceManager* resourceManager() override { return _manager; }

private:
    template <class T>
    bool getField(ResourceID id, MetadataField field, T& out);
    void dropValue(ResourceID id, MetadataField field);

    ResourceManager* const _manager;

    Mutex _mutex;  // guards the kept item below; a leaf, never held during file work
    ResourceID _keptId QOR_GUARDED_BY(_mutex);
    Timestamp _keptWriteTime QOR_GUARDED_BY(_mutex);
    uint64_t _keptSize QOR_GUARDED_BY(_mutex) = 0;
    SharedPtr<const Metadata> _kept QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::imagecache
