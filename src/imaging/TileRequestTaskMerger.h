#pragma once
// TileRequestTaskMerger: the asynchronous tile requests of one source. A request becomes a Task,
// and an identical request (same source, tiles and version) that arrives while the first still
// waits joins that task with a handle of its own. Tasks of one source run one after the other on
// a Sequentializer; each builds the job graph of its tiles, runs it in the order of its score
// function and delivers every finished tile to every handle, then one end record. A handle can be
// cancelled on its own; the jobs stop when the last handle of a task is gone.
//
// Ownership: the source owns its merger; the merger owns its tasks while they wait or run; a task
// owns its handles strongly until it ends, a handle holds its task weakly.
// Thread contract: every public member may be called from any thread. The merger's _mutex guards
// the two task sets; a task's _mutex guards its flags and handle sets. Neither is held while jobs
// run or callbacks are called, so a callback may cancel any handle, its own included. Lock order:
// a task's mutex is never held while the merger's is taken, and the other way round.

#include <atomic>
#include <set>
#include <vector>

#include "base/thread/DependentJobExecutor.h"
#include "base/thread/JobScoreFunction.h"
#include "base/thread/Mutex.h"
#include "base/thread/Sequentializer.h"
#include "imaging/ComputedTileInfo.h"
#include "math/GenVec.h"
#include "util/Function.h"
#include "util/SharedPtr.h"
#include "util/ThreadAnnotations.h"

namespace qor::imaging {

class ImageSource;
class ImageTile;

class TileRequestTaskMerger {
public:
    using TileSet = std::set<GenVec<int, 2>>;
    using TileCallback = Function1<void, const ComputedTileInfo&>;
    using ProgressCallback = Function1<void, double>;

    class Task;

    class Handle : public RequestHandle {
    public:
        static SharedPtr<Handle> create(const SharedPtr<Task>& task,
                                        const TileCallback& tileCallback,
                                        const ProgressCallback& progress);
        bool finished() const override;
        void cancel() override;
        bool cancelled() const override;
        SharedPtr<ImageSource> source() const override;
        // True while the task lives and asks for exactly these tiles of this source and version.
        bool isSameRequest(const SharedPtr<ImageSource>& source, const TileSet& tiles,
                           unsigned int version) const;

        const TileCallback& tileCallback() const { return _tileCallback; }
        const ProgressCallback& progressCallback() const { return _progressCallback; }
        SharedPtr<Handle> selfRef() const { return _selfRef.lock(); }

    private:
        Handle(const SharedPtr<Task>& task, const TileCallback& tileCallback,
               const ProgressCallback& progress);

        WeakSharedPtr<Task> _task;
        TileCallback _tileCallback;
        ProgressCallback _progressCallback;
        WeakSharedPtr<Handle> _selfRef;
        std::atomic<bool> _cancelled{false};
    };

    class Task {
    public:
        Task(const SharedPtr<ImageSource>& source, const TileSet& tiles, unsigned int version,
             const SharedPtr<thread::JobScoreFunction>& score);

        // Runs the request to its end on the calling thread (the merger's sequentializer).
        void run(const SharedPtr<TileRequestTaskMerger>& merger, const SharedPtr<Task>& self);
        // Withdraws one handle; see RequestHandle::cancel.
        void cancel(const SharedPtr<Handle>& handle);
        // Withdraws every handle (termination).
        void cancelAll();
        void addHandle(const SharedPtr<Handle>& handle);
        // Adds the handle of a merged request, unless every caller has cancelled the task or it
        // has finished; false then, and the request needs a task of its own.
        bool join(const SharedPtr<Handle>& handle);

        const SharedPtr<ImageSource>& source() const { return _source; }
        const TileSet& tiles() const { return _tiles; }
        unsigned int version() const { return _version; }
        bool finished() const;
        bool cancelled() const;
        // Set by terminateAllTasks under the merger's mutex, before the task leaves its sets.
        void markTerminated() { _terminated.store(true, std::memory_order_release); }
        bool terminated() const { return _terminated.load(std::memory_order_acquire); }

    private:
        using HandleSet = std::set<SharedPtr<Handle>>;

        void reportOutdated();
        // The job-finished step: hands the tiles of a final job to the handles.
        void jobFinished(const SharedPtr<thread::DependentJob>& job,
                         const std::set<SharedPtr<thread::DependentJob>>& finalJobs);
        // Calls every wanted handle with each record, the lock open around each callback.
        void deliver(const std::vector<ComputedTileInfo>& records, double progress,
                     bool withProgress);
        // Adds to `records` the tiles of `working` whose getters give a tile no job delivered.
        void collectJoblessTiles(const std::vector<GenVec<int, 2>>& working,
                                 const std::vector<Function0<SharedPtr<const ImageTile>>>& getters,
                                 std::vector<ComputedTileInfo>& records);
        // Takes the cancellations that arrived during deliveries out of the handle sets.
        void takeDeferredCancelsUnlocked(std::vector<SharedPtr<Handle>>& removed, bool* stopJobs)
            QOR_REQUIRES(_mutex);
        // Stops the jobs if asked and sends each removed handle its cancelled record; no lock.
        void finishCancels(const std::vector<SharedPtr<Handle>>& removed, bool stopJobs);
        // Ends one delivery; the last one running carries out the deferred cancellations.
        void endDelivery();
        // The end of one handle: drops it, stops the jobs with the last one; false if the handle
        // was not (any more) a handle of this task.
        bool removeHandleUnlocked(const SharedPtr<Handle>& handle, bool* stopJobs)
            QOR_REQUIRES(_mutex);
        void sendCancelled(const SharedPtr<Handle>& handle);
        // Still a caller of this task, with no cancellation waiting for the end of a delivery.
        bool wantedUnlocked(const SharedPtr<Handle>& handle) const QOR_REQUIRES(_mutex);

        mutable thread::Mutex _mutex;  // guards the flags and the two handle sets
        const SharedPtr<ImageSource> _source;
        const TileSet _tiles;
        const unsigned int _version;
        const SharedPtr<thread::JobScoreFunction> _scoreFunction;
        bool _cancelled QOR_GUARDED_BY(_mutex) = false;
        bool _finished QOR_GUARDED_BY(_mutex) = false;
        // An atomic, not under _mutex: the merger reads it under its own mutex, and the two
        // mutexes are never held together.
        std::atomic<bool> _terminated{false};
        thread::DependentJobExecutor _executor;
        HandleSet _taskHandles QOR_GUARDED_BY(_mutex);
        HandleSet _cancelWhileDelivering QOR_GUARDED_BY(_mutex);
        // Positions of this source that the jobs have delivered.
        TileSet _deliveredTiles QOR_GUARDED_BY(_mutex);
        // Deliveries running outside the lock (jobs of one task finish on several threads).
        int _delivering QOR_GUARDED_BY(_mutex) = 0;
    };

    static SharedPtr<TileRequestTaskMerger> create();
    ~TileRequestTaskMerger();
    TileRequestTaskMerger(const TileRequestTaskMerger&) = delete;
    TileRequestTaskMerger& operator=(const TileRequestTaskMerger&) = delete;

    // Queues a request, or joins an identical one that has not started. Never blocks on jobs.
    SharedPtr<Handle> execute(const SharedPtr<ImageSource>& source, const TileSet& tiles,
                              unsigned int version,
                              const SharedPtr<thread::JobScoreFunction>& score,
                              const TileCallback& tileCallback, const ProgressCallback& progress);
    // Cancels every handle of every pending and running task.
    void terminateAllTasks();

    void notifyTaskStart(const SharedPtr<Task>& task);
    void notifyTaskFinish(const SharedPtr<Task>& task);

    // Requests waiting or running (for tests and diagnostics).
    size_t pendingTaskCount() const;
    size_t startedTaskCount() const;

protected:
    SharedPtr<TileRequestTaskMerger> selfRef() const { return _selfRef.lock(); }

private:
    TileRequestTaskMerger();
    void setupSelfRef(const SharedPtr<TileRequestTaskMerger>& self);

    WeakSharedPtr<TileRequestTaskMerger> _selfRef;
    mutable thread::Mutex _mutex;  // guards _startedTasks, _pendingTasks
    std::set<SharedPtr<Task>> _startedTasks QOR_GUARDED_BY(_mutex);
    std::set<SharedPtr<Task>> _pendingTasks QOR_GUARDED_BY(_mutex);
    thread::Sequentializer _sequentializer;
};

}  // namespace qor::imaging
