#include "imagecache/thumbnails/ImageCacheSource.h"

#include <algorithm>

#include "base/Log.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"

namespace qor::imagecache {

ImageCacheSource::ImageCacheSource(ResourceManager* manager) : _manager(manager) {
    QOR_ASSERT(manager != nullptr);
}

Thumbnail ImageCacheSource::placeholder() {
    static const imageio::ConstImagePtr grey = [] {
        constexpr int kSide = 16;
        imageio::ImagePtr image = imageio::Image4ub::create(kSide, kSide);
        for (int y = 0; y < kSide; ++y) {
            unsigned char* row = image->data() + y * image->stride();
            std::fill(row, row + kSide * 4, 128);
            for (int x = 0; x < kSide; ++x) row[x * 4 + 3] = 255;
        }
        return imageio::ConstImagePtr(std::move(image));
    }();
    return Thumbnail{grey, true};
}

Thumbnail ImageCacheSource::get(ResourceID id, int side) {
    ResourceName name;
    if (!_manager->tryGetName(id, name)) {
        QOR_LOG(LogWarning, "ImageCacheSource: no item %*", id);
        return placeholder();
    }
    if (imageio::ImagePtr image = makeThumbnail(name.localPath(), side)) {
        return Thumbnail{std::move(image)};
    }
    return placeholder();
}

}  // namespace qor::imagecache
