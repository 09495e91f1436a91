#pragma once
// SynchronousCompositeJobDispatcher: one thread that runs CompositeJobs one after the other, in
// the order they were added. A job equal to one that is queued or running (CompositeJob::
// isSameJob, asked both ways) is not queued a second time, unless the work of either has ended
// (CompositeJob::workEnded: a running job whose work went on elsewhere and is done).
//
// After each job (run() returned or threw, or the job was dropped from the queue by cancelJob,
// cancelAll or shutdown) the finished callback is called with it on the dispatcher's thread (for
// a job dropped by a caller: on the caller's thread), with no lock held, exactly once per job.
//
// Ownership: holds each queued or running job by SharedPtr until its finished callback returned.
// The destructor calls shutdown().
//
// Thread contract: every member may be called from any thread; waitIdle and shutdown not on the
// dispatcher's thread (logged assertion, no wait). One mutex guards the queue and the running job;
// run(), cancel() and the callback are called with it released. isSameJob and workEnded are the
// exception: addJob asks them with the mutex held, so that two equal jobs added at once are not
// both queued; they must not call the dispatcher (lock order: the dispatcher's mutex, then a job's
// own mutex).
//
// A job whose cancel flag is set when its turn comes is not run: it ends as CjCancelled, like a job
// dropped from the queue.

#include <atomic>
#include <cstddef>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "base/thread/CompositeJob.h"
#include "base/thread/Mutex.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::thread {

class SynchronousCompositeJobDispatcher {
public:
    using FinishedCallback = Function1<void, const SharedPtr<CompositeJob>&>;

    // Starts the thread, named `threadName`.
    explicit SynchronousCompositeJobDispatcher(const char* threadName = "qor-jobs");
    ~SynchronousCompositeJobDispatcher();
    SynchronousCompositeJobDispatcher(const SynchronousCompositeJobDispatcher&) = delete;
    SynchronousCompositeJobDispatcher& operator=(const SynchronousCompositeJobDispatcher&) = delete;

    // Set before the first job is added.
    void setFinishedCallback(FinishedCallback callback);

    // Queues the job and gives it back; when an equal job is queued or running, gives that one and
    // queues nothing. After shutdown gives null (one log line).
    SharedPtr<CompositeJob> addJob(const SharedPtr<CompositeJob>& job);
    // Sets the job's cancel flag; a job still queued leaves the queue (status CjCancelled) and
    // its finished callback runs on this thread. Does not block on a running job.
    void cancelJob(const SharedPtr<CompositeJob>& job);
    void cancelAll();
    // Blocks until no job is queued or running.
    void waitIdle();
    // Cancels every job, waits for the running one and ends the thread; later additions are
    // refused. Idempotent.
    void shutdown();

    // Jobs queued or running.
    size_t jobCount() const;
    bool isDispatcherThread() const;

private:
    void loop();
    // Runs one job's run() on the dispatcher's thread; catches and logs what it throws.
    void runJob(CompositeJob& job);
    // Calls the finished callback for a job that has ended, with no lock held.
    void finish(const SharedPtr<CompositeJob>& job);
    // Takes the queued jobs out of the queue as cancelled, counting them as finishing.
    void dropQueued(std::vector<SharedPtr<CompositeJob>>& dropped) QOR_REQUIRES(_mutex);
    // Runs the callbacks of jobs a caller dropped, on the caller's thread.
    void finishDropped(const std::vector<SharedPtr<CompositeJob>>& dropped);
    bool idle() const QOR_REQUIRES(_mutex);

    const std::string _name;
    mutable Mutex _mutex;              // guards everything below except _threadId and _thread
    ConditionVariable _wakeCondition;  // a job was queued, or stopping
    ConditionVariable _idleCondition;  // a job left the dispatcher
    FinishedCallback _callback QOR_GUARDED_BY(_mutex);
    std::deque<SharedPtr<CompositeJob>> _queue QOR_GUARDED_BY(_mutex);
    SharedPtr<CompositeJob> _running QOR_GUARDED_BY(_mutex);  // whose run() runs now
    size_t _finishing QOR_GUARDED_BY(_mutex) = 0;  // jobs whose finished callback runs now
    bool _stopping QOR_GUARDED_BY(_mutex) = false;
    bool _joined QOR_GUARDED_BY(_mutex) = false;
    std::atomic<std::thread::id> _threadId{};
    std::thread _thread;  // started in the constructor, joined by shutdown
};

}  // namespace qor::thread
