#pragma once
// JobDispatcher: the threads that jobs run on. It owns a pool of worker threads (separate from
// defaultThreadPool(), whose tasks may block in DependentJobExecutor::process while jobs run here)
// and a queue of jobs that must run on the GL thread.
//
// The GL thread is one thread chosen by the application: setGLThread() names it; if none was named,
// the first caller of processGLJobs() becomes it. GL jobs run nowhere but inside processGLJobs() on
// that thread, so a GL thread that waits for jobs must keep pumping: the dispatcher emits
// onGLJobsAvailable() whenever a GL job is queued, and pumpGLJobsUntil() is the ready-made loop.
//
// Thread contract: every member may be called from any thread unless it says otherwise. One mutex
// guards the GL queue; jobs and signal slots run with no dispatcher lock held. The destructor runs
// the worker jobs still queued and joins the workers; GL jobs still queued then are dropped with a
// logged assertion.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <unordered_map>
#include <utility>

#include "base/thread/DispatchedJob.h"
#include "base/thread/JobType.h"
#include "base/thread/Mutex.h"
#include "base/thread/ThreadId.h"
#include "base/thread/ThreadPool.h"
#include "util/Function.h"
#include "util/SharedPtr.h"
#include "util/Signal.h"

namespace qor::thread {

class JobDispatcher {
public:
    // Names a dispatched function so it can be withdrawn before it starts.
    struct Ticket {
        JobType type = JtTrivial;
        std::uint64_t id = 0;  // 0: nothing to withdraw (trivial functions run at once)
    };

    // `workers` worker threads; with 0, worker functions run inline in dispatch() on the calling
    // thread (deterministic, for tests).
    explicit JobDispatcher(unsigned workers, const char* name = "qor-jobs");
    ~JobDispatcher();
    JobDispatcher(const JobDispatcher&) = delete;
    JobDispatcher& operator=(const JobDispatcher&) = delete;

    unsigned workerCount() const { return _pool->workerCount(); }
    // True on one of this dispatcher's worker threads.
    bool isWorkerThread() const { return _pool->isWorkerThread(); }
    // Worker functions queued and not yet started.
    size_t queuedWorkerJobs() const { return _pool->pending(); }

    // Hands `fn` to where `type` says: JtTrivial runs it now on the calling thread, JtGLThread
    // queues it for processGLJobs() and emits onGLJobsAvailable(), JtWorker queues it for the
    // workers. Higher priority first, first in first out within one priority. An invalid type is a
    // logged assertion and goes to the workers. Never blocks on fn (except for JtTrivial and 0
    // workers). Exceptions that fn throws are logged and swallowed.
    Ticket dispatch(Function0<void> fn, JobType type, int priority = 0);
    // Withdraws a dispatched function that has not started. True if it was withdrawn (it will never
    // run); false if it started, ran, or is unknown.
    bool cancelDispatched(const Ticket& ticket);

    // Makes the calling thread the GL thread (replacing an earlier one, which is logged).
    void setGLThread();
    // True on the GL thread.
    bool isGLThread() const { return _glThread.load(std::memory_order_acquire) == getThreadId(); }
    bool hasGLThread() const {
        return _glThread.load(std::memory_order_acquire) != InvalidThreadId;
    }

    // GL thread only: runs the queued GL jobs, and those queued while they run, until the queue is
    // empty; returns how many ran. On another thread it logs the assertion "isGLThread()" and runs
    // nothing. May be called from inside a GL job.
    unsigned processGLJobs();
    // GL jobs queued and not yet started.
    size_t pendingGLJobs() const;
    // Emitted on the queuing thread, with no lock held, each time a GL job is queued.
    Signal0& onGLJobsAvailable() { return _onGLJobsAvailable; }

    // GL thread only: runs GL jobs until done() holds, sleeping while there are none. done() is
    // called with no dispatcher lock held; whoever makes it true from another thread must call
    // wakeGLThread() afterwards. On another thread it logs "isGLThread()" and returns at once.
    void pumpGLJobsUntil(const Function0<bool>& done);
    // Wakes a GL thread sleeping in pumpGLJobsUntil() so it looks at its condition again.
    void wakeGLThread();

    // Hands `body` to `target` at once and returns its handle.
    SharedPtr<DispatchedJob> createJob(Function0<void> body, JobType target);
    // Blocks until the job ran; on the GL thread it runs GL jobs meanwhile (so waiting there for a
    // GL job runs it). True when the body returned normally, false after an exception (logged, and
    // kept on the handle) or for a null handle (logged assertion). Waiting on another thread for a
    // GL job blocks until the GL thread pumps.
    bool waitForJob(const SharedPtr<DispatchedJob>& job);

private:
    using GLKey = std::pair<int, std::uint64_t>;  // (-priority, id)

    static void runGuarded(Function0<void>& fn);

    std::atomic<ThreadId> _glThread{InvalidThreadId};
    mutable Mutex _glMutex;                              // guards everything down to _glWakes
    ConditionVariable _glWake;                           // a GL job was queued or wakeGLThread()
    std::map<GLKey, Function0<void>> _glQueue;           // guarded by _glMutex
    std::unordered_map<std::uint64_t, int> _glPriority;  // guarded by _glMutex: queued ids only
    std::uint64_t _nextGLId = 1;                         // guarded by _glMutex
    std::uint64_t _glWakes = 0;                          // guarded by _glMutex: wake-ups so far
    Signal0 _onGLJobsAvailable;
    ScopedPtr<ThreadPool> _pool;  // last: its workers may dispatch GL jobs while it shuts down
};

// The process-wide dispatcher: as many workers as cores, at least two.
JobDispatcher& defaultJobDispatcher();

}  // namespace qor::thread
