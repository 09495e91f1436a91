#include "imagecache/thumbnails/ImageCacheRAM.h"

#include <limits>
#include <utility>
#include <vector>

#include "base/Log.h"

namespace qor::imagecache {

ImageCacheRAM::ImageCacheRAM(ImageCache* next, uint64_t byteLimit)
    : _next(next), _entries(byteLimit) {
    QOR_ASSERT(next != nullptr);
}

ImageCacheRAM::~ImageCacheRAM() = default;

uint64_t ImageCacheRAM::costOf(const imageio::Image4ub& image) {
    return uint64_t(image.byteStride()) * uint64_t(image.height());
}

Thumbnail ImageCacheRAM::get(ResourceID id, int side) {
    const Key key{id.id(), side};
    std::shared_ptr<Flight> flight;
    {
        ScopedLock lock(_mutex);
        if (const imageio::ConstImagePtr* image = _entries.get(key)) return Thumbnail{*image};
        auto it = _flights.find(key);
        if (it != _flights.end()) {
            // Another thread asks the next link for it: wait for its answer.
            std::shared_ptr<Flight> theirs = it->second;
            _landed.wait(lock, [&] { return theirs->done; });
            if (theirs->error) std::rethrow_exception(theirs->error);
            return theirs->result;
        }
        flight = std::make_shared<Flight>();
        _flights.emplace(key, flight);
    }
    return fetch(id, side, key, std::move(flight));
}

Thumbnail ImageCacheRAM::fetch(ResourceID id, int side, const Key& key,
                               std::shared_ptr<Flight> flight) {
    Thumbnail result;
    std::exception_ptr error;
    try {
        result = _next->get(id, side);
    } catch (...) {
        error = std::current_exception();
    }
    std::vector<imageio::ConstImagePtr> released;
    {
        ScopedLock lock(_mutex);
        flight->result = result;
        flight->error = error;
        flight->done = true;
        auto it = _flights.find(key);
        if (it != _flights.end() && it->second == flight) _flights.erase(it);
        if (!error && result.image && !result.placeholder && !flight->stale) {
            uint64_t cost = costOf(*result.image);
            if (cost < _entries.maxCosts()) _entries.insert(key, result.image, cost, &released);
        }
        _landed.notifyAll();
    }
    if (error) std::rethrow_exception(error);
    return result;
}

bool ImageCacheRAM::contains(ResourceID id, int side) {
    ScopedLock lock(_mutex);
    return _entries.contains(Key{id.id(), side});
}

void ImageCacheRAM::dropLocked(int32_t id, std::vector<imageio::ConstImagePtr>* released) {
    _entries.eraseRange(
        Key{id, std::numeric_limits<int>::min()}, [id](const Key& k) { return k.id == id; },
        released);
    // Answers on their way are handed to those who wait for them but not kept; a get from now on
    // starts a flight of its own.
    auto it = _flights.lower_bound(Key{id, std::numeric_limits<int>::min()});
    while (it != _flights.end() && it->first.id == id) {
        it->second->stale = true;
        it = _flights.erase(it);
    }
}

void ImageCacheRAM::forget(ResourceID id) {
    std::vector<imageio::ConstImagePtr> released;
    ScopedLock lock(_mutex);
    dropLocked(id.id(), &released);
}

void ImageCacheRAM::share(ResourceID src, ResourceID dst) {
    std::vector<imageio::ConstImagePtr> released;
    ScopedLock lock(_mutex);
    dropLocked(dst.id(), &released);
    std::vector<std::pair<Key, imageio::ConstImagePtr>> shared;
    _entries.forEach([&](const Key& k, const imageio::ConstImagePtr& image, uint64_t) {
        if (k.id == src.id()) shared.emplace_back(Key{dst.id(), k.side}, image);
    });
    for (auto& [key, image] : shared) {
        uint64_t cost = costOf(*image);
        _entries.insert(key, std::move(image), cost, &released);
    }
}

void ImageCacheRAM::itemChanged(ResourceID id) {
    forget(id);
    _next->itemChanged(id);
}

void ImageCacheRAM::itemRemoved(ResourceID id, const std::string& path) {
    forget(id);
    _next->itemRemoved(id, path);
}

void ImageCacheRAM::itemMoved(ResourceID id, const std::string& oldPath) {
    // Held by id, which a move keeps: only the links keyed by name have work.
    _next->itemMoved(id, oldPath);
}

void ImageCacheRAM::itemCopied(ResourceID src, ResourceID dst) {
    share(src, dst);
    _next->itemCopied(src, dst);
}

ResourceManager& ImageCacheRAM::resourceManager() { return _next->resourceManager(); }

uint64_t ImageCacheRAM::byteSize() const {
    ScopedLock lock(_mutex);
    return _entries.costs();
}

uint64_t ImageCacheRAM::byteLimit() const {
    ScopedLock lock(_mutex);
    return _entries.maxCosts();
}

size_t ImageCacheRAM::count() const {
    ScopedLock lock(_mutex);
    return _entries.size();
}

void ImageCacheRAM::setByteLimit(uint64_t limit) {
    std::vector<imageio::ConstImagePtr> released;
    ScopedLock lock(_mutex);
    _entries.setMaxCosts(limit);
    _entries.evictTo(limit, &released);
}

void ImageCacheRAM::clear() {
    std::vector<imageio::ConstImagePtr> released;
    ScopedLock lock(_mutex);
    _entries.clear(&released);
}

}  // namespace qor::imagecache
