#pragma once
// The vocabulary of typed metadata fields that describes every item: what a file says about itself
// (EXIF, IPTC, XMP), what the caches add (checksum, file times, average colour) and the user's
// rating. The numbers and names are persistent: the metadata database stores fields under them, so
// neither may change, misspellings included ("Expsoure", "SubSecTimeDigitzed", "Imagesize").
//
// Thread contract: pure functions over constant tables; safe on any thread.

#include "base/time/Timestamp.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/Digest.h"

namespace qor::imageio {

using math::GenVec;
using math::Vec2i;
using math::Vec3d;

// The value type of a field. 0 is no type: the answer for a value that names no field.
enum MetadataType {
    MdtUnknown = 0,
    MdtInt = 1,     // int
    MdtVec2i = 2,   // GenVec<int, 2>
    MdtDouble = 3,  // double
    MdtVec3d = 4,   // GenVec<double, 3>
    MdtString = 5,  // FastString<char>
    MdtTime = 6,    // Timestamp
    MdtDigest = 7,  // Digest
};

// Value 41 has no name and no type here: it is the consistency flag of a metadata database record,
// a column of the database only.
enum class MetadataField : int {
    Imagesize = 0,
    ImageResolution = 1,
    BitsPerSample = 2,
    ExposureTime = 3,
    FNumber = 4,
    ISOSensitivity = 5,
    OriginalTime = 6,
    DigitizedTime = 7,
    ShutterSpeed = 8,
    Aperture = 9,
    Brightness = 10,
    Expsoure = 11,
    MaxAperture = 12,
    SubjectDistance = 13,
    FlashEnergy = 14,
    FocalLength = 15,
    SubSecTime = 16,          // declared; nothing fills it
    SubSecTimeOriginal = 17,  // declared; nothing fills it
    SubSecTimeDigitzed = 18,  // declared; nothing fills it
    WhiteBalance = 19,
    LightSource = 20,
    DigitalZoomRatio = 21,
    FocalLengthIn35mmFilm = 22,
    GPSCoordinates = 23,  // x longitude, y latitude, z altitude
    GPSSpeed = 24,
    Rating = 25,
    ModelString = 26,
    MakeString = 27,
    SoftwareString = 28,
    ArtistString = 29,
    CopyrightString = 30,
    UserComment = 31,
    DcSubject = 32,
    DcDescription = 33,
    DcTitle = 34,
    DcRights = 35,
    DcCreator = 36,
    City = 37,
    State = 38,
    Country = 39,
    AverageColor = 40,
    RecordConsistent = 41,  // database column only: no name, no type
    FileLastWriteTime = 42,
    MD5 = 43,
    FileCreationTime = 44,
    Orientation = 45,
    ItemState = 46,
    ItemType = 47,
};

// One past the highest field value, for loops over all values (skip those without a type).
inline constexpr int MetadataFieldEnd = 48;

// The persistent name ("Imagesize", "Expsoure" ...). For 41 or a value outside 0..47 it fails the
// logged assertion "false" and returns an empty name.
FastString<char> fieldName(MetadataField field);
// The value type. For 41 or a value outside 0..47 it fails the assertion "false" and returns
// MdtUnknown (0).
MetadataType fieldDataType(MetadataField field);

// The field as its number, for logs.
inline std::ostream& operator<<(std::ostream& out, MetadataField field) {
    return out << static_cast<int>(field);
}

}  // namespace qor::imageio
