#pragma once
// LibraryJobManager: runs LibraryJobs one after another on its SynchronousCompositeJobDispatcher
// and tells the application about them through three signals.
//
// A job is in the manager's set from addJob until it is done: run() returned (or threw, or the
// job was dropped from the queue) for a job that is not detached, notifyDone for one that is; or
// until it is destructed. OnJobDone is emitted once per job, when it leaves the set by being done.
//
// Threads: OnJobAdded runs on the thread of addJob; OnJobUpdated on the job's thread (or addJob's,
// see below); OnJobDone on the dispatcher's thread, the detached work's thread (notifyDone) or the
// cancelling thread (a queued job dropped). Signals are emitted with no lock held.
//
// Order of the signals: OnJobAdded before OnJobDone for one job, even when the job ends before
// addJob has emitted OnJobAdded (its OnJobDone is then emitted by addJob, after OnJobAdded). The
// updates a job sends before OnJobAdded become one OnJobUpdated, emitted by addJob right after
// OnJobAdded: a slot sees the job's latest state, never an update of a job it was not told of,
// and no job that has sent an update ends without one reaching the slots. A job counts as left
// the set only after its OnJobDone slots returned, so cancelJob(wait), cancelAll(wait) and
// shutdown return after them; isInProcess and getScheduledJobs already leave out a job whose
// OnJobDone is being emitted.
//
// Locks: _mutex guards the set (one ordered list, which is also the scheduled list) and the
// shutting-down flag; _doneCondition is signalled whenever a job leaves the set. _mutex is a leaf:
// never held while calling a job, the dispatcher or a signal, nor while dropping a reference to a
// job (its destructor calls notifyJobDestructed).
//
// Waiting (cancelJob and cancelAll with wait, shutdown) is refused with a logged assertion on the
// dispatcher's thread, where it would wait for itself; a detached job's own work must not wait for
// its job either.

#include <thread>
#include <vector>

#include "base/thread/Mutex.h"
#include "base/thread/SynchronousCompositeJobDispatcher.h"
#include "mediadb/import/LibraryJob.h"
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

private:
    friend class LibraryJob;

    struct Entry {
        LibraryJob* job = nullptr;      // identity; the job may be in its destructor
        WeakSharedPtr<LibraryJob> ref;  // null once the job is in its destructor
        bool announced = false;         // OnJobAdded emitted
        bool done = false;              // done: OnJobDone emitted now or deferred
        bool doneDeferred = false;      // done before OnJobAdded: addJob emits OnJobDone
        bool updateDeferred = false;    // updated before OnJobAdded: addJob emits OnJobUpdated
        std::thread::id adder;          // the thread that emits OnJobAdded
    };

    // The dispatcher's finished callback.
    void onJobFinished(const SharedPtr<thread::CompositeJob>& job);
    // The job is done: emits OnJobDone once and takes the job out of the set.
    void jobDone(const SharedPtr<LibraryJob>& job);
    // Emits OnJobDone for a job marked done and takes it out of the set.
    void emitDoneAndRemove(const SharedPtr<LibraryJob>& job);
    // Called by LibraryJob::cancel on its first call.
    void cancelScheduled(const SharedPtr<LibraryJob>& job);
    // Blocks until the job has left the set. Refused on the dispatcher's thread (logged).
    void waitUntilGone(const WeakSharedPtr<LibraryJob>& job);
    Entry* find(const LibraryJob* job) QOR_REQUIRES(_mutex);
    // Erases the job's entry and clears the job's manager; true when it was there.
    bool remove(const LibraryJob* job) QOR_REQUIRES(_mutex);

    mutable thread::Mutex _mutex;
    thread::ConditionVariable _doneCondition;         // a job left the set
    std::vector<Entry> _jobs QOR_GUARDED_BY(_mutex);  // the set, in the order of addJob
    bool _shuttingDown QOR_GUARDED_BY(_mutex) = false;
    thread::SynchronousCompositeJobDispatcher _dispatcher{"qor-libjobs"};
};

}  // namespace qor::mediadb
