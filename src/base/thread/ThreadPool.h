#pragma once
// A fixed set of worker threads that run posted tasks, higher priority first and, within one
// priority, in the order posted.
//
// Thread contract: every member may be called from any thread. One mutex guards the queue and the
// counters; tasks run with no lock held. A pool of zero workers runs each task inline inside post(),
// which makes tests deterministic. A task that throws is logged and the worker goes on.
// The destructor stops taking tasks, runs those still queued, and joins the workers.

#include <cstddef>
#include <cstdint>
#include <map>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/thread/Mutex.h"
#include "util/Function.h"

namespace qor::thread {

class ThreadPool {
public:
    using TaskId = std::uint64_t;

    explicit ThreadPool(unsigned workers, const char* name = "qor-pool");
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Queues fn; returns an id for cancel(). Never blocks on the task itself (unless the pool has no
    // workers, when fn runs before post returns).
    TaskId post(Function0<void> fn, int priority = 0);
    // Removes a task that has not started. True if it was removed, false if it started or is unknown.
    bool cancel(TaskId id);

    unsigned workerCount() const { return unsigned(_workers.size()); }
    // Tasks queued and not yet started.
    size_t pending() const;
    // Tasks running now.
    size_t running() const;
    // True when the calling thread is one of this pool's workers.
    bool isWorkerThread() const;
    // Blocks until nothing is queued or running.
    void waitIdle();

private:
    void workerLoop(unsigned index);
    static void runTask(Function0<void>& fn);

    using Key = std::pair<int, TaskId>;  // (-priority, id): highest priority, then oldest, first

    const char* _name;
    mutable Mutex _mutex;                            // guards everything below
    ConditionVariable _wake;                         // a task arrived or the pool stops
    ConditionVariable _idle;                         // nothing queued or running any more
    std::map<Key, Function0<void>> _queue;           // guarded by _mutex
    std::unordered_map<TaskId, int> _priorityOfTask;  // guarded by _mutex: queued ids only
    TaskId _nextId = 1;                              // guarded by _mutex
    size_t _running = 0;                             // guarded by _mutex
    bool _stopping = false;                          // guarded by _mutex
    std::vector<std::thread> _workers;
    std::vector<std::thread::id> _workerIds;  // written before any worker runs a task
};

// The process-wide pool for background work: as many workers as cores, at least two.
ThreadPool& defaultThreadPool();

}  // namespace qor::thread
