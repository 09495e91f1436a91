#include "imageio/savers/SaveModule.h"

#include <exiv2/exiv2.hpp>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <unistd.h>

#include "base/Log.h"
#include "imageio/detail/Exiv2Setup.h"

namespace qor::imageio {

std::unique_ptr<SaveModule> makeJpegSaveModule();
std::unique_ptr<SaveModule> makeTiffSaveModule();
std::unique_ptr<SaveModule> makeExrSaveModule();

std::unique_ptr<SaveModule> SaveModule::create(int formatCode) {
    switch (formatCode) {
        case FormatJPEG: return makeJpegSaveModule();
        case FormatTIFF: return makeTiffSaveModule();
        case FormatOpenEXR: return makeExrSaveModule();
        default: return nullptr;
    }
}

int SaveModule::parameter(const std::string& name, int fallback) const {
    auto it = _parameters.find(name);
    return it == _parameters.end() ? fallback : it->second;
}

SharedPtr<const imaging::ColorProfile> SaveModule::embeddedProfile(const char* embedParameter) const {
    return parameter(embedParameter, 0) == 1 ? _profile : nullptr;
}

namespace {

// A name beside `path` that no other save of this process uses at the same time.
std::string temporaryName(const std::string& path) {
    static std::atomic<unsigned> counter{0};
    return path + ".partial-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
}

}  // namespace

bool SaveModule::save(const std::string& path, RowProvider& rows, int dataType) {
    const math::GenVec<int, 2> size = rows.size();
    if (size.x <= 0 || size.y <= 0)
        throw ImageSaverException("cannot save an empty image to " + path);
    if (!acceptedDataType(dataType))
        throw ImageSaverException("the file format of " + path + " cannot hold pixels of type " +
                                  std::to_string(dataType));
    const std::string temp = temporaryName(path);
    bool complete = false;
    try {
        complete = write(temp, rows, dataType);
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        throw;
    }
    std::error_code ec;
    if (!complete) {
        std::filesystem::remove(temp, ec);
        return false;
    }
    std::filesystem::rename(temp, path, ec);
    if (ec) {
        std::error_code ignored;
        std::filesystem::remove(temp, ignored);
        throw ImageSaverException("cannot move the saved file to " + path + ": " + ec.message());
    }
    return true;
}

namespace detail {

namespace {

// EXIF tags live in the image directory ("tiff:") or the photo and GPS directories ("exif:").
bool exifKeyFor(const std::string& prefix, const std::string& name, std::string& key) {
    if (prefix == "tiff") {
        key = "Exif.Image." + name;
    } else if (prefix == "exif") {
        if (name.rfind("Thumbnail", 0) == 0) return false;  // found on reading, not a tag
        key = (name.rfind("GPS", 0) == 0 ? "Exif.GPSInfo." : "Exif.Photo.") + name;
        if (name == "TiffUserComment") key = "Exif.Photo.UserComment";
    } else {
        return false;
    }
    return true;
}

}  // namespace

void encodeMetadata(const Metadata& metadata, std::string* exif, std::string& xmp) {
    ensureExiv2Initialized();
    if (exif) exif->clear();
    xmp.clear();
    Exiv2::ExifData exifData;
    Exiv2::XmpData xmpData;
    for (const auto& [rawKey, rawValue] : metadata.rawMap()) {
        const std::string key(rawKey.view());
        const std::string value(rawValue.view());
        const size_t colon = key.find(':');
        if (colon == std::string::npos || colon == 0 || colon + 1 == key.size()) continue;
        const std::string prefix = key.substr(0, colon), name = key.substr(colon + 1);
        // Text with control characters is an internal notation (GPS positions), not a tag value.
        bool control = false;
        for (unsigned char c : value) control |= c < 0x20;
        if (control) continue;
        try {
            std::string exifKey;
            if (exif && exifKeyFor(prefix, name, exifKey)) {
                exifData[exifKey] = value;
            } else if (!exif || (prefix != "tiff" && prefix != "exif")) {
                if (name.rfind("Thumbnail", 0) != 0) xmpData["Xmp." + prefix + "." + name] = value;
            }
        } catch (const std::exception& e) {
            QOR_LOG(LogDebug, "metadata key %* not written: %*", key, e.what());
        }
    }
    if (exif && !exifData.empty()) {
        Exiv2::Blob blob;
        try {
            Exiv2::ExifParser::encode(blob, Exiv2::littleEndian, exifData);
            exif->assign(blob.begin(), blob.end());
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "EXIF metadata not written: %*", e.what());
        }
    }
    if (!xmpData.empty()) {
        try {
            if (Exiv2::XmpParser::encode(xmp, xmpData, Exiv2::XmpParser::useCompactFormat) != 0)
                xmp.clear();
        } catch (const std::exception& e) {
            QOR_LOG(LogWarning, "XMP metadata not written: %*", e.what());
            xmp.clear();
        }
    }
}

}  // namespace detail
}  // namespace qor::imageio
