#include "mediadb/import/LibraryJobManager.h"

#include <algorithm>

#include "base/Log.h"

namespace qor::mediadb {

LibraryJobManager::LibraryJobManager() {
    _dispatcher.setFinishedCallback(
        [this](const SharedPtr<thread::CompositeJob>& job) { onJobFinished(job); });
}

LibraryJobManager::~LibraryJobManager() { shutdown(); }

LibraryJobManager::Entry* LibraryJobManager::find(const LibraryJob* job) {
    auto it =
        std::find_if(_jobs.begin(), _jobs.end(), [job](const Entry& e) { return e.job == job; });
    return it == _jobs.end() ? nullptr : &*it;
}

bool LibraryJobManager::remove(const LibraryJob* job) {
    auto it =
        std::find_if(_jobs.begin(), _jobs.end(), [job](const Entry& e) { return e.job == job; });
    if (it == _jobs.end()) return false;
    it->job->_manager.store(nullptr, std::memory_order_release);
    _jobs.erase(it);
    return true;
}

SharedPtr<LibraryJob> LibraryJobManager::addJob(const SharedPtr<LibraryJob>& job) {
    if (!job) {
        QOR_ASSERT_TEXT(false, "job != nullptr");
        return nullptr;
    }
    {
        ScopedLock lock(_mutex);
        if (_shuttingDown) {
            lock.unlock();
            QOR_LOG(LogWarning,
                    "LibraryJobManager: job not scheduled, the manager is shutting down");
            return job;
        }
        if (find(job.get())) return job;  // added twice: it is scheduled already
        LibraryJobManager* owner = job->manager();
        if (owner) {
            lock.unlock();
            QOR_ASSERT_TEXT(owner == this, "a job is scheduled by one manager");
            return job;
        }
        job->_manager.store(this, std::memory_order_release);
        job->_thisRef = job;
        Entry entry;
        entry.job = job.get();
        entry.ref = job;
        entry.adder = std::this_thread::get_id();
        _jobs.push_back(std::move(entry));
    }
    // An equal job may be queued or running already; the dispatcher answers with that one.
    SharedPtr<thread::CompositeJob> given = _dispatcher.addJob(job);
    if (given != job) {
        {
            ScopedLock lock(_mutex);
            remove(job.get());
            _doneCondition.notifyAll();
        }
        // Null: the dispatcher refused it (shut down, or the job ran before); it logged why.
        return given ? static_ptr_cast<LibraryJob>(given) : job;
    }
    OnJobAdded.emit(job);
    bool doneAlready = false, updatedAlready = false;
    {
        ScopedLock lock(_mutex);
        if (Entry* e = find(job.get())) {
            e->announced = true;
            doneAlready = e->doneDeferred;
            updatedAlready = e->updateDeferred;
        }
        _doneCondition.notifyAll();  // a waiter may have waited for the announcement
    }
    if (updatedAlready) OnJobUpdated.emit(job);
    if (doneAlready) emitDoneAndRemove(job);
    return job;
}

void LibraryJobManager::cancelJob(const WeakSharedPtr<LibraryJob>& job, bool wait) {
    if (SharedPtr<LibraryJob> strong = job.lock()) strong->cancel(wait);
}

void LibraryJobManager::cancelAll(bool wait) {
    std::vector<SharedPtr<LibraryJob>> jobs;
    std::vector<WeakSharedPtr<LibraryJob>> all;  // also those whose OnJobDone is being emitted
    {
        ScopedLock lock(_mutex);
        for (const Entry& e : _jobs) all.push_back(e.ref);
    }
    getScheduledJobs(jobs);
    // Newest first: the jobs waiting behind the running one leave the queue before it is told to
    // stop, so none of them starts in its place.
    for (auto job = jobs.rbegin(); job != jobs.rend(); ++job) (*job)->cancel(false);
    jobs.clear();  // no reference kept while waiting: a job may also leave by going away
    if (!wait) return;
    for (const auto& job : all) waitUntilGone(job);
}

void LibraryJobManager::getScheduledJobs(std::vector<SharedPtr<LibraryJob>>& jobs) const {
    jobs.clear();  // dropping the caller's references: before our lock
    ScopedLock lock(_mutex);
    jobs.reserve(_jobs.size());
    for (const Entry& e : _jobs) {
        if (e.done) continue;
        if (SharedPtr<LibraryJob> job = e.ref.lock()) jobs.push_back(std::move(job));
    }
}

bool LibraryJobManager::isInProcess() const {
    ScopedLock lock(_mutex);
    return std::any_of(_jobs.begin(), _jobs.end(), [](const Entry& e) { return !e.done; });
}

void LibraryJobManager::shutdown() {
    {
        ScopedLock lock(_mutex);
        _shuttingDown = true;
    }
    if (_dispatcher.isDispatcherThread()) {
        QOR_ASSERT_TEXT(false, "shutdown is not called on the dispatcher's thread");
        cancelAll(false);
        return;
    }
    // No job enters the set any more: waiting for those in it now is waiting for all.
    cancelAll(true);
    _dispatcher.shutdown();
}

void LibraryJobManager::notifyJobUpdated(const SharedPtr<LibraryJob>& job) {
    if (!job) return;
    {
        // A job may start before addJob has emitted OnJobAdded; its updates until then become
        // one, which addJob emits after OnJobAdded (the slots read the state as it is then).
        ScopedLock lock(_mutex);
        Entry* e = find(job.get());
        if (e && !e->announced) {
            e->updateDeferred = true;
            return;
        }
    }
    OnJobUpdated.emit(job);
}

void LibraryJobManager::notifyJobDone(const SharedPtr<LibraryJob>& job) {
    if (job) jobDone(job);
}

void LibraryJobManager::notifyJobDestructed(LibraryJob* job) {
    ScopedLock lock(_mutex);
    if (remove(job)) _doneCondition.notifyAll();
}

void LibraryJobManager::onJobFinished(const SharedPtr<thread::CompositeJob>& finished) {
    SharedPtr<LibraryJob> job = static_ptr_cast<LibraryJob>(finished);
    // A detached job whose run() returned goes on elsewhere and ends with notifyDone. One whose
    // run() threw counts as done now; a later notifyDone then finds it gone.
    if (job->detached() && job->status() == thread::CompositeJob::CjFinished) return;
    jobDone(job);
}

void LibraryJobManager::jobDone(const SharedPtr<LibraryJob>& job) {
    {
        ScopedLock lock(_mutex);
        Entry* e = find(job.get());
        if (!e || e->done) return;  // not ours, or done once already
        e->done = true;
        job->_done.store(true, std::memory_order_release);
        if (!e->announced) {
            e->doneDeferred = true;  // addJob emits OnJobDone after OnJobAdded
            return;
        }
    }
    emitDoneAndRemove(job);
}

void LibraryJobManager::emitDoneAndRemove(const SharedPtr<LibraryJob>& job) {
    OnJobDone.emit(job);
    ScopedLock lock(_mutex);
    remove(job.get());
    _doneCondition.notifyAll();
}

void LibraryJobManager::cancelScheduled(const SharedPtr<LibraryJob>& job) {
    _dispatcher.cancelJob(job);
}

void LibraryJobManager::waitUntilGone(const WeakSharedPtr<LibraryJob>& job) {
    if (_dispatcher.isDispatcherThread()) {
        QOR_ASSERT_TEXT(false, "no wait for a library job on the dispatcher's thread");
        return;
    }
    const std::thread::id me = std::this_thread::get_id();
    auto sameJob = [&](const Entry& e) {
        return !e.ref.owner_before(job) && !job.owner_before(e.ref);
    };
    ScopedLock lock(_mutex);
    for (;;) {
        // By owner, not address: a job gone and another made at its place is not waited for.
        auto it = std::find_if(_jobs.begin(), _jobs.end(), sameJob);
        if (it == _jobs.end()) return;
        Entry* e = &*it;
        if (!e->announced && e->adder == me) {
            // Asked from an OnJobAdded slot: the end is emitted by this thread after the slot.
            lock.unlock();
            QOR_ASSERT_TEXT(false, "no wait for a job from its OnJobAdded slot");
            return;
        }
        _doneCondition.wait(lock);
    }
}

}  // namespace qor::mediadb
