// The TIFF and OpenEXR decoders: both formats read any rectangle of their picture through the
// region readers that ImageLoader uses, so they share everything but the reader.

#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "base/Log.h"
#include "imageio/MetadataReader.h"
#include "imageio/decoders/FormatDecoders.h"
#include "imageio/decoders/detail/DecodeSupport.h"
#include "imageio/detail/RegionReaders.h"
#include "imaging/ImagingException.h"

namespace qor::imageio {

namespace {

using Vec = math::GenVec<int, 2>;

// What a region reader gives of one file.
struct RegionFormat {
    const char* name;                      // for log lines
    Vec (*size)(const std::string& path);  // the stored size
    ImageOut (*region)(const std::string& path, const math::Recti& rect);
    bool fileMetadata;  // EXIF, IPTC and XMP through Exiv2
};

bool decodeByRegions(const RegionFormat& format, RandomAccessFile& file,
                     const FastString<char>& path, Vec size, ImageOut* image,
                     SharedPtr<Metadata>* metadata, const math::Recti& roi) {
    try {
        const std::string name(path.view());
        const Vec full = format.size(name);
        if (!detail::plausibleSize(full.x, full.y)) {
            QOR_LOG(LogInfo, "%* '%*' claims an implausible size %*x%*", format.name, path, full.x,
                    full.y);
            return false;
        }
        if (detail::wanted(image)) {
            ImageOut decoded;
            if (roi.empty()) {
                decoded =
                    detail::finishImage(format.region(name, math::Recti(full)), size, roi, path);
            } else if (detail::roiInside(roi, full)) {
                decoded = format.region(name, roi);
            } else {
                QOR_LOG(LogInfo, "Region (%*,%*,%*,%*) lies outside the %*x%* image '%*'",
                        roi.xmin(), roi.ymin(), roi.xmax(), roi.ymax(), full.x, full.y, path);
            }
            if (!decoded) return false;
            *image = std::move(decoded);
        }
        if (detail::wanted(metadata)) {
            SharedPtr<Metadata> read = format.fileMetadata ? readMetadata(file) : nullptr;
            if (!read) read = std::make_shared<Metadata>();
            read->set(MetadataField::Imagesize, Vec2i(full.x, full.y));
            *metadata = std::move(read);
        }
        return true;
    } catch (const ImageLoaderException& e) {
        QOR_LOG(LogInfo, "%* decoder: %*", format.name, e.what());
    } catch (const std::bad_alloc&) {
        QOR_LOG(LogInfo, "No memory to decode %* '%*'", format.name, path);
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "Cannot read %* '%*': %*", format.name, path, e.what());
    }
    return false;
}

const RegionFormat Tiff{"TIFF",
                        [](const std::string& path) { return detail::readTiffInfo(path).size; },
                        detail::readTiffRegion<unsigned char>, true};
const RegionFormat Exr{"OpenEXR", detail::readExrSize, detail::readExrRegion<unsigned char>, false};

bool startsWith(const unsigned char* head, size_t length, const char* magic, size_t n) {
    return length >= n && std::memcmp(head, magic, n) == 0;
}

}  // namespace

bool TiffDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    return startsWith(head, length, "II*\0", 4) || startsWith(head, length, "MM\0*", 4) ||
           startsWith(head, length, "II+\0", 4) || startsWith(head, length, "MM\0+", 4);
}

bool TiffDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                         math::GenVec<int, 2> size, ImageQuality, ImageOut* image,
                         SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    return decodeByRegions(Tiff, file, path, size, image, metadata, roi);
}

bool ExrDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    return startsWith(head, length, "\x76\x2F\x31\x01", 4);
}

bool ExrDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                        math::GenVec<int, 2> size, ImageQuality, ImageOut* image,
                        SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    return decodeByRegions(Exr, file, path, size, image, metadata, roi);
}

}  // namespace qor::imageio
