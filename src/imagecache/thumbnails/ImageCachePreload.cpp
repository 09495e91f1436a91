#include "imagecache/thumbnails/ImageCachePreload.h"

#include <utility>

#include "base/Log.h"

namespace qor::imagecache {

ImageCachePreload::ImageCachePreload(ImageCache* cache, thread::ThreadPool* pool)
    : _cache(cache),
      _pool(pool ? pool : &thread::defaultThreadPool()),
      _state(std::make_shared<State>()) {}

ImageCachePreload::~ImageCachePreload() { cancel(); }

std::vector<thread::ThreadPool::TaskId> ImageCachePreload::dropQueued(State& state,
                                                                      const std::set<Key>* wanted) {
    std::vector<thread::ThreadPool::TaskId> tasks;
    for (const auto& [key, queued] : state.queued) {
        if (queued.task) tasks.push_back(queued.task);
        if (!wanted || !wanted->count(key)) ++state.progress.cancelled;
    }
    state.queued.clear();
    return tasks;
}

void ImageCachePreload::setList(const std::vector<Item>& items) {
    std::set<Key> wanted;
    for (const Item& item : items) wanted.insert(Key{item.id.id(), item.side});

    // Asked before the lock: a link's contains may look at the disk.
    std::vector<bool> held;
    held.reserve(items.size());
    for (const Item& item : items) held.push_back(_cache->contains(item.id, item.side));

    std::vector<std::pair<Item, uint64_t>> posts;
    std::vector<thread::ThreadPool::TaskId> dropped;
    {
        ScopedLock lock(_state->mutex);
        // A task taken off the list finds its token gone when it starts, should the pool's cancel
        // come too late.
        dropped = dropQueued(*_state, &wanted);
        _state->progress.total = wanted.size();
        _state->wanted = wanted;
        _state->progress.done = 0;
        std::set<Key> seen;
        for (size_t i = 0; i < items.size(); ++i) {
            const Item& item = items[i];
            Key key{item.id.id(), item.side};
            if (!seen.insert(key).second) continue;
            if (_state->running.count(key)) continue;  // counted when it ends
            if (held[i]) {
                ++_state->progress.done;
                continue;
            }
            uint64_t token = _state->nextToken++;
            _state->queued[key] = Queued{token, 0};
            posts.emplace_back(item, token);
        }
        if (_state->queued.empty() && _state->running.empty()) _state->idle.notifyAll();
    }
    for (thread::ThreadPool::TaskId task : dropped) _pool->cancel(task);

    // Below the pool's default priority, the first of the list highest.
    int priority = -1;
    for (auto& [item, token] : posts) {
        thread::ThreadPool::TaskId task =
            _pool->post([state = _state, cache = _cache, item = item,
                         token = token] { run(state, cache, item, token); },
                        priority--);
        ScopedLock lock(_state->mutex);
        auto it = _state->queued.find(Key{item.id.id(), item.side});
        if (it != _state->queued.end() && it->second.token == token) it->second.task = task;
    }
}

void ImageCachePreload::run(const std::shared_ptr<State>& state, ImageCache* cache, Item item,
                            uint64_t token) {
    const Key key{item.id.id(), item.side};
    {
        ScopedLock lock(state->mutex);
        auto it = state->queued.find(key);
        if (it == state->queued.end() || it->second.token != token) return;  // dropped
        state->queued.erase(it);
        state->running.insert(key);
    }
    try {
        cache->get(item.id, item.side);
    } catch (const std::exception& e) {
        QOR_LOG(LogWarning, "ImageCachePreload: preparing item %* failed: %*", item.id, e.what());
    }
    Function1<void, Progress> callback;
    Progress progress;
    {
        ScopedLock lock(state->mutex);
        state->running.erase(key);
        if (state->wanted.count(key)) ++state->progress.done;
        progress = state->progress;
        callback = state->callback;
        if (state->queued.empty() && state->running.empty()) state->idle.notifyAll();
    }
    if (callback) callback(progress);
}

void ImageCachePreload::cancel() {
    std::vector<thread::ThreadPool::TaskId> dropped;
    {
        ScopedLock lock(_state->mutex);
        dropped = dropQueued(*_state, nullptr);
        _state->wanted.clear();
        if (_state->running.empty()) _state->idle.notifyAll();
    }
    for (thread::ThreadPool::TaskId task : dropped) _pool->cancel(task);
    wait();
}

void ImageCachePreload::wait() {
    ScopedLock lock(_state->mutex);
    _state->idle.wait(lock, [&]() QOR_REQUIRES(_state->mutex) {
        return _state->queued.empty() && _state->running.empty();
    });
}

ImageCachePreload::Progress ImageCachePreload::progress() const {
    ScopedLock lock(_state->mutex);
    return _state->progress;
}

void ImageCachePreload::setProgressCallback(Function1<void, Progress> callback) {
    ScopedLock lock(_state->mutex);
    _state->callback = std::move(callback);
}

}  // namespace qor::imagecache
