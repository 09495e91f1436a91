#pragma once
// Helpers of the thumbnail cache tests: a last link held in memory that counts what it is asked.

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "base/resource/ResourceManager.h"
#include "imagecache/thumbnails/ImageCache.h"

namespace qor::imagecache::testing {

// A solid image of the given size whose pixels all carry `value` in red.
inline imageio::ImagePtr solidImage(int width, int height, unsigned char value) {
    imageio::ImagePtr image = imageio::Image4ub::create(width, height);
    for (int y = 0; y < height; ++y) {
        unsigned char* row = image->data() + y * image->stride();
        for (int x = 0; x < width; ++x) {
            row[x * 4] = value;
            row[x * 4 + 1] = row[x * 4 + 2] = 0;
            row[x * 4 + 3] = 255;
        }
    }
    return image;
}

inline int redOf(const imageio::ConstImagePtr& image) { return image ? image->data()[0] : -1; }

// The end of a chain in memory: gives a side x side image whose red is the item's version (set
// with `version`, 1 by default), or a flagged placeholder for items marked broken. Counts its
// calls per item; `delay` makes each get take that long, so that callers pile up.
class FakeLink : public ImageCache {
public:
    explicit FakeLink(ResourceManager* manager) : _manager(manager) {}

    std::atomic<int> gets{0};
    std::atomic<int> changed{0}, removed{0}, moved{0}, copied{0};
    std::chrono::milliseconds delay{0};
    // Called at the start of each get, on the asking thread, before it is counted per item.
    std::function<void(ResourceID, int)> onGet;

    void setVersion(ResourceID id, int version) {
        std::lock_guard<std::mutex> lock(_mutex);
        _versions[id.id()] = version;
    }
    void setBroken(ResourceID id, bool broken) {
        std::lock_guard<std::mutex> lock(_mutex);
        if (broken) {
            _broken.insert(id.id());
        } else {
            _broken.erase(id.id());
        }
    }
    int getsOf(ResourceID id) {
        std::lock_guard<std::mutex> lock(_mutex);
        return _getsOf[id.id()];
    }

    Thumbnail get(ResourceID id, int side) override {
        ++gets;
        if (delay.count() > 0) std::this_thread::sleep_for(delay);
        if (onGet) onGet(id, side);
        std::lock_guard<std::mutex> lock(_mutex);
        ++_getsOf[id.id()];
        if (_broken.count(id.id())) return Thumbnail{solidImage(4, 4, 128), true};
        auto it = _versions.find(id.id());
        return Thumbnail{solidImage(side, side, it == _versions.end() ? 1 : it->second)};
    }
    bool contains(ResourceID, int) override { return false; }
    void itemChanged(ResourceID) override { ++changed; }
    void itemRemoved(ResourceID, const std::string&) override { ++removed; }
    void itemMoved(ResourceID, const std::string&) override { ++moved; }
    void itemCopied(ResourceID, ResourceID) override { ++copied; }
    ResourceManager& resourceManager() override { return *_manager; }

private:
    ResourceManager* _manager;
    std::mutex _mutex;
    std::map<int32_t, int> _versions;
    std::set<int32_t> _broken;
    std::map<int32_t, int> _getsOf;
};

// Counts the gets that reach the link behind it (the decodes, in front of the source link).
class CountingLink : public ImageCache {
public:
    explicit CountingLink(ImageCache* next) : _next(next) {}
    std::atomic<int> gets{0};

    Thumbnail get(ResourceID id, int side) override {
        ++gets;
        return _next->get(id, side);
    }
    bool contains(ResourceID id, int side) override { return _next->contains(id, side); }
    void itemChanged(ResourceID id) override { _next->itemChanged(id); }
    void itemRemoved(ResourceID id, const std::string& p) override { _next->itemRemoved(id, p); }
    void itemMoved(ResourceID id, const std::string& p) override { _next->itemMoved(id, p); }
    void itemCopied(ResourceID s, ResourceID d) override { _next->itemCopied(s, d); }
    ResourceManager& resourceManager() override { return _next->resourceManager(); }

private:
    ImageCache* _next;
};

}  // namespace qor::imagecache::testing
