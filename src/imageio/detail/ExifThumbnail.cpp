#include "imageio/detail/ExifThumbnail.h"

#include <memory>

#include "base/filesystem/FileRegion.h"
#include "imageio/detail/JpegCodec.h"

namespace qor::imageio::detail {

ImagePtr decodeExifThumbnail(RandomAccessFile& file, long location, math::GenVec<int, 2> size,
                             ImageQuality quality) {
    std::unique_ptr<FileRegion> region;
    try {
        const uint64_t start = static_cast<uint64_t>(location);
        if (location <= 0 || start >= file.size()) return nullptr;
        region = std::make_unique<FileRegion>(file, start, file.size() - start);
    } catch (const RAFException&) {
        return nullptr;
    }
    return decodeJpeg(*region, size, quality, math::Recti());
}

}  // namespace qor::imageio::detail
