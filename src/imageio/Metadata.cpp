#include "imageio/Metadata.h"

#include <string>

#include "base/Log.h"
#include "imageio/MetadataConverter.h"
#include "imageio/detail/MetadataText.h"

namespace qor::imageio {

using F = MetadataField;

struct Metadata::Maps {
    std::map<MetadataField, int> ints;
    std::map<MetadataField, double> doubles;
    std::map<MetadataField, Vec2i> vec2is;
    std::map<MetadataField, Vec3d> vec3ds;
    std::map<MetadataField, String> strings;
    std::map<MetadataField, Timestamp> times;
    std::map<MetadataField, Digest> digests;
    RawMap raw;

    template <class T>
    std::map<MetadataField, T>& of() {
        if constexpr (std::is_same_v<T, int>) return ints;
        if constexpr (std::is_same_v<T, double>) return doubles;
        if constexpr (std::is_same_v<T, Vec2i>) return vec2is;
        if constexpr (std::is_same_v<T, Vec3d>) return vec3ds;
        if constexpr (std::is_same_v<T, String>) return strings;
        if constexpr (std::is_same_v<T, Timestamp>) return times;
        if constexpr (std::is_same_v<T, Digest>) return digests;
    }
    template <class T>
    const std::map<MetadataField, T>& of() const {
        return const_cast<Maps*>(this)->of<T>();
    }

    // Calls f(mine, theirs) for each of the eight maps, in declaration order.
    template <class Fn>
    void pairWith(const Maps& other, Fn f) {
        f(ints, other.ints);
        f(doubles, other.doubles);
        f(vec2is, other.vec2is);
        f(vec3ds, other.vec3ds);
        f(strings, other.strings);
        f(times, other.times);
        f(digests, other.digests);
        f(raw, other.raw);
    }

    template <class T>
    bool get(MetadataField field, T& out) const {
        const auto& map = of<T>();
        auto it = map.find(field);
        if (it == map.end()) return false;
        out = it->second;
        return true;
    }

    const String* rawValue(std::string_view key) const {
        auto it = raw.find(String(key));
        return it == raw.end() ? nullptr : &it->second;
    }
};

namespace {

template <class T>
T valueOr(const Metadata& m, MetadataField field) {
    T value{};
    m.get(field, value);
    return value;
}

}  // namespace

Metadata::Metadata() : _maps(std::make_unique<Maps>()) {}
Metadata::~Metadata() = default;

bool Metadata::get(MetadataField field, int& out) const { return _maps->get(field, out); }
bool Metadata::get(MetadataField field, Vec2i& out) const { return _maps->get(field, out); }
bool Metadata::get(MetadataField field, double& out) const { return _maps->get(field, out); }
bool Metadata::get(MetadataField field, Vec3d& out) const { return _maps->get(field, out); }
bool Metadata::get(MetadataField field, String& out) const { return _maps->get(field, out); }
bool Metadata::get(MetadataField field, Timestamp& out) const { return _maps->get(field, out); }
bool Metadata::get(MetadataField field, Digest& out) const { return _maps->get(field, out); }

void Metadata::set(MetadataField field, int value) {
    QOR_ASSERT(fieldDataType(field) == MdtInt);
    _maps->ints[field] = value;
    if (field == F::Rating) _maps->raw[String("xmp:Rating")] = String(std::to_string(value));
    if (field == F::Orientation)
        _maps->raw[String("tiff:Orientation")] = String(std::to_string(value));
}

void Metadata::set(MetadataField field, const Vec2i& value) {
    QOR_ASSERT(fieldDataType(field) == MdtVec2i);
    _maps->vec2is[field] = value;
}

void Metadata::set(MetadataField field, double value) {
    QOR_ASSERT(fieldDataType(field) == MdtDouble);
    _maps->doubles[field] = value;
}

void Metadata::set(MetadataField field, const Vec3d& value) {
    QOR_ASSERT(fieldDataType(field) == MdtVec3d);
    _maps->vec3ds[field] = value;
}

void Metadata::set(MetadataField field, const String& value) {
    QOR_ASSERT(fieldDataType(field) == MdtString);
    _maps->strings[field] = value;
    if (field == F::SoftwareString) _maps->raw[String("tiff:Software")] = value;
}

void Metadata::set(MetadataField field, const Timestamp& value) {
    QOR_ASSERT(fieldDataType(field) == MdtTime);
    _maps->times[field] = value;
}

void Metadata::set(MetadataField field, const Digest& value) {
    QOR_ASSERT(fieldDataType(field) == MdtDigest);
    _maps->digests[field] = value;
}

bool Metadata::get(const String& key, String& value) const {
    const String* found = _maps->rawValue(key);
    if (!found) return false;
    value = *found;
    return true;
}

void Metadata::set(const String& key, const String& value) {
    _maps->raw[key] = value;
    syncFieldsToMap();
}

void Metadata::remove(const String& key) { _maps->raw.erase(key); }

void Metadata::setRaw(const String& key, const String& value) { _maps->raw[key] = value; }

const Metadata::RawMap& Metadata::rawMap() const { return _maps->raw; }

void Metadata::syncFieldsToMap() {
    Maps& m = *_maps;

    // 1. The pixel size; the TIFF keys stand in only for an absent EXIF key.
    const String* width = m.rawValue("exif:PixelXDimension");
    if (!width) width = m.rawValue("tiff:ImageWidth");
    const String* height = m.rawValue("exif:PixelYDimension");
    if (!height) height = m.rawValue("tiff:ImageLength");
    if (width && height) {
        Vec2i size(detail::metaInt(*width), detail::metaInt(*height));
        if (size.x > 0 && size.y > 0) m.vec2is[F::Imagesize] = size;
    }

    // 2.
    if (const String* offset = m.rawValue("exif:ThumbnailOffset"))
        setThumbLocation(detail::metaInt(*offset));

    // 3. Integers. The exposure bias goes into the integer map although its field is a double:
    // a get as double does not see it (the file read stores it as a double).
    static const std::pair<const char*, MetadataField> kInts[] = {
        {"tiff:ResolutionUnit", F::ImageResolution}, {"tiff:BitsPerSample", F::BitsPerSample},
        {"exif:ISOSpeedRatings", F::ISOSensitivity}, {"exif:ExposureBiasValue", F::Expsoure},
        {"exif:WhiteBalance", F::WhiteBalance},      {"exif:LightSource", F::LightSource},
        {"tiff:Orientation", F::Orientation},        {"xmp:Rating", F::Rating},
    };
    for (const auto& [key, field] : kInts)
        if (const String* text = m.rawValue(key)) m.ints[field] = detail::metaInt(*text);

    // 4. Times. Text that is no time (the EXIF "unknown" of zeros) leaves the field alone.
    auto setTime = [&m](const String* text, MetadataField field) {
        Timestamp time;
        if (text && Timestamp::fromMetaString(*text, time)) m.times[field] = time;
    };
    const String* original = m.rawValue("exif:DateTimeOriginal");
    if (!original) original = m.rawValue("tiff:DateTime");
    setTime(original, F::OriginalTime);
    setTime(m.rawValue("exif:DateTimeDigitized"), F::DigitizedTime);

    static const std::pair<const char*, MetadataField> kDoubles1[] = {
        {"exif:ExposureTime", F::ExposureTime},    {"exif:ShutterSpeedValue", F::ShutterSpeed},
        {"exif:MaxApertureValue", F::MaxAperture}, {"exif:FNumber", F::FNumber},
        {"exif:ApertureValue", F::Aperture},       {"exif:SubjectDistance", F::SubjectDistance},
    };
    static const std::pair<const char*, MetadataField> kDoubles2[] = {
        {"exif:FocalLength", F::FocalLength},
        {"exif:DigitalZoomRatio", F::DigitalZoomRatio},
        {"exif:FocalLengthIn35mmFilm", F::FocalLengthIn35mmFilm},
        {"exif:GPSSpeed", F::GPSSpeed},
    };
    // 5.
    for (const auto& [key, field] : kDoubles1)
        if (const String* text = m.rawValue(key)) m.doubles[field] = detail::metaDouble(*text);

    // 6. The EXIF flash bit field, rebuilt from the XMP flash structure. The structure is taken
    // as present with its "Fired" member.
    if (const String* fired = m.rawValue("exif:Flash/exif:Fired")) {
        auto isTrue = [&m](const char* key) {
            const String* text = m.rawValue(key);
            return text && !(*text == "False");
        };
        int flash = *fired == "False" ? 0 : 1;
        if (const String* ret = m.rawValue("exif:Flash/exif:Return"))
            flash |= (detail::metaInt(*ret) & 3) << 1;
        if (const String* mode = m.rawValue("exif:Flash/exif:Mode"))
            flash |= (detail::metaInt(*mode) & 3) << 3;
        if (isTrue("exif:Flash/exif:Function")) flash |= 1 << 5;
        if (isTrue("exif:Flash/exif:RedEyeMode")) flash |= 1 << 6;
        m.doubles[F::FlashEnergy] = flash;
    }
    if (const String* energy = m.rawValue("exif:FlashEnergy"))
        m.doubles[F::FlashEnergy] = detail::metaDouble(*energy);

    // 7.
    for (const auto& [key, field] : kDoubles2)
        if (const String* text = m.rawValue(key)) m.doubles[field] = detail::metaDouble(*text);

    // 8. Always set; a missing part is 0.
    Vec3d gps;
    if (const String* text = m.rawValue("exif:GPSLongitude"))
        gps.x = detail::metaGpsCoordinate(*text);
    if (const String* text = m.rawValue("exif:GPSLatitude"))
        gps.y = detail::metaGpsCoordinate(*text);
    if (const String* text = m.rawValue("exif:GPSAltitude")) gps.z = detail::metaInt(*text);
    m.vec3ds[F::GPSCoordinates] = gps;

    // 9. Strings.
    static const std::pair<const char*, MetadataField> kStrings[] = {
        {"tiff:Model", F::ModelString},
        {"tiff:Make", F::MakeString},
        {"tiff:Software", F::SoftwareString},
        {"tiff:Artist", F::ArtistString},
        {"tiff:Copyright", F::CopyrightString},
        {"exif:TiffUserComment", F::UserComment},
        {"dc:subject", F::DcSubject},
        {"dc:description", F::DcDescription},
        {"dc:title", F::DcTitle},
        {"dc:rights", F::DcRights},
        {"dc:creator", F::DcCreator},
    };
    for (const auto& [key, field] : kStrings)
        if (const String* text = m.rawValue(key)) m.strings[field] = *text;
}

Timestamp Metadata::captureTime() const { return valueOr<Timestamp>(*this, F::OriginalTime); }
Vec3d Metadata::location() const { return valueOr<Vec3d>(*this, F::GPSCoordinates); }
Vec2i Metadata::size() const { return valueOr<Vec2i>(*this, F::Imagesize); }

void Metadata::addAll(const SharedPtr<const Metadata>& other) {
    if (!other || other.get() == this) return;
    _maps->pairWith(*other->_maps, [](auto& mine, const auto& theirs) {
        mine.insert(theirs.begin(), theirs.end());
    });
}

void Metadata::removeAll(const SharedPtr<const Metadata>& other) {
    if (!other) return;
    if (other.get() == this) {
        *_maps = Maps();
        return;
    }
    _maps->pairWith(*other->_maps, [](auto& mine, const auto& theirs) {
        for (const auto& entry : theirs) mine.erase(entry.first);
    });
}

void Metadata::doIntersection(const SharedPtr<const Metadata>& other) {
    if (!other || other.get() == this) return;
    _maps->pairWith(*other->_maps, [](auto& mine, const auto& theirs) {
        for (auto it = mine.begin(); it != mine.end();) {
            auto found = theirs.find(it->first);
            if (found == theirs.end() || !(found->second == it->second))
                it = mine.erase(it);
            else
                ++it;
        }
    });
    if (thumbLocation() != other->thumbLocation()) setThumbLocation(0);
}

SharedPtr<Metadata> Metadata::clone() const {
    auto copy = std::make_shared<Metadata>();
    *copy->_maps = *_maps;
    copy->setThumbLocation(thumbLocation());
    return copy;
}

SharedPtr<MetadataConverter> Metadata::getConverter() const {
    return std::make_shared<MetadataConverter>(_maps->raw);
}

void Metadata::setByConverter(const SharedPtr<const MetadataConverter>& converter) {
    QOR_ASSERT(converter);
    if (!converter) return;
    _maps->raw = converter->getAsMetadataMap();
    syncFieldsToMap();
}

}  // namespace qor::imageio
