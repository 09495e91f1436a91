#pragma once
// DynamicHDCache: a store of keyed blobs on disk (thumbnails and previews, a few KB to a few
// hundred KB each) with a byte limit and least-recently-used eviction. It is a cache: losing an
// entry costs a decode, never data, so every failure makes it answer "not here" or stop growing,
// never fail its caller.
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
// Storage, and why (figures: docs/PERFORMANCE.md, bench/DynamicHDCacheBench.cpp, beside one file
// a blob in a folder tree of 256 shards with its index in SQLite):
// - One SQLite database, `blobs.db` in the folder: `entries(id, key, size, used)` holds the index
//   in small rows and `blobs(id, data)` the blobs, so that opening reads only the index (5000
//   entries in 2.1 ms, as fast as the file store's index). The index is also kept in memory: a
//   hit is one lookup in a map and one read of the blob by row, through a memory map of the
//   file: 6.4 us for 20 KB, 31 us for 200 KB. One file a blob reads faster (4.7 and 13.6 us),
//   but both are far below the millisecond a thumbnail may take, and the file store needs its
//   own index beside the files, two stores to keep in step across crashes, where here a put, an
//   eviction or a rename of a whole prefix is one transaction. A put of 20 KB costs 84 us (46 us
//   to 900 us for the files, whose figures swing with the load of the machine), and a put that
//   evicts 91 us against 387 us: an eviction is a row deleted, not a file unlinked.
// - Write-ahead log with synchronous=NORMAL: a commit appends pages to the log with no fsync. A
//   process killed at any moment loses nothing committed and never leaves half of a transaction;
//   a power cut may lose the last commits, never a part of one.
// - The order of use is a tick per entry, stored in `used`. A get notes the new tick in memory
//   only; the noted ticks are written with the next change (a put, a removal), or on their own
//   in one transaction once 64 are waiting, and when the object closes. A crash loses at most
//   those uses, never an entry.
// - A database that is not SQLite, not ours, of another version, or damaged where the index is
//   read, is recreated empty with one log line. A new store is built under a temporary name and
//   renamed into place, so a crash while it is built leaves none (built again, silently). A lock
//   file (`lock`, flock) keeps a second process out.
// - After a write fails with a full disk or an I/O error, the byte size reached then becomes a
//   second limit for the life of the object: puts evict to stay below it.
// - The database keeps its free pages after evictions (they take the next blobs); clear and a
//   lower limit give them back to the file system.
//
// Thread contract: every member may be called from any thread at once; calls are serialised
// inside by one mutex, held over the disk work. Blocks on disk work. Two objects on the same folder
// in one process are not supported; a second process on the same folder is refused by the
// constructor.

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
