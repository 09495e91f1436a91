#pragma once
// DispatchedJob: the handle of one function handed to a JobDispatcher with createJob().
// JobDispatcher::waitForJob() blocks until it ran; the handle then tells whether the function
// returned normally and keeps what it threw.
//
// Ownership: shared between the dispatcher's queue (until the function ran) and the callers.
// Thread contract: every member may be called from any thread.

#include <exception>

#include "base/thread/JobType.h"
#include "base/thread/Mutex.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::thread {

class JobDispatcher;

class DispatchedJob {
public:
    DispatchedJob(const DispatchedJob&) = delete;
    DispatchedJob& operator=(const DispatchedJob&) = delete;

    JobType target() const { return _target; }
    // True once the function has run, normally or by an exception.
    bool finished() const;
    // True once the function has returned normally.
    bool succeeded() const;
    // What the function threw, or null.
    std::exception_ptr exception() const;
    // Throws what the function threw, with its own type; does nothing otherwise.
    void rethrowIfFailed() const;

private:
    friend class JobDispatcher;

    DispatchedJob(Function0<void> body, JobType target);
    // Runs the body once, records the outcome and wakes the waiters. Logs an exception at level 4.
    void run(JobDispatcher& dispatcher);
    // Blocks until the job ran. Not for the GL thread when the job targets it.
    void wait() const;

    const JobType _target;
    Function0<void> _body;  // read and cleared by run() only
    mutable Mutex _mutex;   // guards _finished, _exception
    mutable ConditionVariable _ran;
    bool _finished = false;         // guarded by _mutex
    std::exception_ptr _exception;  // guarded by _mutex
};

}  // namespace qor::thread
