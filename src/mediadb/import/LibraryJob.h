#pragma once
// LibraryJob: a long piece of library work (an import, a sync) run by a LibraryJobManager on its
// dispatcher's thread, one library job at a time.
//
// Detached jobs. A job whose run() hands the rest of its work to another thread (a
// ResourceSequenceWorker) calls markAsDetached() before run() returns and keeps the SharedPtr it
// gives until that work has ended; it then calls notifyDone(job). The manager counts a detached
// job as done only then, so OnJobDone always follows the last of the job's work.
//
// Thread contract: every member may be called from any thread. The mutex guards subclasses'
// fields that the application reads while the job runs; it is a leaf.

#include <atomic>

#include "base/thread/CompositeJob.h"
#include "base/thread/Mutex.h"
#include "util/SharedPtr.h"

namespace qor::mediadb {

class LibraryJobManager;

class LibraryJob : public thread::CompositeJob {
public:
    // Tells the manager that the job has gone (notifyJobDestructed).
    ~LibraryJob() override;

    // Cancels the job once: the first call runs onCanceled() and has the manager cancel it (a
    // queued job is dropped, a running one sees its flag); with `wait` it blocks until the job is
    // done (OnJobDone emitted). Later calls do nothing (but `wait` still waits).
    void cancel(bool wait) override;
    void run() override = 0;
    // Emits the manager's OnJobUpdated with this job.
    virtual void notifyUpdated();
    // Called once by the first cancel, on the cancelling thread, before the manager is told. A
    // detached job stops its other work here.
    virtual void onCanceled() {}

    bool detached() const { return _detached.load(std::memory_order_acquire); }
    // True once the manager counts the job done (its OnJobDone is emitted or being emitted). A
    // detached job may be done while the dispatcher still runs its run(); being done, it is not
    // given in place of the same work asked again (workEnded), which then runs.
    bool isDone() const { return _done.load(std::memory_order_acquire); }
    bool workEnded() const override { return isDone(); }
    LibraryJobManager* manager() const { return _manager.load(std::memory_order_acquire); }

protected:
    LibraryJob() = default;

    // Marks the job detached (asserts that it was not) and gives the SharedPtr for the
    // continuation to keep.
    SharedPtr<LibraryJob> markAsDetached();
    SharedPtr<LibraryJob> sharedPtr() const { return _thisRef.lock(); }
    // Ends a detached job: the manager emits OnJobDone. Asserts that the job is detached and that
    // `job` is this job.
    void notifyDone(const SharedPtr<LibraryJob>& job);

    mutable thread::Mutex _mutex;  // guards subclass state the application reads; a leaf

private:
    friend class LibraryJobManager;

    std::atomic<LibraryJobManager*> _manager{nullptr};  // set by addJob
    WeakSharedPtr<LibraryJob> _thisRef;                 // set by addJob
    std::atomic<bool> _detached{false};
    std::atomic<bool> _done{false};  // set by the manager
    std::atomic<bool> _cancelRequested{false};
};

}  // namespace qor::mediadb
