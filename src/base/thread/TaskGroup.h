#pragma once
// A set of tasks on a thread pool that can be cancelled and waited for together.
//
// The group posts each task to its pool (defaultThreadPool() unless another is given; a pool of
// zero workers runs each task inside post()). cancel() drops the group's tasks that have not
// started, raises a flag that running tasks may poll through isCancelled(), and refuses further
// posts until reset(). wait() blocks until no task of the group is queued or running.
//
// Ownership: the group does not own the pool, which must outlive it. The bookkeeping lives in a
// shared block that the posted tasks hold, so a task that the pool runs after the group has gone
// finds itself cancelled and does nothing.
//
// Thread contract: every member may be called from any thread, tasks included (but see wait()).
// One mutex guards the bookkeeping; tasks run with no lock held. The destructor cancels and waits.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "base/thread/Mutex.h"
#include "base/thread/ThreadPool.h"
#include "util/Function.h"

namespace qor::thread {

class TaskGroup {
public:
    explicit TaskGroup(ThreadPool* pool = nullptr, const char* name = "TaskGroup");
    ~TaskGroup();
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;

    // Queues fn on the pool at `priority` (higher first). After cancel() and before reset() the
    // task is refused: one line is logged and false returned. Does not block, unless the pool has
    // no workers, when fn runs before post returns. An exception from fn is logged and swallowed.
    bool post(Function0<void> fn, int priority = 0);
    // Drops the group's tasks that have not started, raises the cancelled flag and refuses later
    // posts. Running tasks go on until they end or notice isCancelled(). Does not block.
    void cancel();
    // True between cancel() and reset(). Lock-free: long tasks poll it.
    bool isCancelled() const;
    // Accepts posts again. Tasks dropped by cancel() stay dropped.
    void reset();
    // Blocks until every task of the group that started has ended and none is queued. Called from
    // a task of this group it would wait for itself: it logs an assertion and returns at once.
    void wait();
    // Tasks of the group queued or running.
    size_t pending() const;

    ThreadPool& pool() const { return *_pool; }

private:
    using Token = std::uint64_t;

    struct State {
        Mutex mutex;                        // guards the fields marked below
        ConditionVariable idle;             // nothing queued or running any more
        // queued tasks: token -> pool task id, 0 while the pool's post() has not returned yet
        std::unordered_map<Token, ThreadPool::TaskId> queued QOR_GUARDED_BY(mutex);
        Token nextToken QOR_GUARDED_BY(mutex) = 1;
        size_t running QOR_GUARDED_BY(mutex) = 0;
        std::atomic<bool> cancelled{false};
    };

    static void runTask(const std::shared_ptr<State>& state, Token token, Function0<void>& fn);

    ThreadPool* _pool;
    const char* _name;
    std::shared_ptr<State> _state;
};

}  // namespace qor::thread
