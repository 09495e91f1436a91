#include "imageio/detail/ExifThumbnail.h"

#include <memory>
#include <utility>

#include "base/filesystem/FileRegion.h"

namespace qor::imageio::detail {

ImagePtr decodeExifThumbnail(RandomAccessFile& file, long location, math::GenVec<int, 2> size,
                             ImageQuality quality, JpegDecodeReport* report) {
    std::unique_ptr<FileRegion> region;
    try {
        const uint64_t start = static_cast<uint64_t>(location);
        if (location <= 0 || start >= file.size()) return nullptr;
        region = std::make_unique<FileRegion>(file, start, file.size() - start);
    } catch (const RAFException&) {
        return nullptr;
    }
    if (!report) return decodeJpeg(*region, size, quality, math::Recti());
    ImagePtr image = decodeJpegReduced(*region, 1, quality, report);
    if (report->dataMissing) return nullptr;
    return image && size != math::GenVec<int, 2>(0, 0)
               ? scaleTrilinear_destructive(std::move(image), size.x, size.y, ScaleFitInside)
               : image;
}

}  // namespace qor::imageio::detail
