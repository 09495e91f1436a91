#include "imaging/TileCache.h"

#include "imaging/TilingImageSource.h"

#include <atomic>
#include <climits>
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/thread/Mutex.h"
#include "container/LRUCache.h"
#include "imaging/ImageStorage.h"
#include "imaging/ImageTile.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

namespace {

using TileKey = std::pair<const ImageSource*, Recti>;

// Orders by source first, so that one source's entries lie together and clearLifeTiles can remove
// them as one range.
struct TileKeyLess {
    bool operator()(const TileKey& a, const TileKey& b) const {
        if (a.first != b.first) return std::less<const ImageSource*>()(a.first, b.first);
        const Recti& ra = a.second;
        const Recti& rb = b.second;
        return std::tie(ra.mins.y, ra.mins.x, ra.maxs.y, ra.maxs.x) <
               std::tie(rb.mins.y, rb.mins.x, rb.maxs.y, rb.maxs.x);
    }
};

// The first key of source in TileKeyLess order.
TileKey firstKeyOf(const ImageSource* source) {
    const GenVec<int, 2> lowest(INT_MIN, INT_MIN);
    return TileKey(source, Recti(lowest, lowest));
}

using Table = container::LRUCache<TileKey, LifeTile, TileKeyLess>;

// Tiles taken out of the table under the mutex. Declared before the lock in each function so that
// it is destroyed after the lock has been dropped.
using Released = std::vector<LifeTile>;

struct CacheState {
    Mutex mutex;
    bool enabled QOR_GUARDED_BY(mutex) = false;
    Table table QOR_GUARDED_BY(mutex){TileCache::DefaultMemoryLimit};
    unsigned long long hits QOR_GUARDED_BY(mutex) = 0;
    unsigned long long misses QOR_GUARDED_BY(mutex) = 0;
    unsigned long long versionMisses QOR_GUARDED_BY(mutex) = 0;
    unsigned long long insertions QOR_GUARDED_BY(mutex) = 0;
    unsigned long long replacements QOR_GUARDED_BY(mutex) = 0;
    unsigned long long evictions QOR_GUARDED_BY(mutex) = 0;
    unsigned long long dropped QOR_GUARDED_BY(mutex) = 0;
};

std::atomic<CacheState*> g_existing{nullptr};

// The singleton, made on first use. It is never destroyed: tiles still cached at exit stay
// reachable, and no release runs after the storage manager may have gone.
CacheState& state() {
    static CacheState* const created = [] {
        auto* s = new CacheState;
        g_existing.store(s, std::memory_order_release);
        return s;
    }();
    return *created;
}

// The singleton if it has been made; null otherwise.
CacheState* existingState() { return g_existing.load(std::memory_order_acquire); }

}  // namespace

SharedPtr<ImageTile> TileCache::allocTile(const GenVec<int, 2>& size, RawPixelFormat format,
                                          const DrawParameters& params) {
    return ImageTile::createNonCached(size, format, params);
}

SharedPtr<const ImageTile> TileCache::getLifeTile(const ImageSource* source, const Recti& rect,
                                                  unsigned int version) {
    CacheState& s = state();
    const TileKey key(source, rect);
    ScopedLock<Mutex> lock(s.mutex);
    const LifeTile* t = s.table.find(key);
    if (!t || t->version != version) {
        ++s.misses;
        if (t) ++s.versionMisses;
        return nullptr;
    }
    ++s.hits;
    s.table.touch(key);
    return t->tile;
}

SharedPtr<const ImageTile> TileCache::getLifeTile(const ImageSource* source, const Recti& rect,
                                                  unsigned int* version) {
    CacheState& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    const LifeTile* t = s.table.get(TileKey(source, rect));
    if (!t) {
        ++s.misses;
        return nullptr;
    }
    ++s.hits;
    if (version) *version = t->version;
    return t->tile;
}

void TileCache::touchLifeTile(const ImageSource* source, const Recti& rect) {
    CacheState& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    s.table.touch(TileKey(source, rect));
}

namespace {

// The insertion shared by both cache writers; the caller holds s.mutex and has checked the flag.
void insertUnlocked(CacheState& s, TileKey key, SharedPtr<const ImageTile> tile,
                    unsigned int version, const LifeTile* existing, Released* released)
    QOR_REQUIRES(s.mutex) {
    if (existing) ++s.replacements;
    LifeTile t;
    t.memoryConsumption =
        ImageStorage::computeMemoryCost(tile->width(), tile->height(), tile->pixelFormat());
    QOR_ASSERT_TEXT(t.memoryConsumption < 64ull * 1024 * 1024,
                    "t.memoryConsumption < 64*1024*1024");
    t.tile = std::move(tile);
    t.version = version;
    const unsigned long long cost = t.memoryConsumption;
    const bool replacing = existing != nullptr;
    const size_t before = released->size();
    s.table.insert(std::move(key), std::move(t), cost, released);
    ++s.insertions;
    s.evictions += released->size() - before - (replacing ? 1 : 0);
}

// Tiles of a tiling source are held by it and never cached.
bool checkCacheable(const ImageSource* source, const SharedPtr<const ImageTile>& tile) {
    QOR_ASSERT_TEXT(dynamic_cast<const TilingImageSource*>(source) == nullptr,
                    "dynamic_cast<const TilingImageSource*>(src) == 0");
    QOR_ASSERT(tile);
    return bool(tile);
}

}  // namespace

namespace {

// Both writers in one step under the mutex: with `onlyIfNewer`, an entry of `version` or a newer
// one stays; otherwise any entry is replaced, one of the same version with the assertion.
bool store(SharedPtr<const ImageTile> tile, const ImageSource* source, const Recti& rect,
           unsigned int version, bool onlyIfNewer) {
    if (!checkCacheable(source, tile)) return false;
    CacheState& s = state();
    TileKey key(source, rect);
    Released released;
    ScopedLock<Mutex> lock(s.mutex);
    if (!s.enabled) {
        ++s.dropped;
        return false;
    }
    const LifeTile* existing = s.table.find(key);
    if (existing && onlyIfNewer && existing->version >= version) return false;
    if (existing) QOR_ASSERT_TEXT(existing->version != version, "t.version != version");
    insertUnlocked(s, std::move(key), std::move(tile), version, existing, &released);
    return true;
}

}  // namespace

void TileCache::cacheLifeTile(SharedPtr<const ImageTile> tile, const ImageSource* source,
                              const Recti& rect, unsigned int version) {
    store(std::move(tile), source, rect, version, false);
}

bool TileCache::cacheLifeTileIfNewer(SharedPtr<const ImageTile> tile, const ImageSource* source,
                                     const Recti& rect, unsigned int version) {
    return store(std::move(tile), source, rect, version, true);
}

void TileCache::clearLifeTiles(const ImageSource* source) {
    CacheState* s = existingState();
    if (!s) return;
    Released released;
    ScopedLock<Mutex> lock(s->mutex);
    s->table.eraseRange(
        firstKeyOf(source), [source](const TileKey& key) { return key.first == source; },
        &released);
}

void TileCache::clearCache() {
    CacheState* s = existingState();
    if (!s) return;
    Released released;
    ScopedLock<Mutex> lock(s->mutex);
    s->table.clear(&released);
}

void TileCache::setMemoryLimit(unsigned long long limit) {
    CacheState& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    s.table.setMaxCosts(limit);
}

void TileCache::enable() {
    CacheState& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    s.enabled = true;
}

void TileCache::disable() {
    CacheState& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    s.enabled = false;
}

void TileCache::getStatistics(Statistics& out) {
    CacheState& s = state();
    ScopedLock<Mutex> lock(s.mutex);
    out.enabled = s.enabled;
    out.entries = s.table.size();
    out.bytes = s.table.costs();
    out.limit = s.table.maxCosts();
    out.hits = s.hits;
    out.misses = s.misses;
    out.versionMisses = s.versionMisses;
    out.insertions = s.insertions;
    out.replacements = s.replacements;
    out.evictions = s.evictions;
    out.dropped = s.dropped;
}

bool TileCache::freeStorageGen(const char*) { return false; }

}  // namespace qor::imaging
