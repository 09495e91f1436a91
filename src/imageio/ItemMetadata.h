#pragma once
// ItemMetadata: a small copyable handle on the metadata of one item, read and written through a
// MetadataCache. It owns nothing: the cache must outlive every handle on it. Default-constructed it
// is invalid, and then every getter answers the zero value and every setter does nothing.
//
// Thread contract: a plain value; the thread safety of its calls is that of the cache.

#include "base/ResourceID.h"
#include "imageio/ItemType.h"
#include "imageio/MetadataField.h"
#include "imageio/MetadataValue.h"

namespace qor::imageio {

class MetadataCache;

class ItemMetadata {
public:
    ItemMetadata() = default;
    ItemMetadata(MetadataCache* cache, ResourceID id) : _cache(cache), _id(id) {}

    ResourceID imageID() const { return _id; }
    // A cache and a valid id.
    bool valid() const { return _cache != nullptr && _id.isValid(); }
    // Whether the cache holds the item's values without reading its file.
    bool isCached() const;

    // Store through the cache, which hands the value on to the file where it can. On an invalid
    // handle they fail the assertion "valid()" and do nothing.
    void set(MetadataField field, int value) const;
    void set(MetadataField field, const Vec2i& value) const;
    void set(MetadataField field, double value) const;
    void set(MetadataField field, const Vec3d& value) const;
    void set(MetadataField field, const FastString<char>& value) const;
    void set(MetadataField field, const Timestamp& value) const;

    // The field's value through the cache, or the zero value of the type when the cache has none.
    // May block while the cache reads the item's file.
    int getInt(MetadataField field) const;
    Vec2i getVec2i(MetadataField field) const;
    double getDouble(MetadataField field) const;
    Vec3d getVec3d(MetadataField field) const;
    Timestamp getTime(MetadataField field) const;
    Digest getDigest(MetadataField field) const;
    FastString<char> getString(MetadataField field) const;
    // The value read by the field's own type; an empty value for a field without a type.
    MetadataValue getGeneric(MetadataField field) const;

    Vec3d getLocation() const;              // GPSCoordinates
    Timestamp getCaptureTime() const;       // OriginalTime
    Timestamp getFileCreationTime() const;  // FileCreationTime
    // The item's time for sorting: the capture time, else the file's creation time, else its last
    // write time; null when none is known.
    Timestamp getTime() const;
    Vec2i getSize() const;     // Imagesize
    int getItemState() const;  // ItemState
    // ItemType as stored; a number outside the enumeration gives ItemTypeUnknown.
    ItemType getItemType() const;

    friend bool operator==(const ItemMetadata& a, const ItemMetadata& b) {
        return a._cache == b._cache && a._id == b._id;
    }

private:
    template <class T>
    T read(MetadataField field) const;
    template <class T>
    void write(MetadataField field, const T& value) const;

    MetadataCache* _cache = nullptr;
    ResourceID _id;
};

}  // namespace qor::imageio
