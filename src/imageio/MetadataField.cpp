#include "imageio/MetadataField.h"

#include <array>

#include "base/Log.h"

namespace qor::imageio {

namespace {

struct FieldInfo {
    const char* name;
    MetadataType type;
};

// Indexed by field value; the entry of value 41 is the hole.
constexpr std::array<FieldInfo, MetadataFieldEnd> kFields = {{
    {"Imagesize", MdtVec2i},
    {"ImageResolution", MdtInt},
    {"BitsPerSample", MdtInt},
    {"ExposureTime", MdtDouble},
    {"FNumber", MdtDouble},
    {"ISOSensitivity", MdtInt},
    {"OriginalTime", MdtTime},
    {"DigitizedTime", MdtTime},
    {"ShutterSpeed", MdtDouble},
    {"Aperture", MdtDouble},
    {"Brightness", MdtDouble},
    {"Expsoure", MdtDouble},
    {"MaxAperture", MdtDouble},
    {"SubjectDistance", MdtDouble},
    {"FlashEnergy", MdtDouble},
    {"FocalLength", MdtDouble},
    {"SubSecTime", MdtTime},
    {"SubSecTimeOriginal", MdtTime},
    {"SubSecTimeDigitzed", MdtTime},
    {"WhiteBalance", MdtInt},
    {"LightSource", MdtInt},
    {"DigitalZoomRatio", MdtDouble},
    {"FocalLengthIn35mmFilm", MdtDouble},
    {"GPSCoordinates", MdtVec3d},
    {"GPSSpeed", MdtDouble},
    {"Rating", MdtInt},
    {"ModelString", MdtString},
    {"MakeString", MdtString},
    {"SoftwareString", MdtString},
    {"ArtistString", MdtString},
    {"CopyrightString", MdtString},
    {"UserComment", MdtString},
    {"DcSubject", MdtString},
    {"DcDescription", MdtString},
    {"DcTitle", MdtString},
    {"DcRights", MdtString},
    {"DcCreator", MdtString},
    {"City", MdtString},
    {"State", MdtString},
    {"Country", MdtString},
    {"AverageColor", MdtVec3d},
    {nullptr, MdtUnknown},
    {"FileLastWriteTime", MdtTime},
    {"MD5", MdtDigest},
    {"FileCreationTime", MdtTime},
    {"Orientation", MdtInt},
    {"ItemState", MdtInt},
    {"ItemType", MdtInt},
}};

const FieldInfo* lookup(MetadataField field) {
    int value = static_cast<int>(field);
    if (value < 0 || value >= MetadataFieldEnd || !kFields[value].name) {
        QOR_ASSERT(false);
        return nullptr;
    }
    return &kFields[value];
}

}  // namespace

FastString<char> fieldName(MetadataField field) {
    // Built once, so that a name handed out shares its buffer instead of allocating.
    static const auto names = [] {
        std::array<FastString<char>, MetadataFieldEnd> table;
        for (int i = 0; i < MetadataFieldEnd; ++i)
            if (kFields[i].name) table[i] = FastString<char>(kFields[i].name);
        return table;
    }();
    const FieldInfo* info = lookup(field);
    return info ? names[static_cast<int>(field)] : FastString<char>();
}

MetadataType fieldDataType(MetadataField field) {
    const FieldInfo* info = lookup(field);
    return info ? info->type : MdtUnknown;
}

}  // namespace qor::imageio
