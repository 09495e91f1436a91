#include <exception>
#include <new>

#include "base/Log.h"
#include "imageio/decoders/FormatDecoders.h"
#include "imageio/decoders/detail/DecodeSupport.h"
#include "imageio/detail/ExifThumbnail.h"
#include "imageio/detail/JpegCodec.h"

namespace qor::imageio {

bool JpegDecoder::accepts(const unsigned char* head, size_t length, const FastString<char>&) const {
    return length >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF;
}

bool JpegDecoder::decode(RandomAccessFile& file, const FastString<char>& path,
                         math::GenVec<int, 2> size, ImageQuality quality, ImageOut* image,
                         SharedPtr<Metadata>* metadata, const math::Recti& roi) const {
    const bool previewWanted =
        detail::wanted(image) && quality == ImageQualityThumbnail && roi.empty();
    try {
        // The metadata tells where the EXIF thumbnail lies, so a preview needs it too.
        SharedPtr<Metadata> read;
        if (detail::wanted(metadata) || (previewWanted && !(metadata && *metadata)))
            read = detail::readJpegMetadata(file);
        const SharedPtr<Metadata> known = metadata && *metadata ? *metadata : read;

        math::GenVec<int, 2> previewSize;  // (0, 0) unless the preview was decoded
        if (detail::wanted(image)) {
            ImageOut decoded;
            if (previewWanted && known && known->thumbLocation() != 0) {
                // Thumbnails are small: decoded whole, so that their own size is known.
                decoded =
                    detail::decodeExifThumbnail(file, known->thumbLocation(), {0, 0}, quality);
                if (decoded) {
                    previewSize = {decoded->width(), decoded->height()};
                } else {
                    QOR_LOG(LogWarning, "loadJpeg: corrupted thumbnail in '%*'", path);
                    known->setThumbLocation(0);
                }
            }
            if (!decoded) decoded = detail::decodeJpeg(file, size, quality, roi);
            if (decoded && roi.empty())
                decoded = detail::finishImage(std::move(decoded), size, roi, path);
            if (!decoded) {
                QOR_LOG(LogInfo, "JPEG '%*' does not decode", path);
                return false;
            }
            *image = std::move(decoded);
        }
        if (!detail::wanted(metadata)) return true;
        if (!read) {
            // Metadata that Exiv2 cannot read: the header still tells the size.
            const math::GenVec<int, 2> header = detail::readJpegSize(file);
            if (header.x <= 0 || header.y <= 0) {
                QOR_LOG(LogInfo, "JPEG '%*' has no readable header", path);
                return false;
            }
            read = std::make_shared<Metadata>();
            read->set(MetadataField::Imagesize, Vec2i(header.x, header.y));
        }
        if (previewSize.x > 0)
            read->set(MetadataField::Imagesize, Vec2i(previewSize.x, previewSize.y));
        *metadata = std::move(read);
        return true;
    } catch (const std::bad_alloc&) {
        QOR_LOG(LogInfo, "No memory to decode JPEG '%*'", path);
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "Cannot read JPEG '%*': %*", path, e.what());
    }
    return false;
}

}  // namespace qor::imageio
