#pragma once
// ImageCachePreload: prepares a list of thumbnails in the background (the next screens of a grid)
// by asking the front of a chain for each, so that they are in memory and on disk when shown. The
// first of the list goes first.
//
// setList replaces the list: what is queued and no longer wanted is cancelled, what is still
// wanted is queued again in its new order, what is being made goes on to its end (a decode cannot
// be stopped half-way). Items the front already holds are counted as done at once.
//
// Jobs: each item is one task on a ThreadPool (the process-wide one unless another is given), at
// a priority below the pool's default (0) work so that preloading never delays what is shown now,
// and falling with the position in the list. The pool and not a TaskGroup: a group cancels all of
// its tasks at once, while a new list cancels some and keeps others; the pool's per-task cancel
// and priorities are what that needs.
//
// Ownership: the cache and the pool are not owned and must outlive this object; the bookkeeping
// is shared with the queued tasks, so a task the pool starts after cancel() does nothing.
//
// Thread contract: every member may be called from any thread, except that cancel(), wait() and
// the destructor must not run on one of the pool's tasks (they wait for them). State::mutex
// guards the bookkeeping; it is never held while the pool is called or a thumbnail made. The
// progress callback runs on the pool's threads, with no lock held.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "base/thread/Mutex.h"
#include "base/thread/ThreadPool.h"
#include "imagecache/thumbnails/ImageCache.h"
#include "imagecache/thumbnails/ThumbnailKey.h"
#include "util/Function.h"

namespace qor::imagecache {

class ImageCachePreload {
public:
    struct Item {
        ResourceID id;
        int side = 0;
    };
    struct Progress {
        size_t total = 0;      // items of the present list
        size_t done = 0;       // of those, made or found held
        size_t cancelled = 0;  // items dropped from a list before they were made, since creation
    };

    explicit ImageCachePreload(ImageCache* cache, thread::ThreadPool* pool = nullptr);
    // Cancels and waits for the running work.
    ~ImageCachePreload();
    ImageCachePreload(const ImageCachePreload&) = delete;
    ImageCachePreload& operator=(const ImageCachePreload&) = delete;

    // Replaces the list. Does not block on the work (with a pool of no workers the whole list is
    // made before it returns).
    void setList(const std::vector<Item>& items);
    // Drops every queued item and waits for those being made.
    void cancel();
    // Blocks until the present list is done or cancelled.
    void wait();
    Progress progress() const;
    // Called with the progress after each item is done.
    void setProgressCallback(Function1<void, Progress> callback);

private:
    using Key = ThumbnailKey;
    struct Queued {
        uint64_t token = 0;
        thread::ThreadPool::TaskId task = 0;  // 0 until post() has returned
    };
    struct State {
        Mutex mutex;             // guards the fields marked below
        ConditionVariable idle;  // nothing queued or running any more
        std::map<Key, Queued> queued QOR_GUARDED_BY(mutex);
        uint64_t nextToken QOR_GUARDED_BY(mutex) = 1;
        std::set<Key> running QOR_GUARDED_BY(mutex);  // items being made
        std::set<Key> wanted QOR_GUARDED_BY(mutex);   // the present list
        Progress progress QOR_GUARDED_BY(mutex);
        Function1<void, Progress> callback QOR_GUARDED_BY(mutex);
    };

    static void run(const std::shared_ptr<State>& state, ImageCache* cache, Item item,
                    uint64_t token);
    // Takes every queued item off the list and gives back their pool tasks to cancel; those not
    // in `wanted` (all when it is null) count as cancelled.
    static std::vector<thread::ThreadPool::TaskId> dropQueued(State& state,
                                                              const std::set<Key>* wanted)
        QOR_REQUIRES(state.mutex);

    ImageCache* const _cache;         // not owned
    thread::ThreadPool* const _pool;  // not owned
    std::shared_ptr<State> _state;
};

}  // namespace qor::imagecache
