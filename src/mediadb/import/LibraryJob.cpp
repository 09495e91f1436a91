#include "mediadb/import/LibraryJob.h"

#include <exception>

#include "base/Log.h"
#include "mediadb/import/LibraryJobManager.h"

namespace qor::mediadb {

LibraryJob::~LibraryJob() {
    // A job leaves its manager's set when it is done (which clears _manager); one that goes away
    // before that, never added or with its detached work dropped, is taken out here.
    if (LibraryJobManager* manager = _manager.load(std::memory_order_acquire))
        manager->notifyJobDestructed(this);
}

void LibraryJob::cancel(bool wait) {
    if (!_cancelRequested.exchange(true, std::memory_order_acq_rel)) {
        try {
            onCanceled();
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "LibraryJob: onCanceled failed: %*", e.what());
        } catch (...) {
            QOR_LOG(LogError, "LibraryJob: onCanceled failed with an unknown exception");
        }
        SharedPtr<LibraryJob> self = sharedPtr();
        LibraryJobManager* manager = this->manager();
        if (manager && self)
            manager->cancelScheduled(self);
        else
            setCancelled();
    }
    if (!wait) return;
    if (LibraryJobManager* manager = this->manager()) manager->waitUntilGone(_thisRef);
}

void LibraryJob::notifyUpdated() {
    LibraryJobManager* manager = this->manager();
    SharedPtr<LibraryJob> self = sharedPtr();
    if (manager && self) manager->notifyJobUpdated(self);
}

SharedPtr<LibraryJob> LibraryJob::markAsDetached() {
    const bool wasDetached = _detached.exchange(true, std::memory_order_acq_rel);
    QOR_ASSERT_TEXT(!wasDetached, "!_detached");
    return sharedPtr();
}

void LibraryJob::notifyDone(const SharedPtr<LibraryJob>& job) {
    if (!detached()) {
        QOR_ASSERT_TEXT(false, "detached()");
        return;
    }
    if (!job || job.get() != this) {
        QOR_ASSERT_TEXT(false, "WeakRef(job) == _thisRef");
        return;
    }
    if (LibraryJobManager* manager = this->manager()) manager->notifyJobDone(job);
}

}  // namespace qor::mediadb
