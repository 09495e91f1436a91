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
}

LibraryCacheConnector::LibraryCacheConnector(imageio::MetadataCache* cache)
    : _cache(cache), _background(nullptr, "LibraryCacheConnector") {
    if (!_cache) throw CacheConnectorException("LibraryCacheConnector needs a metadata cache");
}

LibraryCacheConnector::~LibraryCacheConnector() {
    _background.cancel();
    _background.wait();
}

// The metadata cache keys by ResourceID and follows the ImageManager's renames and removals.
void LibraryCacheConnector::imageMoved(ResourceID, const std::string&) {}
void LibraryCacheConnector::imageRemoved(ResourceID, const std::string&) {}
void LibraryCacheConnector::folderMoved(const std::string&, const std::string&) {}
void LibraryCacheConnector::folderRemoved(const std::string&) {}

void LibraryCacheConnector::imageCopied(ResourceID src, ResourceID dst) {
    _cache->copyImage(src, dst);
}

void LibraryCacheConnector::imageChanged(ResourceID id) { _cache->check(id); }

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
