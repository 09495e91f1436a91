#pragma once
// DependentJob: one unit of work in a graph of jobs that DependentJobExecutor runs once all of a
// job's dependencies have finished.
//
// Ownership: jobs are shared through SharedPtr; a job holds its dependencies strongly, so the roots
// of a graph keep the whole graph alive. Edges point from a job to what it depends on.
//
// Thread contract: a graph is built on one thread (constructors, addDependency, setCreatorName)
// before it is handed to an executor, and its dependencies are not changed while a process() runs
// it. id(), label(), state() and the predicates on the state may be read from any thread at any
// time; creatorName() and setCreatorName() are safe from any thread. performComputation() is called
// at most once, by the executor, with no executor lock held, on the thread that its precondition()
// asks for. A job belongs to at most one running process() at a time.

#include <atomic>
#include <cstdint>
#include <exception>
#include <set>

#include "base/thread/JobType.h"
#include "base/thread/Mutex.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::thread {

class DependentJobExecutor;

// The life of a job. Only JsPending counts as pending: not yet started or finished.
enum JobState : int {
    JsPending = 0,    // not started
    JsRunning = 1,    // performComputation is running
    JsFinished = 2,   // ran, and failed() says it succeeded
    JsFailed = 3,     // ran, and failed() says it failed (by default: performComputation threw)
    JsCancelled = 4,  // never started: its executor was cancelled
    JsSkipped = 5,    // never started: a dependency failed, was cancelled or was skipped
};

// "pending", "running", "finished", "failed", "cancelled", "skipped". For logs.
const char* jobStateName(JobState state);

class DependentJob {
public:
    using JobId = std::uint64_t;

    virtual ~DependentJob();

    // The identity by which DependentJobMerger merges jobs: 0 means "the same work", otherwise a
    // consistent order (negative when this job sorts first).
    virtual int compare(const DependentJob& other) const = 0;
    // A new copy made with the copy constructor (new id, pending, no dependencies).
    virtual DependentJob* dup() const = 0;
    // Where the job must run. Called once per run, after every dependency has finished and before
    // performComputation, on a worker thread or the thread that found the job ready; never under an
    // executor lock. May throw: the job then counts as failed.
    virtual JobType precondition() = 0;
    // Bytes the job's result holds; 0 by default.
    virtual unsigned int memoryConsumption() const;
    // A description for logs; by default "<label> (jobId:<id>)".
    virtual FastString<char> toString() const;
    // The work. An exception that leaves it is recorded (exception()) and makes the job fail.
    virtual void performComputation() = 0;
    // True when the job failed, so the executor must not run its dependents. By default: when
    // performComputation threw. Jobs that catch their own failures and record them override this.
    // Read by the executor right after performComputation returned, on the same thread.
    virtual bool failed() const;
    // Called by the executor once this job is done (ran, failed, was skipped or cancelled) and so
    // is every job of the same run that depends on it, and the finish callback of this job has
    // returned: no job of the run reads its results any more. A job whose results nobody reads
    // after that drops them here, and its dependency links, so that a large graph does not hold
    // the results of every job until the run ends. Called at most once per run, before process()
    // returns, with no executor lock held, on the thread that finished the last of those jobs (or
    // the one that waits in process()). Exceptions are logged and ignored. By default the job
    // keeps everything, for callers that read results after process().
    virtual void dropResults();

    // Unique in the process, counting up from 1; a copy gets a new one.
    JobId id() const { return _id; }
    // The short class label given by the derived constructor ("TComp", "Term" ...).
    const FastString<char>& label() const { return _label; }

    // Who built the job, for logs. Thread-safe.
    void setCreatorName(FastString<char> name);
    FastString<char> creatorName() const;

    // Adds an edge from this job to `dependency`: this job runs only after it finished. A null
    // dependency or the job itself is a logged assertion and is ignored. Not while a process() runs
    // the job.
    void addDependency(const SharedPtr<DependentJob>& dependency);
    const std::set<SharedPtr<DependentJob>>& dependencies() const { return _dependencies; }
    // Drops every dependency (to break up a graph). Not while a process() runs the job, except
    // from dropResults(), when no job of the run looks at the links any more.
    void clearDependencies() { _dependencies.clear(); }

    JobState state() const { return _state.load(std::memory_order_acquire); }
    bool isPending() const { return state() == JsPending; }
    bool isRunning() const { return state() == JsRunning; }
    bool isFinished() const { return state() == JsFinished; }
    bool isFailed() const { return state() == JsFailed; }
    bool isCancelled() const { return state() == JsCancelled; }
    bool isSkipped() const { return state() == JsSkipped; }
    // Finished, failed, cancelled or skipped: the job will not run (again).
    bool isDone() const { return state() >= JsFinished; }

    // What performComputation (or precondition) threw, or null. Thread-safe.
    std::exception_ptr exception() const;

protected:
    explicit DependentJob(FastString<char> label);
    // Copies label and creator name. The copy gets a new id, starts pending, has no recorded
    // exception and no dependencies: it is the same work, not the same node of a graph.
    DependentJob(const DependentJob& other);
    DependentJob& operator=(const DependentJob&) = delete;

private:
    friend class DependentJobExecutor;

    void setState(JobState state) { _state.store(state, std::memory_order_release); }
    // Moves from JsPending to `state`; false if the job was not pending.
    bool leavePending(JobState state);
    void setException(std::exception_ptr e);

    const JobId _id;
    const FastString<char> _label;
    std::set<SharedPtr<DependentJob>> _dependencies;  // changed only while the graph is built
    std::atomic<JobState> _state{JsPending};
    std::atomic<bool> _threw{false};  // an exception was recorded
    // The job's node in the graph of the process() that runs it: a hint that the executor checks
    // against its own table, so it needs no map from jobs to nodes.
    std::atomic<std::uint32_t> _executorSlot{~std::uint32_t(0)};
    mutable Mutex _mutex;           // guards _creatorName, _exception
    FastString<char> _creatorName;  // guarded by _mutex
    std::exception_ptr _exception;  // guarded by _mutex
};

}  // namespace qor::thread
