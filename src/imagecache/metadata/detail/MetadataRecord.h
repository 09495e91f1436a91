#pragma once
// The record of the metadata cache: its 31 fields with their storage types, how each value type
// is stored (bytes, the value that stands for "absent"), and the in-memory columns, one per field,
// grouped by value type. Internal to MetadataCacheRDB.

#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "base/resource/ResourceDB.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "imagecache/metadata/PagedColumn.h"

namespace qor::imagecache::detail {

using F = MetadataField;

// The value types of the columns.
enum ColumnKind : int8_t { KindVec2i, KindInt, KindTime, KindDouble, KindVec3d, KindDigest };

struct RecordField {
    MetadataField field;
    int storage;  // ResourceDB storage type
};

// The record, in this order. RecordConsistent has no column: a flush writes it as 1.
inline constexpr RecordField kRecordFields[] = {
    {F::Imagesize, 4},
    {F::ImageResolution, 3},
    {F::BitsPerSample, 3},
    {F::OriginalTime, 4},
    {F::DigitizedTime, 4},
    {F::ISOSensitivity, 3},
    {F::ExposureTime, 7},
    {F::Expsoure, 7},
    {F::ShutterSpeed, 7},
    {F::Brightness, 7},
    {F::FNumber, 7},
    {F::Aperture, 7},
    {F::MaxAperture, 7},
    {F::SubjectDistance, 7},
    {F::FlashEnergy, 7},
    {F::FocalLength, 7},
    {F::FocalLengthIn35mmFilm, 7},
    {F::WhiteBalance, 3},
    {F::LightSource, 3},
    {F::DigitalZoomRatio, 7},
    {F::GPSCoordinates, 9},
    {F::GPSSpeed, 7},
    {F::AverageColor, 9},
    {F::FileLastWriteTime, 4},
    {F::Rating, 3},
    {F::MD5, 11},
    {F::RecordConsistent, 3},
    {F::Orientation, 3},
    {F::ItemType, 3},
    {F::ItemState, 3},
    {F::FileCreationTime, 4},
};
inline constexpr int kRecordFieldCount = int(sizeof kRecordFields / sizeof kRecordFields[0]);
static_assert(kRecordFieldCount == 31);

// How a value type is kept: its column kind, storage type, bytes in a ResourceDB buffer, and the
// stored value that means "absent".
template <class T>
struct Storage;

template <>
struct Storage<int> {
    static constexpr ColumnKind kind = KindInt;
    static constexpr int type = ResourceDB::FtInt32;
    static constexpr const char* name = "int";
    static constexpr int absent = std::numeric_limits<int32_t>::min();
    static void encode(const int* value, uint8_t* out) {
        const int32_t v = value ? *value : absent;
        std::memcpy(out, &v, 4);
    }
    static bool decode(const uint8_t* in, int& out) {
        int32_t v;
        std::memcpy(&v, in, 4);
        out = v;
        return v != absent;
    }
};

template <>
struct Storage<Vec2i> {
    static constexpr ColumnKind kind = KindVec2i;
    static constexpr int type = ResourceDB::FtInt64;
    static constexpr const char* name = "Vec2i";
    static void encode(const Vec2i* value, uint8_t* out) {
        const int32_t v[2] = {value ? value->x : Storage<int>::absent,
                              value ? value->y : Storage<int>::absent};
        std::memcpy(out, v, 8);
    }
    static bool decode(const uint8_t* in, Vec2i& out) {
        int32_t v[2];
        std::memcpy(v, in, 8);
        out = Vec2i(v[0], v[1]);
        return v[0] != Storage<int>::absent || v[1] != Storage<int>::absent;
    }
};

template <>
struct Storage<Timestamp> {
    static constexpr ColumnKind kind = KindTime;
    static constexpr int type = ResourceDB::FtInt64;
    static constexpr const char* name = "Timestamp";
    static void encode(const Timestamp* value, uint8_t* out) {
        const int64_t v = value ? value->microseconds() : Timestamp().microseconds();
        std::memcpy(out, &v, 8);
    }
    static bool decode(const uint8_t* in, Timestamp& out) {
        int64_t v;
        std::memcpy(&v, in, 8);
        out = Timestamp::fromMicroseconds(v);
        return !out.isNull();
    }
};

template <>
struct Storage<double> {
    static constexpr ColumnKind kind = KindDouble;
    static constexpr int type = ResourceDB::FtDouble;
    static constexpr const char* name = "double";
    static constexpr double absent = std::numeric_limits<double>::lowest();
    static void encode(const double* value, uint8_t* out) {
        const double v = value ? *value : absent;
        std::memcpy(out, &v, 8);
    }
    static bool decode(const uint8_t* in, double& out) {
        std::memcpy(&out, in, 8);
        return out != absent;
    }
};

template <>
struct Storage<Vec3d> {
    static constexpr ColumnKind kind = KindVec3d;
    static constexpr int type = ResourceDB::FtVec3d;
    static constexpr const char* name = "Vec3d";
    static void encode(const Vec3d* value, uint8_t* out) {
        const double a = Storage<double>::absent;
        const double v[3] = {value ? value->x : a, value ? value->y : a, value ? value->z : a};
        std::memcpy(out, v, 24);
    }
    static bool decode(const uint8_t* in, Vec3d& out) {
        double v[3];
        std::memcpy(v, in, 24);
        out = Vec3d(v[0], v[1], v[2]);
        const double a = Storage<double>::absent;
        return v[0] != a || v[1] != a || v[2] != a;
    }
};

template <>
struct Storage<Digest> {
    static constexpr ColumnKind kind = KindDigest;
    static constexpr int type = ResourceDB::FtDigest;
    static constexpr const char* name = "Digest";
    static void encode(const Digest* value, uint8_t* out) {
        if (value)
            std::memcpy(out, value->data(), Digest::Size);
        else
            std::memset(out, 0, Digest::Size);
    }
    static bool decode(const uint8_t* in, Digest& out) {
        out = Digest::fromBytes(in);
        return !out.isNull();
    }
};

// Where a field lives: its position in the record, and its column (kind and number within the
// kind). -1 for a field without a column.
struct FieldSlot {
    MetadataField field = MetadataField::RecordConsistent;
    int8_t position = -1;
    int8_t kind = -1;
    int8_t column = -1;
    int storage = 0;
};

}  // namespace qor::imagecache::detail

namespace qor::imagecache {

// The columns of every record field, and the item tables.
struct MetadataCacheRDB::Columns {
    std::vector<PagedColumn<Vec2i>> vec2i;
    std::vector<PagedColumn<int>> ints;
    std::vector<PagedColumn<Timestamp>> times;
    std::vector<PagedColumn<double>> doubles;
    std::vector<PagedColumn<Vec3d>> vec3d;
    std::vector<PagedColumn<Digest>> digests;
    PagedColumn<RecordIndex> idToRecord;
    PagedColumn<uint8_t> dirty;  // present: on the dirty list
    detail::FieldSlot slots[imageio::MetadataFieldEnd];

    template <class T>
    std::vector<PagedColumn<T>>& group() {
        if constexpr (std::is_same_v<T, Vec2i>) return vec2i;
        if constexpr (std::is_same_v<T, int>) return ints;
        if constexpr (std::is_same_v<T, Timestamp>) return times;
        if constexpr (std::is_same_v<T, double>) return doubles;
        if constexpr (std::is_same_v<T, Vec3d>) return vec3d;
        if constexpr (std::is_same_v<T, Digest>) return digests;
    }

    // Calls fn(column) with the typed column of the slot, which must have one.
    template <class Fn>
    void withColumn(const detail::FieldSlot& slot, Fn&& fn) {
        switch (slot.kind) {
            case detail::KindVec2i:
                return fn(vec2i[size_t(slot.column)]);
            case detail::KindInt:
                return fn(ints[size_t(slot.column)]);
            case detail::KindTime:
                return fn(times[size_t(slot.column)]);
            case detail::KindDouble:
                return fn(doubles[size_t(slot.column)]);
            case detail::KindVec3d:
                return fn(vec3d[size_t(slot.column)]);
            default:
                return fn(digests[size_t(slot.column)]);
        }
    }
    // Calls fn(slot, column) for every field with a column, in record order.
    template <class Fn>
    void forEachColumn(Fn&& fn) {
        for (const detail::RecordField& field : detail::kRecordFields) {
            const detail::FieldSlot& slot = slots[int(field.field)];
            if (slot.kind >= 0) withColumn(slot, [&](auto& column) { fn(slot, column); });
        }
    }

    const detail::FieldSlot& slot(MetadataField field) const {
        static const detail::FieldSlot none;
        const int number = int(field);
        return number >= 0 && number < imageio::MetadataFieldEnd ? slots[number] : none;
    }
    PagedColumn<Timestamp>& lastWriteTime() {
        return times[size_t(slots[int(MetadataField::FileLastWriteTime)].column)];
    }
    PagedColumn<int>& itemState() {
        return ints[size_t(slots[int(MetadataField::ItemState)].column)];
    }

    void reserve(size_t capacity) {
        forEachColumn([&](const detail::FieldSlot&, auto& column) { column.reserve(capacity); });
        idToRecord.reserve(capacity);
        dirty.reserve(capacity);
    }
};

}  // namespace qor::imagecache
