#pragma once
// Runs tasks one at a time, never overlapping, on a thread pool.
//
// Among queued tasks the one of highest priority runs first, and tasks of equal priority run in
// the order added. At most one "runner" is posted to the pool at any time; it runs one task and,
// when more are queued, posts the next runner, so that other work on the pool gets its turn in
// between. A runner is posted at the priority of the best task queued at that moment. With a pool
// of zero workers the tasks run inside the addTask() that finds the sequentializer idle.
//
// Ownership: the sequentializer does not own the pool, which must outlive it. Its queue lives in a
// shared block that the runners hold. The destructor drops queued tasks and waits for the running
// one.
//
// Thread contract: every member may be called from any thread; a task may call addTask() on its
// own sequentializer. One mutex guards the queue; tasks run with no lock held. A task that throws
// is logged and the next one runs.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "base/thread/Mutex.h"
#include "base/thread/ThreadPool.h"
#include "util/Function.h"

namespace qor::thread {

class Sequentializer {
public:
    explicit Sequentializer(ThreadPool* pool = nullptr);
    ~Sequentializer();
    Sequentializer(const Sequentializer&) = delete;
    Sequentializer& operator=(const Sequentializer&) = delete;

    // Queues fn; it runs after every task that is running or queued with a priority at least as
    // high. Does not block, unless the pool has no workers and nothing runs: then the queue is
    // worked off before addTask returns.
    void addTask(const Function0<void>& fn, int priority = 0);
    // Blocks until nothing is queued or running. Called from one of its own tasks it would wait
    // for itself: it logs an assertion and returns at once.
    void wait();
    // Tasks queued or running.
    size_t pending() const;
    // Drops the queued tasks that have not started; returns how many. The running one goes on.
    size_t clear();

private:
    struct State {
        explicit State(ThreadPool* p) : pool(p) {}
        ThreadPool* pool;
        Mutex mutex;                  // guards the fields marked below
        ConditionVariable idle;       // no runner posted any more
        // (-priority, sequence): best priority, then oldest, first
        std::map<std::pair<int, std::uint64_t>, Function0<void>> queue QOR_GUARDED_BY(mutex);
        std::uint64_t nextSequence QOR_GUARDED_BY(mutex) = 0;
        // a runner is queued on the pool or runs there
        bool runnerPosted QOR_GUARDED_BY(mutex) = false;
        bool running QOR_GUARDED_BY(mutex) = false;  // a task runs now
    };

    static void postRunner(const std::shared_ptr<State>& state, int priority);
    static void runner(const std::shared_ptr<State>& state);

    std::shared_ptr<State> _state;
};

}  // namespace qor::thread
