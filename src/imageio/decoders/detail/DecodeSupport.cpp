#include "imageio/decoders/detail/DecodeSupport.h"

#include <cstring>
#include <new>

#include "base/Log.h"
#include "imageio/decoders/detail/ImageResize.h"

namespace qor::imageio::detail {

bool plausibleSize(int64_t width, int64_t height) {
    return width > 0 && height > 0 && width <= kMaxDecodedPixels && height <= kMaxDecodedPixels &&
           width * height <= kMaxDecodedPixels;
}

SharedPtr<Rgba8Image> allocateRgba(int width, int height, const FastString<char>& path) {
    try {
        if (plausibleSize(width, height)) {
            SharedPtr<Rgba8Image> image = Rgba8Image::create(width, height);
            std::memset(image->data(), 0, image->byteStride() * size_t(height));
            return image;
        }
    } catch (const std::bad_alloc&) {
    }
    QOR_LOG(LogInfo, "No memory for %*x%* pixels of '%*'", width, height, path);
    return nullptr;
}

bool roiInside(const math::Recti& roi, math::GenVec<int, 2> size) {
    return !roi.empty() && roi.xmin() >= 0 && roi.ymin() >= 0 && roi.xmax() <= size.x &&
           roi.ymax() <= size.y;
}

math::GenVec<int, 2> requestedSize(math::GenVec<int, 2> source, math::GenVec<int, 2> size,
                                   const math::Recti& roi) {
    if (!roi.empty()) return roi.size();
    return fitInside(source, size);
}

SharedPtr<Rgba8Image> finishImage(SharedPtr<Rgba8Image> full, math::GenVec<int, 2> size,
                                  const math::Recti& roi, const FastString<char>& path) {
    if (!full) return nullptr;
    const math::GenVec<int, 2> fullSize(full->width(), full->height());
    try {
        if (!roi.empty()) {
            if (!roiInside(roi, fullSize)) {
                QOR_LOG(LogInfo, "Region (%*,%*,%*,%*) lies outside the %*x%* image '%*'",
                        roi.xmin(), roi.ymin(), roi.xmax(), roi.ymax(), fullSize.x, fullSize.y,
                        path);
                return nullptr;
            }
            SharedPtr<Rgba8Image> cut = Rgba8Image::create(roi.width(), roi.height());
            for (int y = 0; y < roi.height(); ++y)
                std::memcpy(cut->row(y), full->row(roi.ymin() + y) + size_t(roi.xmin()) * 4,
                            size_t(roi.width()) * 4);
            return cut;
        }
        const math::GenVec<int, 2> target = fitInside(fullSize, size);
        if (target == fullSize) return full;
        if (!plausibleSize(target.x, target.y)) {
            QOR_LOG(LogInfo, "Requested size %*x%* is too large for '%*'", target.x, target.y,
                    path);
            return nullptr;
        }
        return resizeRgba(std::move(full), target.x, target.y);
    } catch (const std::bad_alloc&) {
        QOR_LOG(LogInfo, "Out of memory while scaling '%*'", path);
        return nullptr;
    }
}

void provideMetadata(SharedPtr<Metadata>* metadata, math::GenVec<int, 2> imageSize,
                     const Timestamp& originalTime) {
    if (!wanted(metadata)) return;
    SharedPtr<Metadata> result = std::make_shared<Metadata>();
    result->set(MetadataField::Imagesize, Vec2i(imageSize.x, imageSize.y));
    if (!originalTime.isNull()) result->set(MetadataField::OriginalTime, originalTime);
    *metadata = std::move(result);
}

}  // namespace qor::imageio::detail
