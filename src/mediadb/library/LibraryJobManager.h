#pragma once
// LibraryJobManager: runs LibraryJobs one after another on its SynchronousCompositeJobDispatcher
// and tells the application about them through three signals.
//
// A job is in the manager's set from addJob until it is done: run() returned (or threw, or the
// job was dropped from the queue) for a job that is not detached, notifyDone for one that is; or
// until it is destructed. OnJobDone is emitted once per job, when it leaves the set by being done.
//
// Threads: OnJobAdded runs on the thread of addJob; OnJobUpdated on the job's thread; OnJobDone on
// the dispatcher's thread, the detached work's thread (notifyDone) or the cancelling thread (a
// queued job dropped). Signals are emitted with no lock held.
//
// Locks: _mutex guards the set, the scheduled list and the shutting-down flag; _doneCondition is
// signalled whenever a job leaves the set. _mutex is a leaf: never held while calling a job, the
// dispatcher or a signal.

#include <set>
#include <vector>

#include "base/thread/Mutex.h"
#include "base/thread/SynchronousCompositeJobDispatcher.h"
#include "mediadb/library/LibraryJob.h"
#include "util/SharedPtr.h"
#include "util/Signal.h"

namespace qor::mediadb {

class LibraryJobManager {
public:
    LibraryJobManager();
    // shutdown().
    ~LibraryJobManager();
    LibraryJobManager(const LibraryJobManager&) = delete;
    LibraryJobManager& operator=(const LibraryJobManager&) = delete;

    Signal1<SharedPtr<LibraryJob>> OnJobAdded;
    Signal1<SharedPtr<LibraryJob>> OnJobUpdated;
    Signal1<SharedPtr<LibraryJob>> OnJobDone;

    // Schedules the job and gives it back; an equal job already scheduled is given instead (and
    // this one is not run). While shutting down the job is given back unscheduled (not run, no
    // signal).
    SharedPtr<LibraryJob> addJob(const SharedPtr<LibraryJob>& job);
    // Cancels the job when it still exists (see LibraryJob::cancel); with `wait` blocks until it
    // has left the set. Not to be called with wait on the dispatcher's thread.
    void cancelJob(const WeakSharedPtr<LibraryJob>& job, bool wait);
    void cancelAll(bool wait);
    // The jobs in the set, in the order they were added.
    void getScheduledJobs(std::vector<SharedPtr<LibraryJob>>& jobs) const;
    // True while the set is not empty.
    bool isInProcess() const;
    // Refuses new jobs, cancels all, waits for them and stops the dispatcher. Idempotent.
    void shutdown();

    // ---- Called by LibraryJob ----
    void notifyJobUpdated(const SharedPtr<LibraryJob>& job);
    void notifyJobDone(const SharedPtr<LibraryJob>& job);
    void notifyJobDestructed(LibraryJob* job);
};

}  // namespace qor::mediadb
