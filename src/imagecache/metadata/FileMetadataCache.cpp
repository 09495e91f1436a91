#include "imagecache/metadata/FileMetadataCache.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "base/Log.h"
#include "base/filesystem/RandomAccessFile.h"
#include "base/resource/ResourceFSScopedLock.h"
#include "imagecache/metadata/ItemState.h"
#include "imageio/ImageIO.h"
#include "imageio/ImageLoader.h"
#include "imageio/MetadataReader.h"
#include "text/TextUtils.h"

namespace qor::imagecache {

namespace {

using F = MetadataField;

struct FileFacts {
    uint64_t size = 0;
    Timestamp lastWriteTime;
    Timestamp creationTime;  // null where the file system does not record it
};

Timestamp fromStatx(const struct statx_timestamp& t) {
    return Timestamp::fromMicroseconds(int64_t(t.tv_sec) * 1000000 + t.tv_nsec / 1000);
}

// Size and times of the file at `path`. Throws RAFException when it cannot be examined.
FileFacts fileFacts(const std::string& path) {
    struct statx st;
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_SIZE | STATX_MTIME | STATX_BTIME, &st) != 0)
        throw RAFException("Cannot examine '" + path + "': " + std::strerror(errno));
    FileFacts facts;
    facts.size = st.stx_size;
    facts.lastWriteTime = fromStatx(st.stx_mtime);
    if (st.stx_mask & STATX_BTIME) facts.creationTime = fromStatx(st.stx_btime);
    return facts;
}

// The integer of raw key `key` into `field`, when the key is there.
void integerFromRaw(Metadata& m, const char* key, F field) {
    FastString<char> text;
    if (m.get(FastString<char>(key), text)) m.set(field, text::strtoi(text.view()));
}

// The metadata a registry decoder reads from the file's header, or null when none recognises it.
SharedPtr<Metadata> readByDecoder(const std::string& path) {
    try {
        return imageio::ImageLoader(FastString<char>(path), true).getMetadata();
    } catch (const std::exception& e) {
        QOR_LOG(LogInfo, "FileMetadataCache: no decoder reads '%*': %*", path, e.what());
    }
    return nullptr;
}

}  // namespace

FileMetadataCache::FileMetadataCache(ResourceManager* manager) : _manager(manager) {
    imageio::initSupportedItemsList();
}

SharedPtr<const Metadata> FileMetadataCache::loadMetadata(ResourceID id) {
    ResourceFSScopedLock lock(_manager, id, FilesystemScopedLock::Shared);
    const std::string& path = lock.path();
    const FileFacts facts = fileFacts(path);
    {
        ScopedLock kept(_mutex);
        if (_kept && _keptId == id && _keptWriteTime == facts.lastWriteTime &&
            _keptSize == facts.size)
            return _kept;
    }
    RandomAccessFileStd file(path);
    SharedPtr<Metadata> metadata = imageio::readMetadata(file);
    imageio::ItemType type = imageio::getItemType(FastString<char>(path));
    ItemState state = ItemStateOk;
    // Formats the metadata reader does not know (OpenEXR, BMP ...) are pictures when a decoder
    // recognises their content: their header gives at least the size.
    if (!metadata && type != imageio::ItemTypeVideo) metadata = readByDecoder(path);
    if (metadata) {
        integerFromRaw(*metadata, "tiff:Orientation", F::Orientation);
        integerFromRaw(*metadata, "xmp:Rating", F::Rating);
        if (type == imageio::ItemTypeUnknown) type = imageio::ItemTypeImage;
    } else {
        metadata = std::make_shared<Metadata>();
        if (type != imageio::ItemTypeVideo) state = ItemStateUnreadable;
    }
    const Digest checksum = imageio::imageChecksum(file);
    if (!checksum.isNull()) metadata->set(F::MD5, checksum);
    metadata->set(F::FileLastWriteTime, facts.lastWriteTime);
    if (!facts.creationTime.isNull()) metadata->set(F::FileCreationTime, facts.creationTime);
    metadata->set(F::ItemType, int(type));
    metadata->set(F::ItemState, int(state));

    ScopedLock kept(_mutex);
    _keptId = id;
    _keptWriteTime = facts.lastWriteTime;
    _keptSize = facts.size;
    _kept = metadata;
    return metadata;
}

void FileMetadataCache::check(ResourceID id) {
    ScopedLock kept(_mutex);
    if (_keptId == id) _kept.reset();
}

template <class T>
bool FileMetadataCache::getField(ResourceID id, MetadataField field, T& out) {
    try {
        const SharedPtr<const Metadata> metadata = loadMetadata(id);
        return metadata && metadata->get(field, out);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "FileMetadataCache: cannot read item %*: %*", id, e.what());
    }
    return false;
}

bool FileMetadataCache::get(ResourceID id, MetadataField field, int& out) {
    return getField(id, field, out);
}
bool FileMetadataCache::get(ResourceID id, MetadataField field, Vec2i& out) {
    return getField(id, field, out);
}
bool FileMetadataCache::get(ResourceID id, MetadataField field, double& out) {
    return getField(id, field, out);
}
bool FileMetadataCache::get(ResourceID id, MetadataField field, Vec3d& out) {
    return getField(id, field, out);
}
bool FileMetadataCache::get(ResourceID id, MetadataField field, FastString<char>& out) {
    return getField(id, field, out);
}
bool FileMetadataCache::get(ResourceID id, MetadataField field, Timestamp& out) {
    return getField(id, field, out);
}
bool FileMetadataCache::get(ResourceID id, MetadataField field, Digest& out) {
    return getField(id, field, out);
}

void FileMetadataCache::dropValue(ResourceID id, MetadataField field) {
    QOR_LOG(LogDebug, "FileMetadataCache: field %* of item %* is not written to its file", field,
            id);
}

void FileMetadataCache::set(ResourceID id, MetadataField field, int) { dropValue(id, field); }
void FileMetadataCache::set(ResourceID id, MetadataField field, const Vec2i&) {
    dropValue(id, field);
}
void FileMetadataCache::set(ResourceID id, MetadataField field, double) { dropValue(id, field); }
void FileMetadataCache::set(ResourceID id, MetadataField field, const Vec3d&) {
    dropValue(id, field);
}
void FileMetadataCache::set(ResourceID id, MetadataField field, const FastString<char>&) {
    dropValue(id, field);
}
void FileMetadataCache::set(ResourceID id, MetadataField field, const Timestamp&) {
    dropValue(id, field);
}
void FileMetadataCache::set(ResourceID id, MetadataField field, const Digest&) {
    dropValue(id, field);
}

}  // namespace qor::imagecache
