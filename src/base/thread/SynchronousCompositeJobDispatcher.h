#pragma once
// SynchronousCompositeJobDispatcher: one thread that runs CompositeJobs one after the other, in
// the order they were added. A job equal to one that is queued or running (CompositeJob::
// isSameJob, asked both ways) is not queued a second time.
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
// jobs and the callback are called with it released.

#include <cstddef>
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
};

}  // namespace qor::thread
