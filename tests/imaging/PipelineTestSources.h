#pragma once
// Shared pieces of the tile pipeline tests: a procedural source whose every pixel is known from
// its coordinates, with hooks to hold or break the computation of a tile; a gate to hold jobs; a
// recorder of the records that tile callbacks receive; and a guard that enables the tile cache for
// one test and puts it back afterwards.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <vector>

#include "imaging/ComputedTileInfo.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageTile.h"
#include "imaging/TileCache.h"

namespace qor::imaging::pipelinetest {

using Clock = std::chrono::steady_clock;
// How long a test waits for something that should happen at once before it fails.
constexpr std::chrono::seconds kPatience{20};

// The RGBA8 pixel of the gradient at image coordinate (x, y); any coordinate, also outside.
inline unsigned char gradientComponent(int x, int y, int c) {
    switch (c) {
        case 0: return (unsigned char)(x & 0xFF);
        case 1: return (unsigned char)(y & 0xFF);
        case 2: return (unsigned char)((x * 7 + y * 13) & 0xFF);
        default: return 255;
    }
}

// How many pixel components of `tile` differ from the gradient, `map` turning a coordinate of the
// tile into the image coordinate that it shows.
template <class Map>
int gradientMismatches(const ImageTile& tile, Map map) {
    auto data = tile.getDataRGBA8();
    if (!data) return tile.width() * tile.height() + 1;
    int bad = 0;
    for (int y = 0; y < tile.height(); ++y)
        for (int x = 0; x < tile.width(); ++x) {
            const GenVec<int, 2> p = map(x, y);
            for (int c = 0; c < 4; ++c)
                if (data->at(x, y, c) != gradientComponent(p.x, p.y, c)) ++bad;
        }
    return bad;
}

// The same for a tile that shows `rect` of the image unchanged.
inline int gradientMismatches(const ImageTile& tile, const Recti& rect) {
    if (tile.size() != rect.size()) return tile.width() * tile.height() + 1;
    return gradientMismatches(tile, [&](int x, int y) { return rect.mins + GenVec<int, 2>(x, y); });
}

// A latch that jobs wait on. Waiting gives up after kPatience so that a broken test fails
// instead of hanging.
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> lock(_mutex);
        _open = true;
        _cv.notify_all();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(_mutex);
        return _cv.wait_for(lock, kPatience, [this] { return _open; });
    }
    bool isOpen() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _open;
    }

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _open = false;
};

// A source that computes every tile of the gradient through the default job graph. `onCompute`
// runs first in each computation (on the job's thread) and may block or throw; `nullResult` makes
// the computation return null.
class GradientSource : public ImageSource {
public:
    static SharedPtr<GradientSource> create(GenVec<int, 2> size, GenVec<int, 2> tileSize,
                                            bool defaultCaching = true) {
        auto* source = new GradientSource(size, tileSize, defaultCaching);
        return std::static_pointer_cast<GradientSource>(source->setupSelfRef());
    }

    TileLayout tileLayout() const override { return _layout; }

    // Whether the source's own mutex is free now (taken and given back at once).
    bool mutexFree() const QOR_NO_THREAD_SAFETY_ANALYSIS {
        if (!_mutex.tryLock()) return false;
        _mutex.unlock();
        return true;
    }

    int computedTotal() const { return _computedTotal.load(); }
    int computedCount(int x, int y) {
        std::lock_guard<std::mutex> lock(_countMutex);
        return _computed[GenVec<int, 2>(x, y)];
    }

    Function2<void, unsigned int, unsigned int> onCompute;  // set before the first request
    std::atomic<bool> nullResult{false};

protected:
    GradientSource(GenVec<int, 2> size, GenVec<int, 2> tileSize, bool defaultCaching)
        : ImageSource(size, PfRGBA8),
          _layout(size, tileSize, GenVec<int, 2>(0, 0), size),
          _defaultCaching(defaultCaching) {}

    bool defaultCachingState() const override { return _defaultCaching; }

    SharedPtr<const ImageTile> computeTileData(unsigned int x, unsigned int y) override {
        {
            std::lock_guard<std::mutex> lock(_countMutex);
            ++_computed[GenVec<int, 2>(int(x), int(y))];
        }
        ++_computedTotal;
        if (onCompute) onCompute(x, y);
        if (nullResult) return nullptr;
        const Recti rect = _layout.getTileRect(int(x), int(y));
        SharedPtr<ImageTile> tile = ImageTile::create(rect.size(), PfRGBA8);
        auto data = tile->getDataTargetRGBA8();
        for (int j = 0; j < rect.height(); ++j)
            for (int i = 0; i < rect.width(); ++i)
                for (int c = 0; c < 4; ++c)
                    data->at(i, j, c) = gradientComponent(rect.xmin() + i, rect.ymin() + j, c);
        return tile;
    }

private:
    const TileLayout _layout;
    const bool _defaultCaching;
    std::mutex _countMutex;
    std::map<GenVec<int, 2>, int> _computed;  // guarded by _countMutex
    std::atomic<int> _computedTotal{0};
};

// Collects what a tile callback receives, from any thread.
class Recorder {
public:
    ImageSource::TileCallback callback() {
        return [this](const ComputedTileInfo& cti) { record(cti); };
    }
    void record(const ComputedTileInfo& cti) {
        std::lock_guard<std::mutex> lock(_mutex);
        if (!_records.empty() && _records.back().type == ComputedTileInfo::RequestEnded)
            ++_afterEnd;
        _records.push_back(cti);
        _cv.notify_all();
    }
    // Waits for the first end record; false if none came within kPatience.
    bool waitEnded() {
        std::unique_lock<std::mutex> lock(_mutex);
        return _cv.wait_for(lock, kPatience, [this] { return endsUnlocked() > 0; });
    }
    std::vector<ComputedTileInfo> records() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _records;
    }
    std::vector<ComputedTileInfo> tiles() {
        std::vector<ComputedTileInfo> out;
        for (const ComputedTileInfo& r : records())
            if (r.type == ComputedTileInfo::TileReady) out.push_back(r);
        return out;
    }
    std::vector<ComputedTileInfo> ends() {
        std::vector<ComputedTileInfo> out;
        for (const ComputedTileInfo& r : records())
            if (r.type == ComputedTileInfo::RequestEnded) out.push_back(r);
        return out;
    }
    // Records that arrived after an end record.
    int afterEnd() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _afterEnd;
    }
    // How many times each position was delivered.
    std::map<GenVec<int, 2>, int> tileCounts() {
        std::map<GenVec<int, 2>, int> out;
        for (const ComputedTileInfo& r : tiles()) ++out[r.pos];
        return out;
    }

private:
    size_t endsUnlocked() const {
        size_t n = 0;
        for (const ComputedTileInfo& r : _records)
            if (r.type == ComputedTileInfo::RequestEnded) ++n;
        return n;
    }

    std::mutex _mutex;
    std::condition_variable _cv;
    std::vector<ComputedTileInfo> _records;
    int _afterEnd = 0;
};

// Enables the tile cache, empty, for one test; afterwards empties it and puts the enabled flag
// back as it was.
class CacheGuard {
public:
    CacheGuard() {
        TileCache::Statistics stats;
        TileCache::getStatistics(stats);
        _wasEnabled = stats.enabled;
        TileCache::clearCache();
        TileCache::enable();
    }
    ~CacheGuard() {
        TileCache::clearCache();
        if (!_wasEnabled) TileCache::disable();
    }
    CacheGuard(const CacheGuard&) = delete;
    CacheGuard& operator=(const CacheGuard&) = delete;

private:
    bool _wasEnabled = false;
};

// The set of every tile of `count`.
inline ImageSource::TileSet allTiles(GenVec<int, 2> count) {
    ImageSource::TileSet out;
    for (int y = 0; y < count.y; ++y)
        for (int x = 0; x < count.x; ++x) out.emplace(x, y);
    return out;
}

}  // namespace qor::imaging::pipelinetest
