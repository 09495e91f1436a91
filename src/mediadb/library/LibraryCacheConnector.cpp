#include "mediadb/library/LibraryCacheConnector.h"

#include <algorithm>
#include <exception>

#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/resource/ResourceManager.h"
#include "imagecache/metadata/MetadataCacheRDB.h"
#include "mediadb/library/LibraryExceptions.h"

namespace qor::mediadb {

using imageio::MetadataField;

namespace {
constexpr int kBackgroundPriority = -60;

bool isBelow(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
}
}  // namespace

LibraryCacheConnector::LibraryCacheConnector(imageio::MetadataCache* cache,
                                             imagecache::ImageCache* thumbnails)
    : _cache(cache), _thumbnails(thumbnails), _background(nullptr, "LibraryCacheConnector") {
    if (!_cache) throw CacheConnectorException("LibraryCacheConnector needs a metadata cache");
    if (auto* rdb = dynamic_cast<imagecache::MetadataCacheRDB*>(_cache); rdb && _thumbnails) {
        rdb->setFileChangedCallback([thumbnails](ResourceID id) { thumbnails->itemChanged(id); });
    }
}

LibraryCacheConnector::~LibraryCacheConnector() {
    _background.cancel();
    _background.wait();
    if (auto* rdb = dynamic_cast<imagecache::MetadataCacheRDB*>(_cache); rdb && _thumbnails) {
        rdb->setFileChangedCallback({});
    }
}

// The metadata cache keys by ResourceID and follows the ImageManager's renames and removals; the
// thumbnail chain keys its disk entries by name and is told.
void LibraryCacheConnector::imageMoved(ResourceID id, const std::string& oldPath) {
    if (_thumbnails) _thumbnails->itemMoved(id, oldPath);
}

void LibraryCacheConnector::imageRemoved(ResourceID id, const std::string& path) {
    if (_thumbnails) _thumbnails->itemRemoved(id, path);
}

// Called after the images below the folder have their new names.
void LibraryCacheConnector::folderMoved(const std::string& oldFolder,
                                        const std::string& newFolder) {
    if (!_thumbnails) return;
    ResourceManager& images = _thumbnails->resourceManager();
    for (const ResourceID& id : images.ids()) {
        ResourceName name;
        if (!images.tryGetName(id, name)) continue;
        const std::string& path = name.localPath();
        if (!isBelow(path, newFolder)) continue;
        _thumbnails->itemMoved(id, oldFolder + path.substr(newFolder.size()));
    }
}

// The images of an erased folder are never asked for again under their names: what the thumbnail
// chain held of them ages out of its least recently used end.
void LibraryCacheConnector::folderRemoved(const std::string&) {}

void LibraryCacheConnector::imageCopied(ResourceID src, ResourceID dst) {
    _cache->copyImage(src, dst);
    if (_thumbnails) _thumbnails->itemCopied(src, dst);
}

// A check that finds the file written since drops the thumbnails through the callback; an edit
// within the file time's resolution would not show, so they are dropped here all the same.
void LibraryCacheConnector::imageChanged(ResourceID id) {
    _cache->check(id);
    if (_thumbnails) _thumbnails->itemChanged(id);
}

void LibraryCacheConnector::imagesAdded(const std::vector<ResourceID>& ids) {
    auto* rdb = dynamic_cast<imagecache::MetadataCacheRDB*>(_cache);
    if (!rdb) return;  // a chain without a persistent cache reads on demand only
    for (const ResourceID& id : ids) {
        if (!id.isValid()) continue;
        _background.post(
            [rdb, id] {
                try {
                    rdb->cacheImage(id);
                } catch (const std::exception& e) {
                    QOR_LOG(LogWarning, "LibraryCacheConnector: cannot read image %*: %*", id,
                            e.what());
                }
            },
            kBackgroundPriority);
    }
}

bool LibraryCacheConnector::hasMetadata(ResourceID id) {
    // Every readable file has a last write time; a file that cannot be read has none.
    time::Timestamp t;
    return _cache->get(id, MetadataField::FileLastWriteTime, t) && !t.isNull();
}

int LibraryCacheConnector::rating(ResourceID id) {
    int stars = 0;
    if (!_cache->get(id, MetadataField::Rating, stars)) return 0;
    return std::clamp(stars, 0, 5);
}

time::Timestamp LibraryCacheConnector::captureTime(ResourceID id) {
    time::Timestamp t;
    if (_cache->get(id, MetadataField::OriginalTime, t) && !t.isNull()) return t;
    if (_cache->get(id, MetadataField::DigitizedTime, t) && !t.isNull()) return t;
    return {};
}

Digest LibraryCacheConnector::checksum(ResourceID id) {
    Digest digest;
    if (!_cache->get(id, MetadataField::MD5, digest)) return {};
    return digest;
}

uint64_t LibraryCacheConnector::fileSize(ResourceID id) {
    ResourceManager* manager = _cache->resourceManager();
    ResourceName name;
    if (!manager || !manager->tryGetName(id, name)) return 0;
    try {
        return filesystem::fileSize(name.localPath());
    } catch (const std::exception& e) {
        QOR_LOG(LogDebug, "LibraryCacheConnector: no size of %*: %*", name, e.what());
        return 0;
    }
}

time::Timestamp LibraryCacheConnector::fileLastWriteTime(ResourceID id) {
    time::Timestamp t;
    if (!_cache->get(id, MetadataField::FileLastWriteTime, t)) return {};
    return t;
}

bool LibraryCacheConnector::isCached(ResourceID id) { return _cache->isCached(id); }

void LibraryCacheConnector::setRating(ResourceID id, int stars) {
    _cache->set(id, MetadataField::Rating, std::clamp(stars, 0, 5));
}

void LibraryCacheConnector::flush() {
    if (auto* rdb = dynamic_cast<imagecache::MetadataCacheRDB*>(_cache)) {
        rdb->flush(false);
        rdb->waitForFlush();
    }
}

}  // namespace qor::mediadb
