#pragma once
// DynamicHDCache: a store of keyed blobs on disk (thumbnails and previews, a few KB to a few hundred
// KB each) with a byte limit and least-recently-used eviction. It is a cache: losing an entry costs
// a decode, never data, so every failure makes it answer "not here" or stop growing, never fail
// its caller.
//
// Keys are byte strings chosen by the caller. The thumbnail caches build them from an item's
// persistent name, a size class and the file's last write time, so that a changed file never finds
// its old thumbnail; the prefix operations let them drop or carry over every entry of one item at
// once (an erased or moved picture).
//
// Limits. After each put the stored bytes (blob sizes, not counting the store's own overhead) are
// at most byteLimit(): the least recently used entries go first. A hit (get) counts as a use.
// A blob larger than the whole limit is not stored.
//
// Crash safety. A process killed at any moment leaves every entry either whole (as put it) or
// absent; a torn blob is never served. A full disk or an I/O error makes put return false with
// one log line; the entries already stored stay readable.
//
// Thread contract: every member may be called from any thread at once; calls are serialised
// inside. Blocks on disk work. Two objects on the same folder in one process are not supported;
// a second process on the same folder is refused by the constructor.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Exception.h"

namespace qor {

class DynamicHDCacheException : public Exception {
public:
    using Exception::Exception;
};

class DynamicHDCache {
public:
    // Opens the cache in `folder` (created when missing) with the given byte limit. A store that
    // cannot be read (damaged, of another version) is recreated empty, with a log line. Throws
    // DynamicHDCacheException when the folder cannot be created or used, or another process holds
    // it.
    DynamicHDCache(const std::string& folder, uint64_t byteLimit);
    ~DynamicHDCache();
    DynamicHDCache(const DynamicHDCache&) = delete;
    DynamicHDCache& operator=(const DynamicHDCache&) = delete;

    // The blob stored under `key` into `out` (replacing its content); false, with `out` untouched,
    // when there is none or it cannot be read.
    bool get(std::string_view key, std::string& out);
    // Whether an entry is stored under `key`; not a use.
    bool contains(std::string_view key);
    // Stores `size` bytes under `key`, replacing an earlier entry, and evicts until the limit
    // holds. False (one log line) when the write failed; the cache is then as it was before.
    bool put(std::string_view key, const void* data, size_t size);
    bool remove(std::string_view key);
    // Removes every entry whose key starts with `prefix`; returns how many.
    size_t removePrefix(std::string_view prefix);
    // Gives every entry whose key starts with `from` the key with `from` replaced by `to`, keeping
    // its blob and its place in the order of use; an entry already stored under a new key is
    // replaced. Returns how many entries moved.
    size_t renamePrefix(std::string_view from, std::string_view to);
    // Removes every entry.
    void clear();

    uint64_t byteSize() const;
    size_t count() const;
    uint64_t byteLimit() const;
    // A lower limit evicts at once.
    void setByteLimit(uint64_t limit);
    const std::string& folder() const;

private:
    class Store;
    std::unique_ptr<Store> _store;
};

}  // namespace qor
