#include "imageio/ItemMetadata.h"

#include "base/Log.h"
#include "imageio/MetadataCache.h"

namespace qor::imageio {

template <class T>
T ItemMetadata::read(MetadataField field) const {
    T value{};
    if (valid()) _cache->get(_id, field, value);
    return value;
}

template <class T>
void ItemMetadata::write(MetadataField field, const T& value) const {
    QOR_ASSERT(valid());
    if (valid()) _cache->set(_id, field, value);
}

bool ItemMetadata::isCached() const { return valid() && _cache->isCached(_id); }

void ItemMetadata::set(MetadataField field, int value) const { write(field, value); }
void ItemMetadata::set(MetadataField field, const Vec2i& value) const { write(field, value); }
void ItemMetadata::set(MetadataField field, double value) const { write(field, value); }
void ItemMetadata::set(MetadataField field, const Vec3d& value) const { write(field, value); }
void ItemMetadata::set(MetadataField field, const FastString<char>& value) const {
    write(field, value);
}
void ItemMetadata::set(MetadataField field, const Timestamp& value) const { write(field, value); }

int ItemMetadata::getInt(MetadataField field) const { return read<int>(field); }
Vec2i ItemMetadata::getVec2i(MetadataField field) const { return read<Vec2i>(field); }
double ItemMetadata::getDouble(MetadataField field) const { return read<double>(field); }
Vec3d ItemMetadata::getVec3d(MetadataField field) const { return read<Vec3d>(field); }
Timestamp ItemMetadata::getTime(MetadataField field) const { return read<Timestamp>(field); }
Digest ItemMetadata::getDigest(MetadataField field) const { return read<Digest>(field); }
FastString<char> ItemMetadata::getString(MetadataField field) const {
    return read<FastString<char>>(field);
}

MetadataValue ItemMetadata::getGeneric(MetadataField field) const {
    switch (fieldDataType(field)) {
        case MdtInt:
            return getInt(field);
        case MdtVec2i:
            return getVec2i(field);
        case MdtDouble:
            return getDouble(field);
        case MdtVec3d:
            return getVec3d(field);
        case MdtString:
            return getString(field);
        case MdtTime:
            return getTime(field);
        case MdtDigest:
            return getDigest(field);
        case MdtUnknown:
            break;
    }
    return MetadataValue();
}

Vec3d ItemMetadata::getLocation() const { return getVec3d(MetadataField::GPSCoordinates); }
Timestamp ItemMetadata::getCaptureTime() const { return getTime(MetadataField::OriginalTime); }
Timestamp ItemMetadata::getFileCreationTime() const {
    return getTime(MetadataField::FileCreationTime);
}

Timestamp ItemMetadata::getTime() const {
    for (MetadataField field : {MetadataField::OriginalTime, MetadataField::FileCreationTime,
                                MetadataField::FileLastWriteTime}) {
        Timestamp time = getTime(field);
        if (!time.isNull()) return time;
    }
    return Timestamp();
}

Vec2i ItemMetadata::getSize() const { return getVec2i(MetadataField::Imagesize); }
int ItemMetadata::getItemState() const { return getInt(MetadataField::ItemState); }

ItemType ItemMetadata::getItemType() const {
    int type = getInt(MetadataField::ItemType);
    return type >= ItemTypeUnknown && type <= ItemTypeRaw ? static_cast<ItemType>(type)
                                                          : ItemTypeUnknown;
}

}  // namespace qor::imageio
