#include "imagecache/thumbnails/ImageCacheDHD.h"

#include "base/Log.h"
#include "base/cache/DynamicHDCache.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ThumbnailMaker.h"

namespace qor::imagecache {

ImageCacheDHD::ImageCacheDHD(ImageCache* next, DynamicHDCache* store) : _next(next), _store(store) {
    QOR_ASSERT(next != nullptr && store != nullptr);
}

std::string ImageCacheDHD::itemPrefix(const std::string& persistentName) {
    return persistentName + '\n';
}

std::string ImageCacheDHD::key(const std::string& persistentName, int side,
                               int64_t lastWriteTimeUs) {
    return itemPrefix(persistentName) + std::to_string(side) + '\n' +
           std::to_string(lastWriteTimeUs);
}

bool ImageCacheDHD::currentKey(ResourceID id, int side, std::string& name, std::string& out) {
    ResourceName resource;
    if (!resourceManager().tryGetName(id, resource)) return false;
    try {
        time::Timestamp written = filesystem::lastWriteTime(resource.localPath());
        name = resource.persistentString();
        out = key(name, side, written.microseconds());
        return true;
    } catch (const Exception&) {
        return false;  // the source link reports the missing file
    }
}

Thumbnail ImageCacheDHD::get(ResourceID id, int side) {
    std::string name, k;
    if (!currentKey(id, side, name, k)) return _next->get(id, side);
    std::string bytes;
    if (_store->get(k, bytes)) {
        if (imageio::ImagePtr image = decodeThumbnail(bytes)) return Thumbnail{std::move(image)};
        _store->remove(k);  // decodeThumbnail logged it
    }
    // The key was taken before the file is read: a file rewritten meanwhile leaves its new
    // pixels under the old time, which the next get no longer asks for.
    Thumbnail made = _next->get(id, side);
    if (made.placeholder || !made.image) return made;
    std::string encoded = encodeThumbnail(*made.image);
    if (encoded.empty()) return made;
    _store->removePrefix(itemPrefix(name) + std::to_string(side) + '\n');
    _store->put(k, encoded.data(), encoded.size());
    return made;
}

bool ImageCacheDHD::contains(ResourceID id, int side) {
    std::string name, k;
    return currentKey(id, side, name, k) && _store->contains(k);
}

void ImageCacheDHD::itemChanged(ResourceID id) {
    ResourceName resource;
    if (resourceManager().tryGetName(id, resource)) {
        _store->removePrefix(itemPrefix(resource.persistentString()));
    }
    _next->itemChanged(id);
}

void ImageCacheDHD::itemRemoved(ResourceID id, const std::string& path) {
    try {
        _store->removePrefix(
            itemPrefix(resourceManager().nameFromLocalPath(path).persistentString()));
    } catch (const Exception& e) {
        QOR_LOG(LogWarning, "ImageCacheDHD: cannot drop the thumbnails of '%*': %*", path,
                e.what());
    }
    _next->itemRemoved(id, path);
}

void ImageCacheDHD::itemMoved(ResourceID id, const std::string& oldPath) {
    ResourceName resource;
    if (resourceManager().tryGetName(id, resource)) {
        try {
            std::string from =
                itemPrefix(resourceManager().nameFromLocalPath(oldPath).persistentString());
            _store->renamePrefix(from, itemPrefix(resource.persistentString()));
        } catch (const Exception& e) {
            QOR_LOG(LogWarning, "ImageCacheDHD: cannot carry over the thumbnails of '%*': %*",
                    oldPath, e.what());
        }
    }
    _next->itemMoved(id, oldPath);
}

void ImageCacheDHD::itemCopied(ResourceID src, ResourceID dst) {
    std::string bytes;
    for (int side : {kGridThumbnailSide, kScreenPreviewSide}) {
        std::string srcName, srcKey, dstName, dstKey;
        if (!currentKey(src, side, srcName, srcKey) || !currentKey(dst, side, dstName, dstKey)) {
            break;
        }
        if (!_store->get(srcKey, bytes)) continue;
        _store->removePrefix(itemPrefix(dstName) + std::to_string(side) + '\n');
        _store->put(dstKey, bytes.data(), bytes.size());
    }
    _next->itemCopied(src, dst);
}

}  // namespace qor::imagecache
