#pragma once
// MetadataCache: the interface of a store of item metadata keyed by ResourceID. Caches form a
// chain: what one cache lacks it fetches from the next one and keeps; the last link reads the file.
// ItemMetadata reads and writes through it.
//
// Thread contract for implementations: every operation may be called from any thread at once.
// Operations may block on file access (a get of an uncached item reads its file).

#include "base/ResourceID.h"
#include "imageio/Metadata.h"
#include "imageio/MetadataField.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

class MetadataCache {
public:
    virtual ~MetadataCache() = default;

    // The value of `field` for item `id` into `out`: true when the cache (or the chain behind it)
    // has one, false with `out` untouched otherwise. Never throws.
    virtual bool get(ResourceID id, MetadataField field, int& out) = 0;
    virtual bool get(ResourceID id, MetadataField field, Vec2i& out) = 0;
    virtual bool get(ResourceID id, MetadataField field, double& out) = 0;
    virtual bool get(ResourceID id, MetadataField field, Vec3d& out) = 0;
    virtual bool get(ResourceID id, MetadataField field, FastString<char>& out) = 0;
    virtual bool get(ResourceID id, MetadataField field, Timestamp& out) = 0;
    virtual bool get(ResourceID id, MetadataField field, Digest& out) = 0;

    // Stores a value for item `id`; a cache hands it on down the chain, where the last link writes
    // it to the file if it can.
    virtual void set(ResourceID id, MetadataField field, int value) = 0;
    virtual void set(ResourceID id, MetadataField field, const Vec2i& value) = 0;
    virtual void set(ResourceID id, MetadataField field, double value) = 0;
    virtual void set(ResourceID id, MetadataField field, const Vec3d& value) = 0;
    virtual void set(ResourceID id, MetadataField field, const FastString<char>& value) = 0;
    virtual void set(ResourceID id, MetadataField field, const Timestamp& value) = 0;
    virtual void set(ResourceID id, MetadataField field, const Digest& value) = 0;

    // Whether the item's values are held without asking further down the chain.
    virtual bool isCached(ResourceID id) = 0;
    // The full metadata of the item, read through the chain (may read the file: blocks). Null when
    // the item has none; throws Exception when reading fails.
    virtual SharedPtr<const Metadata> loadMetadata(ResourceID id) = 0;
    // Verifies the cached values of the item against its file and reloads them when the file
    // changed.
    virtual void check(ResourceID id) = 0;
    // Gives item `dst` the cached values of item `src` (a copied file).
    virtual void copyImage(ResourceID src, ResourceID dst) = 0;

    // The manager that issues the ids this cache takes and whose names locate the items' files. A
    // cache in front of another takes it from there. Null for a cache that needs none.
    virtual ResourceManager* resourceManager() { return nullptr; }
};

}  // namespace qor::imageio
