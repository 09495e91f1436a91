#pragma once
// ImageStorageManager: keeps account of the pixel memory held by tile storages, per memory area
// (the processor and the graphics card), and evicts what can be dropped when an area passes its
// byte limit.
//
// Each format a storage holds is one entry with its own cost and age, so one format of a tile can
// go while another stays. Entries are ordered by use; eviction asks the least recently touched
// entries first, through ImageStorage::tryDiscardPixelFormat, which gives up at once when the
// storage is busy. A storage decides itself what it can drop (a processor storage keeps its last
// copy), so an area can stay above its limit when nothing more can go.
//
// Thread contract: every member may be called from any thread. _mutex guards the tables and is a
// leaf: storages call in with their own mutex held (storage first, then manager), and the manager
// never calls a storage while holding it. Eviction runs on the thread whose registration passed
// the limit, or on the caller of discard.

#include <cstdint>
#include <list>
#include <map>

#include "base/thread/Mutex.h"
#include "imaging/PixelFormat.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

class ImageStorage;

// The memory areas. The values are part of the interface.
enum StorageArea : int {
    SaProcessor = 0,
    SaGPU = 2,
};

class ImageStorageManager {
public:
    static constexpr std::uint64_t NoLimit = ~std::uint64_t(0);

    // The process-wide manager, made on first use; it lives until the process ends.
    static ImageStorageManager* instance();

    // A manager of its own, for tests.
    ImageStorageManager();
    ~ImageStorageManager();
    ImageStorageManager(const ImageStorageManager&) = delete;
    ImageStorageManager& operator=(const ImageStorageManager&) = delete;

    // Enters the `format` copy of `storage` (of the storage type `key`) as the most recently used
    // entry of `area`, costing `cost` bytes. A copy entered before is updated in place. When the
    // area is then over its limit, evicts on the calling thread. A storage that has gone is
    // ignored.
    void registerStorage(const FastString<char>& key, const WeakSharedPtr<ImageStorage>& storage,
                         RawPixelFormat format, std::uint64_t cost, int area);
    // Removes the entry; nothing happens if there is none. Works on a storage being deleted.
    void unregisterStorage(const WeakSharedPtr<ImageStorage>& storage, RawPixelFormat format);
    // Makes the entry the most recently used of its area.
    void touchStorage(const WeakSharedPtr<ImageStorage>& storage, RawPixelFormat format);

    // The byte limit of an area; NoLimit (the default) means no eviction.
    void setMemoryLimit(int area, std::uint64_t bytes);
    std::uint64_t memoryLimit(int area) const;
    // The sum of the costs of the entries of an area.
    std::uint64_t memoryConsumption(int area) const;
    std::size_t entryCount(int area) const;
    // Sets the limit of an area to what it holds now (after an allocation failed, say).
    void setMemoryLimitToCurrentConsumption(int area);
    // Evicts at least `bytes` from an area where entries allow it, least recently used first.
    // Returns the bytes evicted. Must not be called with a storage's lock held.
    std::uint64_t discard(int area, std::uint64_t bytes);

private:
    struct Entry {
        FastString<char> key;
        WeakSharedPtr<ImageStorage> storage;
        RawPixelFormat format = PfInvalid;
        std::uint64_t cost = 0;
        int area = 0;
    };
    using Order = std::list<Entry>;  // front: most recently used
    struct AreaState {
        Order order;
        std::uint64_t consumption = 0;
        std::uint64_t limit = NoLimit;
    };
    struct EntryId {
        WeakSharedPtr<ImageStorage> storage;
        RawPixelFormat format;
    };
    // Storages compare by their control block, so an entry can be found while its storage is being
    // deleted.
    struct EntryIdLess {
        bool operator()(const EntryId& a, const EntryId& b) const {
            if (a.storage.owner_before(b.storage)) return true;
            if (b.storage.owner_before(a.storage)) return false;
            return a.format < b.format;
        }
    };
    struct Position {
        int area;
        Order::iterator it;
    };

    AreaState& areaState(int area) QOR_REQUIRES(_mutex);
    void eraseUnlocked(std::map<EntryId, Position, EntryIdLess>::iterator pos)
        QOR_REQUIRES(_mutex);
    // Evicts from `area` until it is `target` bytes or less, or nothing more will go.
    std::uint64_t evict(int area, std::uint64_t target) QOR_EXCLUDES(_mutex);

    mutable thread::Mutex _mutex;  // guards _areas, _index
    std::map<int, AreaState> _areas QOR_GUARDED_BY(_mutex);
    std::map<EntryId, Position, EntryIdLess> _index QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::imaging
