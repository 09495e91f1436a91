#include "imaging/ImageStorageManager.h"

#include <vector>

#include "base/Log.h"
#include "imaging/ImageStorage.h"

namespace qor::imaging {

namespace {
// How many entries one eviction pass takes from the old end before it looks at the totals again.
constexpr std::size_t kEvictionBatch = 32;
}  // namespace

ImageStorageManager* ImageStorageManager::instance() {
    // Never deleted: storages may unregister from static destructors at exit.
    static ImageStorageManager* manager = new ImageStorageManager();
    return manager;
}

ImageStorageManager::ImageStorageManager() = default;
ImageStorageManager::~ImageStorageManager() = default;

ImageStorageManager::AreaState& ImageStorageManager::areaState(int area) { return _areas[area]; }

void ImageStorageManager::eraseUnlocked(std::map<EntryId, Position, EntryIdLess>::iterator pos) {
    AreaState& state = areaState(pos->second.area);
    state.consumption -= pos->second.it->cost;
    state.order.erase(pos->second.it);
    _index.erase(pos);
}

void ImageStorageManager::registerStorage(const FastString<char>& key,
                                          const WeakSharedPtr<ImageStorage>& storage,
                                          RawPixelFormat format, std::uint64_t cost, int area) {
    if (storage.expired()) {
        QOR_LOG(LogDebug, "Storage of type %* registered after its end; ignored", key);
        return;
    }
    std::uint64_t limit;
    {
        ScopedLock<Mutex> lock(_mutex);
        auto pos = _index.find(EntryId{storage, format});
        if (pos != _index.end()) eraseUnlocked(pos);
        AreaState& state = areaState(area);
        state.order.push_front(Entry{key, storage, format, cost, area});
        state.consumption += cost;
        _index.emplace(EntryId{storage, format}, Position{area, state.order.begin()});
        if (state.consumption <= state.limit) return;
        limit = state.limit;
    }
    evict(area, limit);
}

void ImageStorageManager::unregisterStorage(const WeakSharedPtr<ImageStorage>& storage,
                                            RawPixelFormat format) {
    ScopedLock<Mutex> lock(_mutex);
    auto pos = _index.find(EntryId{storage, format});
    if (pos != _index.end()) eraseUnlocked(pos);
}

void ImageStorageManager::touchStorage(const WeakSharedPtr<ImageStorage>& storage,
                                       RawPixelFormat format) {
    ScopedLock<Mutex> lock(_mutex);
    auto pos = _index.find(EntryId{storage, format});
    if (pos == _index.end()) return;
    Order& order = areaState(pos->second.area).order;
    order.splice(order.begin(), order, pos->second.it);
}

void ImageStorageManager::setMemoryLimit(int area, std::uint64_t bytes) {
    std::uint64_t consumption;
    {
        ScopedLock<Mutex> lock(_mutex);
        AreaState& state = areaState(area);
        state.limit = bytes;
        consumption = state.consumption;
    }
    if (consumption > bytes) evict(area, bytes);
}

std::uint64_t ImageStorageManager::memoryLimit(int area) const {
    ScopedLock<Mutex> lock(_mutex);
    auto it = _areas.find(area);
    return it == _areas.end() ? NoLimit : it->second.limit;
}

std::uint64_t ImageStorageManager::memoryConsumption(int area) const {
    ScopedLock<Mutex> lock(_mutex);
    auto it = _areas.find(area);
    return it == _areas.end() ? 0 : it->second.consumption;
}

std::size_t ImageStorageManager::entryCount(int area) const {
    ScopedLock<Mutex> lock(_mutex);
    auto it = _areas.find(area);
    return it == _areas.end() ? 0 : it->second.order.size();
}

void ImageStorageManager::setMemoryLimitToCurrentConsumption(int area) {
    ScopedLock<Mutex> lock(_mutex);
    AreaState& state = areaState(area);
    state.limit = state.consumption;
    QOR_LOG(LogInfo, "Memory limit of storage area %* set to %* bytes", area, state.limit);
}

std::uint64_t ImageStorageManager::discard(int area, std::uint64_t bytes) {
    std::uint64_t consumption;
    {
        ScopedLock<Mutex> lock(_mutex);
        consumption = areaState(area).consumption;
    }
    return evict(area, consumption > bytes ? consumption - bytes : 0);
}

std::uint64_t ImageStorageManager::evict(int area, std::uint64_t target) {
    struct Candidate {
        WeakSharedPtr<ImageStorage> storage;
        RawPixelFormat format;
        std::uint64_t cost;
    };
    std::uint64_t evicted = 0;
    std::size_t budget = 0;  // entries that may still be asked; each at most once per call
    bool first = true;
    std::vector<Candidate> batch;
    std::vector<Candidate> refused;
    for (;;) {
        batch.clear();
        {
            ScopedLock<Mutex> lock(_mutex);
            AreaState& state = areaState(area);
            // Entries that would not go move to the new end, so the next pass asks others.
            for (const Candidate& c : refused) {
                auto pos = _index.find(EntryId{c.storage, c.format});
                if (pos != _index.end())
                    state.order.splice(state.order.begin(), state.order, pos->second.it);
            }
            refused.clear();
            if (first) {
                budget = state.order.size();
                first = false;
            }
            if (state.consumption <= target || budget == 0) break;
            auto it = state.order.end();
            while (it != state.order.begin() && batch.size() < kEvictionBatch &&
                   batch.size() < budget) {
                --it;
                batch.push_back(Candidate{it->storage, it->format, it->cost});
            }
            budget -= batch.size();
        }
        if (batch.empty()) break;
        for (const Candidate& c : batch) {
            bool dropped = false;
            if (SharedPtr<ImageStorage> storage = c.storage.lock())
                dropped = storage->tryDiscardPixelFormat(c.format);
            if (dropped) {
                evicted += c.cost;
                // Storages that track themselves have already left; this covers those that don't.
                unregisterStorage(c.storage, c.format);
                if (memoryConsumption(area) <= target) break;
            } else {
                refused.push_back(c);
            }
        }
    }
    return evicted;
}

}  // namespace qor::imaging
