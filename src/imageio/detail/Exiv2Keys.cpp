#include "imageio/detail/Exiv2Keys.h"

#include <exiv2/value.hpp>
#include <map>
#include <string>

#include "text/TextUtils.h"

namespace qor::imageio::detail {

namespace {

using String = FastString<char>;

// Undefined or byte arrays longer than this (colour profiles, print settings) are not text anyone
// reads, and are left out of the map.
constexpr long kMaxBinaryCount = 64;

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\0' || text.back() == ' ' || text.back() == '\n'))
        text.pop_back();
    return text;
}

std::string rationalText(const Exiv2::Rational& r) {
    return r.second == 0 ? std::string("0") : text::dtostr(static_cast<double>(r.first) / r.second);
}

std::string rationalText(const Exiv2::Metadatum& d, long i) {
    return rationalText(d.toRational(i));
}

// The text of one EXIF entry, or "" to leave it out.
std::string exifText(const Exiv2::Exifdatum& d) {
    const Exiv2::Value& value = d.value();
    if (const auto* comment = dynamic_cast<const Exiv2::CommentValue*>(&value))
        return asUtf8(trimmed(comment->comment()));
    std::string out;
    auto join = [&out, &d](auto component) {
        for (long i = 0; i < d.count(); ++i) {
            if (i) out += ' ';
            out += component(i);
        }
    };
    switch (d.typeId()) {
        case Exiv2::asciiString:
            return asUtf8(trimmed(d.toString()));
        case Exiv2::unsignedRational:
        case Exiv2::signedRational:
            join([&d](long i) { return rationalText(d, i); });
            return out;
        case Exiv2::unsignedShort:
        case Exiv2::unsignedLong:
        case Exiv2::signedShort:
        case Exiv2::signedLong:
        case Exiv2::tiffIfd:
            join([&d](long i) { return std::to_string(d.toLong(i)); });
            return out;
        case Exiv2::tiffFloat:
        case Exiv2::tiffDouble:
            join([&d](long i) { return text::dtostr(d.toFloat(i)); });
            return out;
        default:
            if (d.count() > kMaxBinaryCount) return {};
            return trimmed(d.toString());
    }
}

const Exiv2::Exifdatum* findExif(const Exiv2::ExifData& exif, const char* key) {
    auto it = exif.findKey(Exiv2::ExifKey(key));
    return it == exif.end() ? nullptr : &*it;
}

// Degrees, minutes, seconds separated by 0x01, then the reference letter.
std::string gpsCoordinateText(const Exiv2::Exifdatum& d, const Exiv2::Exifdatum* ref) {
    std::string out;
    for (long i = 0; i < d.count() && i < 3; ++i) {
        if (i) out += '\x01';
        out += rationalText(d, i);
    }
    if (ref) out += trimmed(ref->toString());
    return out;
}

void addGpsEntries(const Exiv2::ExifData& exif, Metadata& metadata) {
    for (const char* axis : {"Latitude", "Longitude"}) {
        std::string key = std::string("Exif.GPSInfo.GPS") + axis;
        if (const Exiv2::Exifdatum* d = findExif(exif, key.c_str())) {
            if (d->count() == 0) continue;
            const Exiv2::Exifdatum* ref = findExif(exif, (key + "Ref").c_str());
            metadata.setRaw(String("exif:GPS" + std::string(axis)),
                            String(gpsCoordinateText(*d, ref)));
        }
    }
    if (const Exiv2::Exifdatum* d = findExif(exif, "Exif.GPSInfo.GPSAltitude")) {
        if (d->count() == 0) return;
        std::string text = rationalText(*d, 0);
        const Exiv2::Exifdatum* ref = findExif(exif, "Exif.GPSInfo.GPSAltitudeRef");
        if (ref && ref->count() > 0 && ref->toLong(0) == 1 && text != "0") text = "-" + text;
        metadata.setRaw(String("exif:GPSAltitude"), String(text));
    }
}

// The EXIF flash number as the members of the XMP flash structure.
void addFlashEntries(long flash, Metadata& metadata) {
    auto flag = [](bool on) { return String(on ? "True" : "False"); };
    metadata.setRaw(String("exif:Flash/exif:Fired"), flag(flash & 1));
    metadata.setRaw(String("exif:Flash/exif:Return"), String(std::to_string((flash >> 1) & 3)));
    metadata.setRaw(String("exif:Flash/exif:Mode"), String(std::to_string((flash >> 3) & 3)));
    metadata.setRaw(String("exif:Flash/exif:Function"), flag(flash & 32));
    metadata.setRaw(String("exif:Flash/exif:RedEyeMode"), flag(flash & 64));
}

// Well-formed lead and continuation bytes; overlong forms of three and four bytes are not looked
// for, as the question is only whether the text was meant as UTF-8.
bool isValidUtf8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        size_t extra;
        if (c < 0x80)
            extra = 0;
        else if (c >= 0xC2 && c <= 0xDF)
            extra = 1;
        else if (c >= 0xE0 && c <= 0xEF)
            extra = 2;
        else if (c >= 0xF0 && c <= 0xF4)
            extra = 3;
        else
            return false;
        if (text.size() - i <= extra) return false;
        for (size_t k = 1; k <= extra; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
        i += extra + 1;
    }
    return true;
}

}  // namespace

std::string asUtf8(std::string_view text) {
    if (isValidUtf8(text)) return std::string(text);
    std::string out;
    out.reserve(text.size() * 2);
    for (char ch : text) {
        auto c = static_cast<unsigned char>(ch);
        if (c < 0x80) {
            out += ch;
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

void addExifEntries(const Exiv2::ExifData& exif, Metadata& metadata) {
    const Metadata::RawMap& raw = metadata.rawMap();
    for (const Exiv2::Exifdatum& d : exif) {
        std::string group = d.groupName();
        std::string prefix;
        if (group == "Image")
            prefix = "tiff:";
        else if (group == "Photo" || group == "GPSInfo")
            prefix = "exif:";
        else
            continue;
        std::string name = d.tagName();
        if (name == "ExifTag" || name == "GPSTag" || name == "InteroperabilityTag" ||
            name == "MakerNote")
            continue;
        if (name == "UserComment") name = "TiffUserComment";
        String key(prefix + name);
        if (raw.count(key)) continue;  // the first of repeated entries counts
        std::string text = exifText(d);
        if (!text.empty()) metadata.setRaw(key, String(std::move(text)));
    }
    addGpsEntries(exif, metadata);
    if (const Exiv2::Exifdatum* flash = findExif(exif, "Exif.Photo.Flash"))
        if (flash->count() > 0) addFlashEntries(flash->toLong(0), metadata);
}

void addXmpEntries(const Exiv2::XmpData& xmp, Metadata& metadata) {
    const Metadata::RawMap& raw = metadata.rawMap();
    for (const Exiv2::Xmpdatum& d : xmp) {
        String key(d.groupName() + ":" + d.tagName());
        if (raw.count(key)) continue;
        const Exiv2::Value& value = d.value();
        std::string text;
        if (const auto* alt = dynamic_cast<const Exiv2::LangAltValue*>(&value)) {
            text = alt->toString("x-default");
            if (text.empty() && alt->count() > 0) text = alt->value_.begin()->second;
        } else if (dynamic_cast<const Exiv2::XmpArrayValue*>(&value)) {
            for (long i = 0; i < value.count(); ++i) {
                if (i) text += ", ";
                text += value.toString(i);
            }
        } else {
            text = value.toString();
        }
        if (text.empty()) continue;  // the parent entry of a structure
        if (key == "exif:GPSLatitude" || key == "exif:GPSLongitude")
            for (char& c : text)
                if (c == ',') c = '\x01';
        metadata.setRaw(key, String(std::move(text)));
    }
}

void addIptcEntries(const Exiv2::IptcData& iptc, Metadata& metadata) {
    std::map<std::string, std::string> joined;
    for (const Exiv2::Iptcdatum& d : iptc) {
        if (d.record() != Exiv2::IptcDataSets::application2) continue;
        std::string key = "iptc:" + d.tagName();
        std::string text = asUtf8(trimmed(d.toString()));
        if (text.empty()) continue;
        auto [it, added] = joined.emplace(key, text);
        if (!added) it->second += ", " + text;
    }
    const Metadata::RawMap& raw = metadata.rawMap();
    for (auto& [key, text] : joined)
        if (!raw.count(String(key))) metadata.setRaw(String(key), String(std::move(text)));
}

}  // namespace qor::imageio::detail
