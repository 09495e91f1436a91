#pragma once
// DependentJobExecutor: runs a graph of DependentJobs on a JobDispatcher. A job starts only after
// all its dependencies finished; among the ready jobs the one with the lowest score starts first
// (the graph is scored once, before the run, so the order is fixed); precondition() sends each job
// inline (JtTrivial), to the GL thread (JtGLThread) or to a worker (JtWorker).
//
// How it runs: the executor keeps its own ready queue and starts at most as many runner tasks on
// the dispatcher's workers as the dispatcher has workers. A runner takes the best ready job, asks
// its precondition, and runs a worker or trivial job itself (a job that makes its dependent ready
// is thus often followed by it on the same thread); a GL job goes to the dispatcher's GL queue and
// runs inside processGLJobs(). A runner that has run a batch of jobs while other tasks wait on the
// workers queues itself again behind them, so concurrent graphs share the workers.
//
// Failure: a job fails when failed() says so after performComputation (by default: when it threw).
// Its dependents, and theirs, are not run (state JsSkipped) and are not reported. Other jobs run
// on.
//
// Memory: once a job of the run is done and so is every job of the run that depends on it, the
// executor calls its dropResults() (outside the lock, before process() returns), so that jobs
// which override it give up their results while a large graph still runs. Jobs that were not
// pending when process() started belong to another run and are left alone.
//
// The finish callback is called once for every job that ran, failed or not, on the thread that ran
// the job (a worker, the GL thread, or the thread that ran a trivial job), with no executor lock
// held. The job counts as running until its callback returned. If the callback throws, the executor
// cancels everything not yet started, waits for the running jobs and process() rethrows that
// exception, with its own type, on the caller's thread.
//
// Thread contract: one process() at a time per executor (a second concurrent call is a logged
// assertion and returns false); the executor can be reused after process() returned. cancel() and
// progress() are safe from any thread, including from inside a job or the finish callback. A job
// may not call process() on the executor that runs it. Calling process() from one of the
// dispatcher's own worker threads ties up that worker until the graph is done; don't, if the graph
// needs it.

#include <atomic>
#include <cstdint>
#include <exception>
#include <set>
#include <utility>
#include <vector>

#include "base/thread/DependentJob.h"
#include "base/thread/JobDispatcher.h"
#include "base/thread/JobScoreFunction.h"
#include "base/thread/Mutex.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::thread {

class DependentJobExecutor {
public:
    using FinishCallback = Function1<void, const SharedPtr<DependentJob>&>;

    // Runs jobs on defaultJobDispatcher().
    DependentJobExecutor();
    // Runs jobs on `dispatcher`, which must outlive the executor.
    explicit DependentJobExecutor(JobDispatcher& dispatcher);
    ~DependentJobExecutor();
    DependentJobExecutor(const DependentJobExecutor&) = delete;
    DependentJobExecutor& operator=(const DependentJobExecutor&) = delete;

    // Runs `jobs` and every pending job reachable from them through dependencies, in the order of
    // `score` (a DFSOrderScoreFunction when null), and blocks until each one finished, failed, was
    // skipped or was cancelled. Jobs that are not pending when process() starts are not run: a
    // finished one satisfies its dependents, any other makes them skipped. A dependency cycle is a
    // logged assertion; the jobs on it and behind it are skipped.
    // On the dispatcher's GL thread it runs GL jobs itself while it waits.
    // Returns true when every job ran without failure and nothing was skipped or cancelled.
    // Throws what the finish callback threw, and what `score` throws (before anything runs).
    bool process(const SharedPtr<JobScoreFunction>& score,
                 const std::set<SharedPtr<DependentJob>>& jobs,
                 const FinishCallback& finishCallback);

    // Cancels the running process(): jobs not yet started will not start (state JsCancelled),
    // running ones finish and are reported, then process() returns false. Does nothing when no
    // process() runs. Never blocks on jobs.
    void cancel();

    // The numbers of the current process(), or of the last one once it returned: `done` jobs ran
    // (including those that failed), `running` have started and not yet returned from the finish
    // callback, `total` are the pending jobs the run started with.
    void progress(unsigned int& done, unsigned int& running, unsigned int& total) const;

    JobDispatcher& dispatcher() const { return _dispatcher; }

private:
    enum NodeState : std::uint8_t {
        NsWaiting,   // dependencies not yet finished
        NsReady,     // in _ready
        NsClaimed,   // taken by a runner: precondition being asked, or running on that runner
        NsQueuedGL,  // in the dispatcher's GL queue
        NsRunning,   // running on the GL thread
        NsDone,      // finished, failed, skipped or cancelled, or not pending at the start
    };
    struct Node {
        SharedPtr<DependentJob> job;
        std::int64_t score = 0;
        std::uint32_t waitingOn = 0;
        std::uint32_t dependentsLeft = 0;  // dependents in this run that are not done yet
        NodeState state = NsWaiting;
        bool succeeded = false;  // for NsDone: may its dependents run?
        bool onStack = false;    // on the walk's stack while the graph is built
        JobDispatcher::Ticket glTicket;
    };
    using ReadyEntry = std::pair<std::int64_t, std::uint32_t>;  // (score, node index)

    // What running one job gave.
    struct Outcome {
        bool failed = false;
        std::exception_ptr callbackException;
    };

    // The graph of one run, built with no lock held.
    struct Graph {
        std::vector<Node> nodes;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> edges;  // (dependency, dependent)
        std::vector<bool> badDependency;  // a dependency failed or was cancelled earlier
        bool cyclic = false;              // the walk found an edge back into its own stack
    };
    // Walks the graph from `jobs` depth first, dependencies first, in set order, making a node per
    // job and giving each pending job its DFSOrderScoreFunction score on the way.
    static void buildGraph(const std::set<SharedPtr<DependentJob>>& jobs, Graph& graph);
    // The edges as a table: for each node, from start[i] to start[i + 1] in `entries`, its
    // dependents (byDependent false) or its dependencies (true).
    static void buildTable(const Graph& graph, bool byDependent, std::vector<std::uint32_t>& start,
                           std::vector<std::uint32_t>& entries);
    // The node of `job`, or -1.
    static std::int64_t findNode(const Graph& graph, const DependentJob* job);
    // Replaces the walk's scores by those of `score`, unless it is the plain DFS order.
    static void assignScores(const SharedPtr<JobScoreFunction>& score,
                             const std::set<SharedPtr<DependentJob>>& jobs, Graph& graph);
    // Skips the jobs that lie on or behind a dependency cycle.
    void skipCyclesUnlocked() QOR_REQUIRES(_mutex);

    // Node `i` is done: counts it off its dependencies and queues for dropResults() each node that
    // is done with all its dependents done, itself included.
    void noteDoneUnlocked(std::uint32_t i) QOR_REQUIRES(_mutex);
    // Calls dropResults() of the queued nodes with the lock released around the calls; `_dropping`
    // keeps the run from counting as over meanwhile.
    void dropQueuedUnlocked(ScopedLock<Mutex>& lock) QOR_REQUIRES(_mutex);
    static void dropResultsOf(const std::vector<SharedPtr<DependentJob>>& jobs);
    // Marks node `i` done with the job state `state` (JsSkipped or JsCancelled), never started.
    void markUnstarted(std::uint32_t i, JobState state) QOR_REQUIRES(_mutex);
    // Marks every waiting dependent of `i`, transitively, as skipped.
    void skipDependents(std::uint32_t i) QOR_REQUIRES(_mutex);
    void cancelUnlocked() QOR_REQUIRES(_mutex);
    // Cancels every node that has not started (part of cancelUnlocked).
    void cancelNodesUnlocked() QOR_REQUIRES(_mutex);
    // Records the end of node i's run and makes its dependents ready or skipped.
    void completeUnlocked(std::uint32_t i, const Outcome& outcome) QOR_REQUIRES(_mutex);
    void pushReadyUnlocked(std::uint32_t i) QOR_REQUIRES(_mutex);
    size_t readyCountUnlocked() const QOR_REQUIRES(_mutex);
    void clearReadyUnlocked() QOR_REQUIRES(_mutex);
    std::uint32_t popReadyUnlocked() QOR_REQUIRES(_mutex);
    // Reserves runner slots for the ready jobs; the caller posts that many runners after unlocking.
    // `selfIsRunner`: the calling runner will take one of the ready jobs itself.
    unsigned reserveRunnersUnlocked(bool selfIsRunner) QOR_REQUIRES(_mutex);
    void postRunners(unsigned count);
    bool overUnlocked() const QOR_REQUIRES(_mutex);
    void notifyIfOverUnlocked() QOR_REQUIRES(_mutex);

    void runnerLoop();
    void runGLJob(std::uint32_t i);
    // Asks precondition(); an exception makes the job fail (recorded on the job).
    static JobType askPrecondition(DependentJob& job, bool& threw);
    // Runs the job and the finish callback, with no lock held.
    static Outcome execute(const SharedPtr<DependentJob>& job, const FinishCallback* callback,
                           bool preconditionThrew);

    JobDispatcher& _dispatcher;
    const unsigned _maxRunners;

    mutable Mutex _mutex;                  // guards everything below but _cancelFlag
    ConditionVariable _over;               // the run is over
    bool _processing = false;              // guarded by _mutex
    bool _cancelRequested = false;         // guarded by _mutex
    std::atomic<bool> _cancelFlag{false};  // _cancelRequested, for a look without the lock
    bool _waiterOnGLThread = false;        // guarded by _mutex
    std::vector<Node> _nodes;              // guarded by _mutex
    // Node i's dependents are _dependents[_dependentsStart[i] .. _dependentsStart[i + 1]).
    std::vector<std::uint32_t> _dependentsStart;  // guarded by _mutex
    std::vector<std::uint32_t> _dependents;       // guarded by _mutex
    // Node i's dependencies in this run, likewise.
    std::vector<std::uint32_t> _dependenciesStart;  // guarded by _mutex
    std::vector<std::uint32_t> _dependencies;       // guarded by _mutex
    std::vector<std::uint32_t> _dropQueue;          // guarded by _mutex: done nodes to drop
    unsigned _dropping = 0;                         // guarded by _mutex: drops outside the lock
    // The ready jobs: those ready at the start sorted by score and taken from _initialNext on,
    // and those that became ready later in a heap, lowest score on top.
    std::vector<ReadyEntry> _initialReady;      // guarded by _mutex
    size_t _initialNext = 0;                    // guarded by _mutex
    std::vector<ReadyEntry> _ready;             // guarded by _mutex
    const FinishCallback* _callback = nullptr;  // guarded by _mutex: process()'s argument
    std::exception_ptr _callbackException;      // guarded by _mutex
    unsigned _total = 0;                        // guarded by _mutex
    unsigned _finished = 0;                     // guarded by _mutex
    unsigned _failed = 0;                       // guarded by _mutex
    unsigned _skipped = 0;                      // guarded by _mutex
    unsigned _cancelled = 0;                    // guarded by _mutex
    unsigned _running = 0;                      // guarded by _mutex
    unsigned _activeRunners = 0;                // guarded by _mutex
    unsigned _glQueued = 0;                     // guarded by _mutex
};

}  // namespace qor::thread
