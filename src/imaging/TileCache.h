#pragma once
// TileCache: the process-wide store of finished tiles that every computing source reads before it
// starts a job. Entries are keyed by source and rectangle, carry the version of the source they
// were computed for, and are costed at the tile's nominal byte size; inserting beyond the byte
// limit evicts the least recently used entries.
//
// Ownership: the cache holds a shared reference to each tile; a tile goes once it has left the
// cache and nobody else holds it. Source pointers are keys only and are never dereferenced, so a
// source must clear its entries (clearLifeTiles) before its address can be reused.
//
// Thread contract: every function may be called from any thread. One mutex guards the whole cache;
// it is a leaf of the lock order. Tiles that leave the cache are released after that mutex is
// dropped, since releasing a tile takes the locks of its storages and of the storage manager.
// Tiles are shared const, so a tile handed out needs no lock of the cache afterwards.

#include <cstddef>

#include "imaging/DrawParameters.h"
#include "imaging/PixelFormat.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ImageSource;
class ImageTile;

// One cached tile with the source version it belongs to and its nominal cost in bytes.
struct LifeTile {
    SharedPtr<const ImageTile> tile;
    unsigned int version = 0;
    unsigned long long memoryConsumption = 0;
};

class TileCache {
public:
    // A snapshot taken under the cache's mutex. The counters run from the first use of the cache
    // in this process; clearing the cache does not reset them.
    struct Statistics {
        bool enabled = false;
        size_t entries = 0;
        unsigned long long bytes = 0;  // nominal cost of the entries held
        unsigned long long limit = 0;
        unsigned long long hits = 0;           // lookups that returned a tile
        unsigned long long misses = 0;         // lookups that returned none
        unsigned long long versionMisses = 0;  // misses with an entry of another version present
        unsigned long long insertions = 0;     // tiles stored, replacements included
        unsigned long long replacements = 0;   // insertions over an entry of the same key
        unsigned long long evictions = 0;      // entries removed to make room for an insertion
        unsigned long long dropped = 0;        // insertions ignored while the cache was disabled
    };

    static constexpr unsigned long long DefaultMemoryLimit = 0x20000000ull;

    TileCache() = delete;

    // A new tile outside the cache (ImageTile::createNonCached with the same arguments).
    static SharedPtr<ImageTile> allocTile(const GenVec<int, 2>& size, RawPixelFormat format,
                                          const DrawParameters& params = DrawParameters());

    // The tile cached for source and rect if its version is `version`; null otherwise. A hit
    // counts as a use for the order of eviction; an entry of another version is left where it is.
    static SharedPtr<const ImageTile> getLifeTile(const ImageSource* source, const Recti& rect,
                                                  unsigned int version);
    // The tile cached for source and rect whatever its version, which goes to *version when
    // `version` is not null; null when there is none. A hit counts as a use.
    static SharedPtr<const ImageTile> getLifeTile(const ImageSource* source, const Recti& rect,
                                                  unsigned int* version);
    // Marks the entry as the most recently used without reading it; nothing if there is none.
    static void touchLifeTile(const ImageSource* source, const Recti& rect);

    // Stores `tile` for source and rect at `version`, replacing any entry of that key, and evicts
    // least recently used entries until the new one fits the limit. Dropped while the cache is
    // disabled. Logs "t.version != version" when the entry it replaces has the same version,
    // "t.memoryConsumption < 64*1024*1024" for an oversized tile and "costs < _maxCosts" for a tile
    // that does not fit the limit at all; each is stored all the same.
    static void cacheLifeTile(SharedPtr<const ImageTile> tile, const ImageSource* source,
                              const Recti& rect, unsigned int version);
    // Stores `tile` as cacheLifeTile does, unless the entry of that key already has `version` or
    // a newer one: a newer tile is never replaced by an older one, and a tile computed twice at
    // one version (two requests that ran side by side) is kept once. The look-up and the insertion
    // are one step under the cache's mutex, so two writers of one key cannot both find it missing.
    // Returns true when the tile was stored.
    static bool cacheLifeTileIfNewer(SharedPtr<const ImageTile> tile, const ImageSource* source,
                                     const Recti& rect, unsigned int version);

    // Removes every entry of source; the entries of other sources stay.
    static void clearLifeTiles(const ImageSource* source);
    // Removes every entry, if the cache has been used at all.
    static void clearCache();
    // Sets the byte limit (default DefaultMemoryLimit). Nothing is evicted until the next
    // insertion.
    static void setMemoryLimit(unsigned long long limit);
    // Caching writes are accepted only while the cache is enabled; it starts disabled. Disabling
    // keeps what is cached and lookups go on being served.
    static void enable();
    static void disable();
    static void getStatistics(Statistics& out);
    // The cache does not give up storages of a type on request: always false.
    static bool freeStorageGen(const char* storageType);
};

}  // namespace qor::imaging
