#pragma once
// CompositeJob: one long piece of application work (an import, a sync) that a
// SynchronousCompositeJobDispatcher runs on its thread, one job after another. A job tells what it
// is doing through a process state text ("Scanning", "Copying" ...) that any thread may read, and
// stops early when cancelled: run() polls isCancelled() between its steps.
//
// Life: made by the caller and shared (SharedPtr); handed to a dispatcher, which holds it until
// run() has returned or it was dropped from the queue. A job runs at most once.
//
// Thread contract: run() runs on the dispatcher's thread. cancel, isCancelled, processState,
// setProcessState, status and failure may be called from any thread at once; one mutex guards the
// state text and the failure text, the flags are atomics.

#include <atomic>
#include <string>

#include "base/thread/Mutex.h"
#include "util/SharedPtr.h"

namespace qor::thread {

class SynchronousCompositeJobDispatcher;

class CompositeJob {
public:
    enum Status : int {
        CjQueued = 0,     // handed to a dispatcher (or not yet), not started
        CjRunning = 1,    // run() is running
        CjFinished = 2,   // run() returned
        CjFailed = 3,     // run() threw; failure() holds the text
        CjCancelled = 4,  // dropped from the queue before it started
    };

    virtual ~CompositeJob() = default;
    CompositeJob(const CompositeJob&) = delete;
    CompositeJob& operator=(const CompositeJob&) = delete;

    // Asks the job to stop: sets the cancel flag (run() ends at its next check). `wait` means
    // nothing here; subclasses that know their dispatcher wait for the end. Never throws.
    virtual void cancel(bool wait);
    // The process state text; "" before the job set one.
    virtual std::string state() const { return processState(); }
    // The work. Runs on the dispatcher's thread; an exception ends the job as failed (its what()
    // becomes failure(), logged by the dispatcher).
    virtual void run() = 0;
    // Whether `other` does the same work, so that it need not be queued a second time. The
    // default: the same object.
    virtual bool isSameJob(const SharedPtr<CompositeJob>& other) const {
        return other.get() == this;
    }
    // Whether the job's work has ended though its run() may still be running (a job that hands its
    // work to another thread). The dispatcher never gives such a job in place of an equal one. The
    // default: false.
    virtual bool workEnded() const { return false; }

    bool isCancelled() const { return _cancelled.load(std::memory_order_acquire); }
    std::string processState() const;
    void setProcessState(const std::string& text);
    Status status() const { return _status.load(std::memory_order_acquire); }
    // What run() threw, "" when it did not (or has not ended).
    std::string failure() const;

protected:
    CompositeJob() = default;
    // Sets the cancel flag; true when this call set it (it was not set before).
    bool setCancelled() { return !_cancelled.exchange(true, std::memory_order_acq_rel); }

private:
    friend class SynchronousCompositeJobDispatcher;
    void setStatus(Status status) { _status.store(status, std::memory_order_release); }
    void setFailure(const std::string& text);

    std::atomic<bool> _cancelled{false};
    std::atomic<Status> _status{CjQueued};
    mutable Mutex _mutex;  // guards the two texts
    std::string _processState QOR_GUARDED_BY(_mutex);
    std::string _failure QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::thread
