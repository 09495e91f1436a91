#include "imageio/MetadataReader.h"

#include <cstring>
#include <exiv2/image.hpp>
#include <exiv2/jpgimage.hpp>
#include <exiv2/tiffimage.hpp>
#include <memory>
#include <string>

#include "base/Log.h"
#include "imageio/detail/Exiv2Keys.h"
#include "imageio/detail/Exiv2Setup.h"
#include "imageio/detail/MetadataText.h"
#include "imageio/detail/RandomAccessFileIo.h"

namespace qor::imageio {

namespace {

using F = MetadataField;
using String = FastString<char>;

// Where the TIFF structure of a JPEG's EXIF segment begins: behind "Exif\0\0" of the first APP1
// segment that has it. 0 when there is none before the image data.
uint64_t jpegExifTiffStart(RandomAccessFile& file) {
    uint64_t size = file.size();
    uint64_t pos = 2;  // behind SOI
    for (int segments = 0; segments < 4096 && pos + 4 <= size; ++segments) {
        uint8_t head[4];
        if (file.readAt(pos, head, 4) != 4 || head[0] != 0xFF) return 0;
        uint8_t marker = head[1];
        if (marker == 0xFF) {  // fill byte
            ++pos;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8)) {  // no length
            pos += 2;
            continue;
        }
        if (marker == 0xDA || marker == 0xD9) return 0;  // image data or end
        uint64_t length = static_cast<uint64_t>(head[2]) << 8 | head[3];
        if (length < 2) return 0;
        if (marker == 0xE1 && length >= 8) {
            char id[6];
            if (file.readAt(pos + 4, id, 6) == 6 && std::memcmp(id, "Exif\0\0", 6) == 0)
                return pos + 10;
        }
        pos += 2 + length;
    }
    return 0;
}

// The file offset of the EXIF thumbnail when it lies inside the file and starts like a JPEG; else
// 0.
long thumbnailOffset(RandomAccessFile& file, const Exiv2::Image& image) {
    const Exiv2::ExifData& exif = image.exifData();
    auto offsetEntry = exif.findKey(Exiv2::ExifKey("Exif.Thumbnail.JPEGInterchangeFormat"));
    auto lengthEntry = exif.findKey(Exiv2::ExifKey("Exif.Thumbnail.JPEGInterchangeFormatLength"));
    if (offsetEntry == exif.end() || lengthEntry == exif.end() || offsetEntry->count() == 0 ||
        lengthEntry->count() == 0)
        return 0;
    uint64_t tiffStart;
    switch (image.imageType()) {
        case Exiv2::ImageType::jpeg:
            tiffStart = jpegExifTiffStart(file);
            if (tiffStart == 0) return 0;
            break;
        case Exiv2::ImageType::tiff:
            tiffStart = 0;
            break;
        default:
            return 0;  // the thumbnail lies in a container whose layout we do not follow
    }
    long relative = offsetEntry->toLong(0);
    long length = lengthEntry->toLong(0);
    if (relative <= 0 || length < 2) return 0;
    uint64_t offset = tiffStart + static_cast<uint64_t>(relative);
    if (offset + static_cast<uint64_t>(length) > file.size()) return 0;
    uint8_t soi[2];
    if (file.readAt(offset, soi, 2) != 2 || soi[0] != 0xFF || soi[1] != 0xD8) return 0;
    return static_cast<long>(offset);
}

// The typed fields of a file read, from the raw map that was just filled.
class FileReadMapping {
public:
    explicit FileReadMapping(Metadata& m) : _m(m) {}

    void apply(const Vec2i& pixelSize, const Exiv2::IptcData& iptc) {
        if (pixelSize.x > 0 && pixelSize.y > 0) _m.set(F::Imagesize, pixelSize);
        if (const String* offset = raw("exif:ThumbnailOffset"))
            _m.setThumbLocation(detail::metaInt(*offset));
        if (raw("tiff:XResolution") && raw("tiff:YResolution"))
            integer("tiff:ResolutionUnit", F::ImageResolution);

        integer("tiff:BitsPerSample", F::BitsPerSample);
        number("exif:ExposureTime", F::ExposureTime);
        number("exif:FNumber", F::FNumber);
        integer("exif:ISOSpeedRatings", F::ISOSensitivity);
        time("exif:DateTimeOriginal", F::OriginalTime);
        time("exif:DateTimeDigitized", F::DigitizedTime);
        number("exif:ShutterSpeedValue", F::ShutterSpeed);
        number("exif:ApertureValue", F::Aperture);
        number("exif:BrightnessValue", F::Brightness);
        number("exif:ExposureBiasValue", F::Expsoure);
        number("exif:MaxApertureValue", F::MaxAperture);
        number("exif:SubjectDistance", F::SubjectDistance);
        // Always set: the EXIF flash number, replaced by the flash energy where there is one.
        const String* flash = raw("exif:Flash");
        _m.set(F::FlashEnergy, flash ? detail::metaDouble(*flash) : 0.0);
        number("exif:FlashEnergy", F::FlashEnergy);
        number("exif:FocalLength", F::FocalLength);
        integer("exif:WhiteBalance", F::WhiteBalance);
        number("exif:DigitalZoomRatio", F::DigitalZoomRatio);
        number("exif:FocalLengthIn35mmFilm", F::FocalLengthIn35mmFilm);
        Vec3d gps;
        if (const String* text = raw("exif:GPSLongitude")) gps.x = detail::metaGpsCoordinate(*text);
        if (const String* text = raw("exif:GPSLatitude")) gps.y = detail::metaGpsCoordinate(*text);
        if (const String* text = raw("exif:GPSAltitude")) gps.z = detail::metaInt(*text);
        _m.set(F::GPSCoordinates, gps);
        number("exif:GPSSpeed", F::GPSSpeed);
        string("tiff:Model", F::ModelString);
        string("tiff:Make", F::MakeString);
        string("tiff:Software", F::SoftwareString);
        string("tiff:Artist", F::ArtistString);
        string("tiff:Copyright", F::CopyrightString);
        string("exif:TiffUserComment", F::UserComment);
        string("dc:subject", F::DcSubject);
        string("dc:description", F::DcDescription);
        string("dc:title", F::DcTitle);
        string("dc:rights", F::DcRights);
        string("dc:creator", F::DcCreator);

        // By dataset number (record 2): 0x25A, 0x25F, 0x265. The first of repeated ones counts.
        for (auto [dataset, field] : {std::pair{90, F::City}, {95, F::State}, {101, F::Country}}) {
            for (const Exiv2::Iptcdatum& d : iptc) {
                if (d.record() == Exiv2::IptcDataSets::application2 && d.tag() == dataset) {
                    std::string text = detail::asUtf8(d.toString());
                    if (!text.empty()) _m.set(field, String(std::move(text)));
                    break;
                }
            }
        }
    }

private:
    const String* raw(const char* key) const {
        auto it = _m.rawMap().find(String(key));
        return it == _m.rawMap().end() ? nullptr : &it->second;
    }
    void integer(const char* key, MetadataField field) {
        if (const String* text = raw(key)) _m.set(field, detail::metaInt(*text));
    }
    void number(const char* key, MetadataField field) {
        if (const String* text = raw(key)) _m.set(field, detail::metaDouble(*text));
    }
    void string(const char* key, MetadataField field) {
        if (const String* text = raw(key)) _m.set(field, *text);
    }
    void time(const char* key, MetadataField field) {
        Timestamp t;
        const String* text = raw(key);
        if (text && Timestamp::fromMetaString(*text, t)) _m.set(field, t);
    }

    Metadata& _m;
};

SharedPtr<Metadata> readExiv2(RandomAccessFile& file) {
    const std::unique_ptr<Exiv2::Image> image =
        detail::openExiv2Image(std::make_unique<detail::RandomAccessFileIo>(file));
    if (!image) throw Exception(file.size() == 0 ? "empty file" : "unknown image type");
    image->readMetadata();

    auto metadata = std::make_shared<Metadata>();
    detail::addExifEntries(image->exifData(), *metadata);
    detail::addXmpEntries(image->xmpData(), *metadata);
    detail::addIptcEntries(image->iptcData(), *metadata);
    if (long thumb = thumbnailOffset(file, *image)) {
        metadata->setRaw(String("exif:ThumbnailOffset"), String(std::to_string(thumb)));
        auto length =
            image->exifData().findKey(Exiv2::ExifKey("Exif.Thumbnail.JPEGInterchangeFormatLength"));
        metadata->setRaw(String("exif:ThumbnailLength"), String(std::to_string(length->toLong(0))));
    }
    Vec2i pixelSize(image->pixelWidth(), image->pixelHeight());
    FileReadMapping(*metadata).apply(pixelSize, image->iptcData());
    return metadata;
}

}  // namespace

SharedPtr<Metadata> readMetadata(RandomAccessFile& file) {
    detail::ensureExiv2Initialized();
    try {
        return readExiv2(file);
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "readMetadata: failed to read metadata of '%*': %*", file.name(),
                e.what());
    } catch (...) {
        QOR_LOG(LogInfo, "readMetadata: failed to read metadata of '%*': unknown error",
                file.name());
    }
    return nullptr;
}

SharedPtr<Metadata> readMetadata(const FastString<char>& path) {
    ScopedPtr<RandomAccessFileStd> file;
    try {
        file = std::make_unique<RandomAccessFileStd>(path.view());
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "readMetadata: failed to read metadata of '%*': %*", path, e.what());
        return nullptr;
    }
    return readMetadata(*file);
}

SharedPtr<Metadata> readMetadata(const void* data, uint64_t byteCount) {
    RandomAccessFileMemory file(data, static_cast<size_t>(byteCount));
    return readMetadata(file);
}

}  // namespace qor::imageio
