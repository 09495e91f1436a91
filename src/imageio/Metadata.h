#pragma once
// Metadata: the metadata of one picture, as typed fields (MetadataField) and as the raw key and
// value map in the notation of the metadata library ("exif:FNumber" -> "2.8", "tiff:Make" ->
// "Canon"), which format modules read and write.
//
// A field is present exactly when its map holds it; there is no separate "unset" value. Three
// typed setters mirror into the raw map (Rating, Orientation, SoftwareString) so that what the user
// changes reaches a file written later; setting a raw key fills the typed fields from the raw map
// (syncFieldsToMap).
//
// Thread contract: no lock. One thread builds an object, which is then shared read-only through
// SharedPtr. The one write allowed on a shared object is setThumbLocation (a const operation on a
// single word that no reader relies on), used after a corrupted thumbnail.

#include <atomic>
#include <map>

#include "imageio/MetadataField.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

class MetadataConverter;

class Metadata {
public:
    using String = FastString<char>;
    using RawMap = std::map<String, String>;

    Metadata();
    virtual ~Metadata();
    Metadata(const Metadata&) = delete;
    Metadata& operator=(const Metadata&) = delete;

    // Typed fields. get returns false and leaves `out` alone when the field is absent from the map
    // of that type; there is no type check.
    bool get(MetadataField field, int& out) const;
    bool get(MetadataField field, Vec2i& out) const;
    bool get(MetadataField field, double& out) const;
    bool get(MetadataField field, Vec3d& out) const;
    bool get(MetadataField field, String& out) const;
    bool get(MetadataField field, Timestamp& out) const;
    bool get(MetadataField field, Digest& out) const;

    // Store a typed field. A field of another type fails the assertion "fieldDataType(field) ==
    // MdtInt" (and its fellows) and is stored all the same. Rating and Orientation also write their
    // decimal text to "xmp:Rating" and "tiff:Orientation", SoftwareString its text to
    // "tiff:Software".
    void set(MetadataField field, int value);
    void set(MetadataField field, const Vec2i& value);
    void set(MetadataField field, double value);
    void set(MetadataField field, const Vec3d& value);
    void set(MetadataField field, const String& value);
    void set(MetadataField field, const Timestamp& value);
    void set(MetadataField field, const Digest& value);

    // The raw map. set stores the value and then runs syncFieldsToMap; remove touches the raw map
    // only.
    bool get(const String& key, String& value) const;
    void set(const String& key, const String& value);
    void remove(const String& key);
    // Stores into the raw map only, leaving the typed fields alone: for readers that fill both.
    void setRaw(const String& key, const String& value);
    const RawMap& rawMap() const;

    // Fills the typed fields from the raw map, in field table order; see Metadata.cpp for the
    // keys. A key that is absent leaves its field as it was.
    void syncFieldsToMap();

    // OriginalTime, GPSCoordinates and Imagesize; each is the zero value when absent.
    Timestamp captureTime() const;
    Vec3d location() const;
    Vec2i size() const;

    // Byte offset of the EXIF thumbnail (a JPEG) in the file; 0 means none.
    long thumbLocation() const { return _thumbLocation.load(std::memory_order_relaxed); }
    void setThumbLocation(long location) const {
        _thumbLocation.store(location, std::memory_order_relaxed);
    }

    // Adds every entry of the other's maps that this one lacks; present entries keep their value.
    void addAll(const SharedPtr<const Metadata>& other);
    // Removes every key that `other` has, in all maps, whatever its value.
    void removeAll(const SharedPtr<const Metadata>& other);
    // Keeps, in all maps, only the entries that both hold with equal values: the one set of values
    // shared by a multiple selection. thumbLocation is kept when equal and cleared otherwise.
    void doIntersection(const SharedPtr<const Metadata>& other);
    // A deep copy of all maps and thumbLocation.
    SharedPtr<Metadata> clone() const;

    // A converter holding a copy of the raw map.
    SharedPtr<MetadataConverter> getConverter() const;
    // Replaces the raw map by the converter's map and runs syncFieldsToMap. A null converter fails
    // the assertion "converter" and changes nothing.
    void setByConverter(const SharedPtr<const MetadataConverter>& converter);

private:
    struct Maps;

    ScopedPtr<Maps> _maps;
    mutable std::atomic<long> _thumbLocation{0};
};

}  // namespace qor::imageio
