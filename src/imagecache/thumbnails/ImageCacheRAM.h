#pragma once
// ImageCacheRAM: the memory link of the thumbnail chain. It keeps the thumbnails it has handed out
// in an LRU within a byte budget (the bytes of their pixel rows), keyed by (item, side), and asks
// the next link for the rest.
//
// Single flight: when several threads ask at once for an item that is not held, the first asks
// the next link and the others wait for its answer, so the item is decoded once. A placeholder is
// handed to everyone who waited for it but never kept.
//
// Upkeep: an item keeps its ResourceID when its file moves, so a move keeps what is held; a change
// or a removal drops it (and an answer still on its way for it is not kept); a copy shares the
// source's images. Every notice then goes on to the next link.
//
// Ownership: the next link is not owned and must outlive this one. Images are shared and
// immutable: what get hands out stays valid after eviction.
//
// Thread contract: every member may be called from any thread at once. _mutex guards the LRU and
// the table of answers on their way; it is a leaf, never held while the next link is asked or
// while an image is released.

#include <cstdint>
#include <exception>
#include <map>
#include <memory>

#include "base/thread/Mutex.h"
#include "container/LRUCache.h"
#include "imagecache/thumbnails/ImageCache.h"
#include "imagecache/thumbnails/ThumbnailKey.h"

namespace qor::imagecache {

class ImageCacheRAM : public ImageCache {
public:
    ImageCacheRAM(ImageCache* next, uint64_t byteLimit);
    ~ImageCacheRAM() override;
    ImageCacheRAM(const ImageCacheRAM&) = delete;
    ImageCacheRAM& operator=(const ImageCacheRAM&) = delete;

    // A hit copies one shared pointer under the lock. A miss blocks on the next link, or on the
    // thread that already asks it for the same item. Rethrows what the next link throws.
    Thumbnail get(ResourceID id, int side) override;
    bool contains(ResourceID id, int side) override;
    void itemChanged(ResourceID id) override;
    void itemRemoved(ResourceID id, const std::string& path) override;
    void itemMoved(ResourceID id, const std::string& oldPath) override;
    void itemCopied(ResourceID src, ResourceID dst) override;
    ResourceManager& resourceManager() override;

    uint64_t byteSize() const;
    uint64_t byteLimit() const;
    size_t count() const;
    // A lower limit evicts at once.
    void setByteLimit(uint64_t limit);
    // Drops everything held (not the next link's).
    void clear();
    // This link's own upkeep, without telling the next link: drops what is held of the item, or
    // lets `dst` share what is held of `src`.
    void forget(ResourceID id);
    void share(ResourceID src, ResourceID dst);

    // The budget an image takes: its pixels.
    static uint64_t costOf(const imageio::Image4ub& image);

private:
    using Key = ThumbnailKey;
    // An answer of the next link on its way: the asking thread fills it, the others wait.
    struct Flight {
        bool done = false;
        bool stale = false;  // the item changed meanwhile: hand out, do not keep
        Thumbnail result;
        std::exception_ptr error;
    };

    // Removes every entry of the item and marks its flights stale; the released images go to
    // *released so that they are freed after the lock is dropped (declare it before the lock).
    void dropLocked(int32_t id, std::vector<imageio::ConstImagePtr>* released) QOR_REQUIRES(_mutex);
    Thumbnail fetch(ResourceID id, int side, const Key& key, std::shared_ptr<Flight> flight);

    ImageCache* const _next;    // not owned
    mutable Mutex _mutex;       // guards _entries, _flights
    ConditionVariable _landed;  // a flight ended
    container::LRUCache<Key, imageio::ConstImagePtr> _entries QOR_GUARDED_BY(_mutex);
    std::map<Key, std::shared_ptr<Flight>> _flights QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::imagecache
