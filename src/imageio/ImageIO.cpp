// loadImage: the dispatcher of the load roads by extension, and the JPEG road with its metadata
// read and EXIF thumbnail. Every name that is not the JPEG, PNG or TIFF road's goes to the decoder
// registry, which knows files by their content.

#include "imageio/ImageIO.h"

#include <exception>
#include <string>

#include "base/Log.h"
#include "imageio/DecoderRegistry.h"
#include "imageio/detail/ExifThumbnail.h"
#include "imageio/detail/JpegCodec.h"
#include "imageio/detail/PathExtension.h"

namespace qor::imageio {

namespace {

using Vec2i = math::GenVec<int, 2>;

// The load road of a path, by its extension upper-cased character by character.
enum LoadRoad {
    RoadJpeg = 0,
    RoadPng = 2,
    RoadTiff = 3,
    RoadRegistry = 4,
};

LoadRoad loadRoadOf(const FastString<char>& path) {
    const FastString<char> extension = detail::upperExtension(path);
    if (extension == ".JPG" || extension == ".JPEG") return RoadJpeg;
    if (extension == ".PNG") return RoadPng;
    if (extension == ".TIF" || extension == ".TIFF") return RoadTiff;
    return RoadRegistry;
}

bool wantsEmpty(const ImagePtr* image) { return image && !*image; }
bool wantsEmpty(const SharedPtr<Metadata>* metadata) { return metadata && !*metadata; }

// The JPEG road on an open file. Throws what reading the file throws.
void loadJpegRoad(RandomAccessFile& file, const FastString<char>& path, Vec2i size,
                  ImageQuality quality, ImagePtr* image, SharedPtr<Metadata>* metadata,
                  const math::Recti& roi) {
    if (wantsEmpty(metadata)) {
        *metadata = detail::readJpegMetadata(file);
        if (!*metadata) QOR_LOG(LogWarning, "Failed to read jpeg exif from '%*'", path);
    }
    if (!wantsEmpty(image)) return;
    const SharedPtr<Metadata> known = metadata ? *metadata : nullptr;
    if (known && known->thumbLocation() != 0 && quality == ImageQualityThumbnail) {
        if ((*image = detail::decodeExifThumbnail(file, known->thumbLocation(), size, quality)))
            return;
        QOR_LOG(LogWarning, "loadJpeg: corrupted thumbnail in '%*'", path);
        known->setThumbLocation(0);
    }
    *image = detail::decodeJpeg(file, size, quality, roi);
}

// Crops and reduces a picture that came at full size from a road without either (PNG), so that
// every road gives what the arguments ask for.
void applyRoiAndSize(ImagePtr& image, Vec2i size, const math::Recti& roi) {
    if (!image) return;
    if (!roi.empty()) {
        const math::Recti area = roi & math::Recti(0, 0, image->width(), image->height());
        if (area.empty()) {
            image.reset();
            return;
        }
        if (area.width() == image->width() && area.height() == image->height()) return;
        ImagePtr crop = Image4ub::create(area.width(), area.height());
        for (int y = 0; y < area.height(); ++y)
            std::copy_n(image->row(area.mins.y + y) + size_t(area.mins.x) * 4,
                        size_t(area.width()) * 4, crop->row(y));
        image = std::move(crop);
        return;
    }
    if (size != Vec2i(0, 0))
        image = scaleTrilinear_destructive(std::move(image), size.x, size.y, 1);
}

void runRoad(const FastString<char>& path, Vec2i size, ImageQuality quality, ImagePtr* image,
             SharedPtr<Metadata>* metadata, const math::Recti& roi, bool lock) {
    switch (loadRoadOf(path)) {
        case RoadJpeg:
            try {
                if (lock) {
                    LockedFileGeneric<RandomAccessFileStd> file(path.view(),
                                                                FilesystemScopedLock::Shared);
                    loadJpegRoad(file, path, size, quality, image, metadata, roi);
                } else {
                    RandomAccessFileStd file(path.view());
                    loadJpegRoad(file, path, size, quality, image, metadata, roi);
                }
            } catch (const std::exception& e) {
                QOR_LOG(LogWarning, "ImageIO: When opening: %*, Error: %*", path, e.what());
                if (image) image->reset();
                if (metadata) metadata->reset();
            }
            return;
        case RoadPng: {
            ImagePtr decoded;
            if (!loadPng(path, wantsEmpty(image) ? &decoded : nullptr, metadata)) return;
            applyRoiAndSize(decoded, size, roi);
            if (decoded) *image = std::move(decoded);
            return;
        }
        case RoadTiff:
            QOR_LOG(LogWarning, "Unknown file type: '%*'", path);
            return;
        case RoadRegistry:
            decodeWithRegistry(path, size, quality, image, metadata, roi);
            return;
    }
}

}  // namespace

void loadImage(const FastString<char>& path, Vec2i size, ImageQuality quality, ImagePtr* image,
               SharedPtr<Metadata>* metadata, const math::Recti& roi) {
    try {
        runRoad(path, size, quality, image, metadata, roi, true);
    } catch (const Exception& e) {
        QOR_LOG(LogError, "Uncaught exception: %*. Img:(%*), size(%*,%*), roi (%*,%*,%*,%*)",
                e.what(), path, size.x, size.y, roi.mins.x, roi.mins.y, roi.maxs.x, roi.maxs.y);
    } catch (...) {
        QOR_LOG(LogError, "Unknown uncaught exception! ('%*')", path);
        QOR_ASSERT_TEXT(false, "false");
    }
}

void loadImageUnlocked(const FastString<char>& path, Vec2i size, ImageQuality quality,
                       ImagePtr* image, SharedPtr<Metadata>* metadata, const math::Recti& roi) {
    try {
        runRoad(path, size, quality, image, metadata, roi, false);
    } catch (const Exception& e) {
        QOR_LOG(LogError, "Uncaught exception: %* ('%*')", e.what(), path);
    } catch (...) {
        QOR_LOG(LogError, "Unknown uncaught exception! ('%*')", path);
        QOR_ASSERT_TEXT(false, "false");
    }
}

void loadROI(const FastString<char>& path, ImagePtr* image, const math::Recti& roi) {
    loadImage(path, Vec2i(0, 0), ImageQualityBest, image, nullptr, roi);
}

}  // namespace qor::imageio
